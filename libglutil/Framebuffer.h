#pragma once
// Render-target binding and the full-screen pass every GPU pass draws with.
#include <GL/glew.h>

#include <string>

class Texture;

// Binds the texture's framebuffer (created and checked for completeness on first
// use, first piece at GL_COLOR_ATTACHMENT0) and sets the draw buffer. Throws
// opengl_error "Framebuffer Error in file ... @ line ...: ..." when incomplete.
void bindAsRenderTarget(Texture& texture);

// Sets the viewport and draws one full-screen rectangle through the current
// program: legacy quad below GL 3.3, else a vertex array with texture
// coordinates in viewport pixels (_gl_TexCoord), (0,0) at the bottom left.
void fullScreenPass(int width, int height);

// The two forms of the pass; fullScreenPass picks one by the GL version.
// Legacy: fixed-function quad with glTexCoord = vertex position in pixels (needs
// a compatibility context). Vertex array: attribute 0 = (x, y, s, t), drawn as a
// strip, "viewportSize" set on the current program.
void legacyFullScreenPass(int width, int height);
void vertexArrayFullScreenPass(int width, int height);

// The embedded default vertex shader used from GL 3.3 on.
extern const char* const kDefaultVertexShader;

// "Framebuffer Error in file <file name> @ line <line>: <status text>" for an
// incomplete framebuffer status (unknown statuses carry the GL error report).
std::string framebufferErrorText(GLenum status, const char* sourceFile, int line);
