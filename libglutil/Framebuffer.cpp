#include "libglutil/Framebuffer.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "libglutil/GLError.h"
#include "libglutil/GLVersion.h"
#include "libglutil/Texture.h"

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

const char* baseName(const char* path)
{
    const char* slash = std::strrchr(path, '/');
    return slash ? slash + 1 : path;
}

const char* framebufferStatusText(GLenum status)
{
    switch (status) {
    case GL_FRAMEBUFFER_INCOMPLETE_ATTACHMENT: return "Framebuffer incomplete, incomplete attachment";
    case GL_FRAMEBUFFER_INCOMPLETE_MISSING_ATTACHMENT: return "Framebuffer incomplete, missing attachment";
    case GL_FRAMEBUFFER_INCOMPLETE_DRAW_BUFFER: return "Framebuffer incomplete, missing draw buffer";
    case GL_FRAMEBUFFER_INCOMPLETE_READ_BUFFER: return "Framebuffer incomplete, missing read buffer";
    case GL_FRAMEBUFFER_UNSUPPORTED: return "Unsupported framebuffer format";
    default: return nullptr;
    }
}

// Full-screen strip: x, y, s, t per vertex. Vertices 0-3 are a vertically
// flipped variant kept for layout compatibility; the pass draws 4-7, whose
// texture coordinate (0, 0) is the bottom-left corner, i.e. the first row in
// memory of the render target.
const float kQuadVertices[8][4] = {
    {-1, 1, 0, 0}, {1, 1, 1, 0}, {-1, -1, 0, 1}, {1, -1, 1, 1},
    {-1, 1, 0, 1}, {1, 1, 1, 1}, {-1, -1, 0, 0}, {1, -1, 1, 0},
};

}  // namespace

std::string framebufferErrorText(GLenum status, const char* sourceFile, int line)
{
    char head[256];
    std::snprintf(head, sizeof head, "Framebuffer Error in file %s @ line %d: ", baseName(sourceFile), line);
    std::string message = head;
    if (const char* text = framebufferStatusText(status)) {
        message += text;
    } else {
        char unknown[64];
        std::snprintf(unknown, sizeof unknown, "Unknown framebuffer status: 0x%x\n", unsigned(status));
        message += unknown;
        message += glErrorReport(sourceFile, line);
    }
    return message;
}

void bindAsRenderTarget(Texture& texture)
{
    if (texture.framebuffer_ == 0) {
        glGenFramebuffers(1, &texture.framebuffer_);
        glBindFramebuffer(GL_FRAMEBUFFER, texture.framebuffer_);
        // Only the first piece of a split texture is ever drawn into.
        if (Texture::target() == GL_TEXTURE_2D_ARRAY)
            // glFramebufferTexture3D accepts only GL_TEXTURE_3D targets; a layer
            // of an array texture is attached with glFramebufferTextureLayer.
            glFramebufferTextureLayer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, texture.names_[0], 0, 0);
        else
            glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture.names_[0], 0);
        const GLenum status = glCheckFramebufferStatus(GL_FRAMEBUFFER);
        if (status != GL_FRAMEBUFFER_COMPLETE)
            throw opengl_error(framebufferErrorText(status, __FILE__, __LINE__));
        GL_CHECK();
    } else {
        glBindFramebuffer(GL_FRAMEBUFFER, texture.framebuffer_);
    }
    glDrawBuffer(GL_COLOR_ATTACHMENT0);
}

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

void fullScreenPass(int width, int height)
{
    if (glVersionNumber() < 33)
        legacyFullScreenPass(width, height);
    else
        vertexArrayFullScreenPass(width, height);
}
