#include "libglutil/FullScreenPass.h"

#include <GL/glew.h>

#include "libglutil/GLError.h"
#include "libglutil/GLVersion.h"

const char* const kDefaultVertexShader = R"(
    #version 330
    uniform vec2 viewportSize;
    layout (location = 0) in vec4 vertex;
    out vec2 _gl_TexCoord;

    void main()
    {
        gl_Position = vec4(vertex.xy, 0, 1);
        _gl_TexCoord = vertex.zw * viewportSize;
    }
)";

namespace {

// Full-screen strip: x, y, s, t per vertex. Vertices 0-3 are a vertically
// flipped variant kept for layout compatibility; the pass draws 4-7, whose
// texture coordinate (0, 0) is the bottom-left corner, i.e. the first row in
// memory of the render target.
const float kQuadVertices[8][4] = {
    {-1, 1, 0, 0}, {1, 1, 1, 0}, {-1, -1, 0, 1}, {1, -1, 1, 1},
    {-1, 1, 0, 1}, {1, 1, 1, 1}, {-1, -1, 0, 0}, {1, -1, 1, 0},
};

// Fixed-function quad with glTexCoord = vertex position in pixels.
void legacyFullScreenPass(int width, int height)
{
    glViewport(0, 0, width, height);
    const float w = float(width), h = float(height);
    // glOrtho(0, w, 0, h, -1, 1), column-major.
    const float ortho[16] = {2.0f / w, 0, 0, 0, 0, 2.0f / h, 0, 0, 0, 0, -1, 0, -1, -1, 0, 1};
    glMatrixMode(GL_PROJECTION);
    glLoadMatrixf(ortho);
    glMatrixMode(GL_MODELVIEW);
    glLoadIdentity();
    glBegin(GL_QUADS);
    glTexCoord2f(0, 0);
    glVertex2f(0, 0);
    glTexCoord2f(w, 0);
    glVertex2f(w, 0);
    glTexCoord2f(w, h);
    glVertex2f(w, h);
    glTexCoord2f(0, h);
    glVertex2f(0, h);
    glEnd();
}

// Attribute 0 = (x, y, s, t), drawn as a strip, "viewportSize" set on the
// current program.
void vertexArrayFullScreenPass(int width, int height)
{
    // Created once and kept for the whole process.
    static GLuint vertexArray = 0;
    static GLuint vertexBuffer = 0;
    glViewport(0, 0, width, height);
    if (vertexArray == 0) {
        glGenVertexArrays(1, &vertexArray);
        glBindVertexArray(vertexArray);
        glGenBuffers(1, &vertexBuffer);
        glBindBuffer(GL_ARRAY_BUFFER, vertexBuffer);
        glBufferData(GL_ARRAY_BUFFER, sizeof kQuadVertices, kQuadVertices, GL_STATIC_DRAW);
        glEnableVertexAttribArray(0);
        glVertexAttribPointer(0, 4, GL_FLOAT, GL_FALSE, 0, nullptr);
        GL_CHECK();
    }
    glBindVertexArray(vertexArray);
    GLint program = 0;
    glGetIntegerv(GL_CURRENT_PROGRAM, &program);
    if (program != 0) {
        const GLint loc = glGetUniformLocation(GLuint(program), "viewportSize");
        if (loc != -1)
            glUniform2f(loc, float(width), float(height));
    }
    glDrawArrays(GL_TRIANGLE_STRIP, 4, 4);
    GL_CHECK();
}

}  // namespace

void fullScreenPass(int width, int height)
{
    if (glVersionNumber() < 33)
        legacyFullScreenPass(width, height);
    else
        vertexArrayFullScreenPass(width, height);
}
