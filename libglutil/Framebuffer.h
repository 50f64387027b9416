#pragma once
// Drawing into a texture and reading it back. Move-only owner of one GL
// framebuffer name.
#include <GL/glew.h>

#include "libglutil/Texture.h"

class Framebuffer {
public:
    Framebuffer() = default;
    // Attaches the texture's first piece (layer 0 of an array texture; only
    // that piece of a split texture is ever drawn into) at
    // GL_COLOR_ATTACHMENT0, checks completeness and leaves the framebuffer
    // bound as by bind(). Throws opengl_error "Framebuffer Error in file ...
    // @ line ...: ..." when it is incomplete. The texture must outlive it.
    explicit Framebuffer(const Texture& texture);
    ~Framebuffer();
    Framebuffer(const Framebuffer&) = delete;
    Framebuffer& operator=(const Framebuffer&) = delete;
    Framebuffer(Framebuffer&& other) noexcept;
    Framebuffer& operator=(Framebuffer&& other) noexcept;

    // Makes it the target of drawing (GL_FRAMEBUFFER, draw buffer
    // GL_COLOR_ATTACHMENT0). The viewport is set by the full-screen pass.
    void bind() const;

    // Reads the w x h pixels at the bottom left into `destination`, rows
    // bottom-up as GL delivers them, each `rowPixels` pixels after the last
    // (0: w). `type` is GL_UNSIGNED_BYTE, GL_HALF_FLOAT or GL_FLOAT. Reads of
    // more than 4096 x 4096 pixels go in bands of 8,388,608 / w rows. Binds
    // the framebuffer and leaves GL_PACK_ALIGNMENT at 1.
    void read(void* destination, GLenum pixelFormat, GLenum type, int w, int h, int rowPixels = 0) const;

private:
    void destroy() noexcept;
    GLuint name_ = 0;
};

// A texture made to be drawn into, with its framebuffer.
struct RenderTarget {
    RenderTarget() = default;
    RenderTarget(int width, int height, GLenum internalFormat)
        : texture(Texture::renderTarget(width, height, internalFormat)), framebuffer(texture)
    {
    }
    int width() const { return texture.width(); }
    int height() const { return texture.height(); }

    Texture texture;
    Framebuffer framebuffer;  // declared last: released before the texture
};
