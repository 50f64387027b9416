#pragma once
// The renderer's only GPU image: an uploaded source image or a render target.
// Every upload is 8 bits per component (HDR images travel as RGBE bytes and are
// decoded in the shaders). An image wider than the GPU allows is split into a
// left and a right piece (two 2D textures, or two layers of one array texture
// with USE_ARRAY_TEXTURE). Move-only: exactly one owner per GL name.
#include <GL/glew.h>

#include <cstdint>

class Texture {
public:
    Texture() = default;
    // Render target of the given size and internal format (pixel format GL_RGBA,
    // no data); its framebuffer is created and checked at once.
    Texture(int width, int height, GLenum internalFormat);
    ~Texture();
    Texture(const Texture&) = delete;
    Texture& operator=(const Texture&) = delete;
    Texture(Texture&& other) noexcept;
    Texture& operator=(Texture&& other) noexcept;

    // data == nullptr creates a render target. rowStride in bytes, 0 = packed;
    // it must be a whole number of pixels (GL counts row length in pixels).
    void create(int width, int height, GLenum internalFormat, GLenum pixelFormat, const void* data,
                int rowStride = 0);

    // Binds the pieces to unit, unit + 1, ... and sets the per-unit uniforms
    // (texSize<i>, texIsRGBE<i>, texIsHDR<i>, texIsMipMap<i>, tileSize<i> below
    // GL 3.0) on the current program. Returns the first unit after them.
    GLenum bind(GLenum unit) const;

    // Reads the first piece as 8-bit data (GL_RGB or GL_RGBA), rows bottom-up as
    // GL delivers them; w/h of 0 mean the texture's size. Honours the current
    // GL_PACK_ROW_LENGTH. Large reads go in bands.
    void readPixels(void* destination, GLenum pixelFormat, int w = 0, int h = 0);

    // Releases every GL name; never throws.
    void destroy() noexcept;

    // Throws opengl_error "Maximum texture size of GPU is too small (%dx%d > %d)"
    // when an image of this size cannot be held (as two pieces at most), with
    // the 8192 cap for images wider than 10000 and at most 8192 high.
    static void checkFits(int width, int height);

    int width() const { return width_; }
    int height() const { return height_; }
    int tileWidth() const { return tileWidth_; }
    int tileHeight() const { return tileHeight_; }
    int count() const { return count_; }
    GLuint piece(int i) const { return names_[i]; }
    GLuint framebuffer() const { return framebuffer_; }
    bool isHDR() const { return isHDR_; }
    bool isRGBE() const { return isRGBE_; }
    bool isMipMap() const { return isMipMap_; }
    // Layers of the array texture (2 for a split image in array mode), else 1.
    int layers() const { return layers_; }
    GLenum internalFormat() const { return internalFormat_; }

    // Exposure statistics of an uploaded RGBE image: 2^mean, 2^min, 2^max of
    // the exponent (E - 128, E = 0 skipped); 0 otherwise. Set by the uploader.
    double meanLevel = 0, minLevel = 0, maxLevel = 0;

    // GL_TEXTURE_2D_ARRAY when USE_ARRAY_TEXTURE was set at start, else GL_TEXTURE_2D.
    static GLenum target();
    // One-shot request for a mipmap chain on the next creation with data.
    static bool& mipmapRequest();

private:
    friend void bindAsRenderTarget(Texture& texture);
    GLuint names_[2] = {0, 0};
    int count_ = 0;
    GLuint framebuffer_ = 0;
    int width_ = 0, height_ = 0;
    int tileWidth_ = 0, tileHeight_ = 0;
    bool isHDR_ = false, isRGBE_ = false, isMipMap_ = false;
    int layers_ = 0;
    GLenum internalFormat_ = 0;
};

// Channels of a pixel format: GL_RED 1, GL_RGB 3, GL_RGBA 4; else throws
// std::runtime_error "unknown GL format: %d".
int channelsOf(GLenum pixelFormat);
