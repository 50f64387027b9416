#pragma once
// Render-target binding and the full-screen pass every GPU pass draws with.
#include <GL/glew.h>

class Texture;

// Binds the texture's framebuffer (created and checked for completeness on first
// use, first piece at GL_COLOR_ATTACHMENT0) and sets the draw buffer. Throws
// opengl_error "Framebuffer Error in file ... @ line ...: ..." when incomplete.
void bindAsRenderTarget(Texture& texture);

// Sets the viewport and draws one full-screen rectangle through the current
// program: legacy quad below GL 3.3, else a vertex array with texture
// coordinates in viewport pixels (_gl_TexCoord), (0,0) at the bottom left.
void fullScreenPass(int width, int height);

// The embedded default vertex shader used from GL 3.3 on.
extern const char* const kDefaultVertexShader;
