#pragma once
// The one draw call of every GPU pass: a rectangle over the whole viewport.

// Sets the viewport and draws one full-screen rectangle through the current
// program into the bound framebuffer: a fixed-function quad below GL 3.3 (it
// needs a compatibility context), else a vertex array with texture
// coordinates in viewport pixels (_gl_TexCoord), (0,0) at the bottom left.
void fullScreenPass(int width, int height);

// The vertex shader of programs without a vertex file from GL 3.3 on: hands
// the fragment shader _gl_TexCoord in viewport pixels ("viewportSize" is set
// by the pass).
extern const char* const kDefaultVertexShader;
