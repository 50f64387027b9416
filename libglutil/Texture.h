#pragma once
// The renderer's only GPU image: an uploaded source image or a render target.
// Every upload is 8 bits per component (HDR images travel as RGBE bytes and are
// decoded in the shaders). An image wider than the GPU allows is split into a
// left and a right piece (two 2D textures, or two layers of one array texture
// with USE_ARRAY_TEXTURE). Move-only: exactly one owner per GL name. Drawing
// into a texture and reading it back go through a Framebuffer
// (libglutil/Framebuffer.h).
#include <GL/glew.h>

#include <cstddef>
#include <cstdint>

class Texture {
public:
    enum class Mipmaps { none, generate };

    // An empty texture (no GL names); the factories below make real ones.
    Texture() = default;
    ~Texture();
    Texture(const Texture&) = delete;
    Texture& operator=(const Texture&) = delete;
    Texture(Texture&& other) noexcept;
    Texture& operator=(Texture&& other) noexcept;

    // Uploads `data` (8 bits a component in `pixelFormat`, 16 bits in native
    // byte order for GL_RGB16; rowStride in bytes,
    // 0 = packed, a whole number of pixels because GL counts row length in
    // pixels). A mipmap chain is generated only when asked for and the format
    // is not HDR.
    static Texture upload(int width, int height, GLenum internalFormat, GLenum pixelFormat, const void* data,
                          int rowStride = 0, Mipmaps mipmaps = Mipmaps::none);
    // A texture of the given size and internal format without data, to be
    // drawn into through a Framebuffer.
    static Texture renderTarget(int width, int height, GLenum internalFormat);

    // Replaces the w x h pixels at column x, row y of a texture with `data`,
    // the first of their rows (pixelFormat as for upload; rowStride in bytes,
    // 0 = w pixels); size, format and sampling stay, a mipmap chain is not
    // remade. Throws std::out_of_range for pixels outside the texture.
    void replacePart(int x, int y, int w, int h, GLenum pixelFormat, const void* data, int rowStride = 0);

    // Binds the pieces to unit, unit + 1, ... and sets the per-unit uniforms
    // (texSize<i>, texIsRGBE<i>, texIsHDR<i>, texIsMipMap<i>, tileSize<i> below
    // GL 3.0) on the current program. Returns the first unit after them.
    GLenum bind(GLenum unit) const;

    // Releases every GL name; never throws.
    void destroy() noexcept;

    // Throws opengl_error "Maximum texture size of GPU is too small (%dx%d > %d)"
    // when an image of this size cannot be held (as two pieces at most), with
    // the 8192 cap for images wider than 10000 and at most 8192 high.
    static void checkFits(int width, int height);
    // Whether an image of this size is held in one piece (neither split nor
    // refused) on a GPU whose largest texture side is `maxTextureSize`
    // (GL_MAX_TEXTURE_SIZE); needs no context.
    static bool isWhole(int width, int height, int maxTextureSize);

    int width() const { return s_.width; }
    int height() const { return s_.height; }
    int tileWidth() const { return s_.tileWidth; }
    int tileHeight() const { return s_.tileHeight; }
    int count() const { return s_.count; }
    GLuint piece(int i) const { return s_.names[i]; }
    bool isHDR() const { return s_.isHDR; }
    bool isRGBE() const { return s_.isRGBE; }
    bool isMipMap() const { return s_.isMipMap; }
    // Layers of the array texture (2 for a split image in array mode), else 1.
    int layers() const { return s_.layers; }
    GLenum internalFormat() const { return s_.internalFormat; }

    // Exposure statistics of an uploaded RGBE image: 2^mean, 2^min, 2^max of
    // the exponent (E - 128, E = 0 skipped); 0 otherwise. Set by the uploader.
    double meanLevel() const { return s_.meanLevel; }
    double minLevel() const { return s_.minLevel; }
    double maxLevel() const { return s_.maxLevel; }
    void setExposureLevels(double mean, double min, double max);

    // GL_TEXTURE_2D_ARRAY when USE_ARRAY_TEXTURE was set at start, else GL_TEXTURE_2D.
    static GLenum target();

private:
    // data == nullptr leaves the storage undefined.
    void allocate(int width, int height, GLenum internalFormat, GLenum pixelFormat, const void* data, int rowStride,
                  bool mipmaps);

    // All a texture is, moved as one value; a moved-from texture holds the default.
    struct State {
        GLuint names[2] = {0, 0};
        int count = 0;
        int width = 0, height = 0;
        int tileWidth = 0, tileHeight = 0;
        bool isHDR = false, isRGBE = false, isMipMap = false;
        int layers = 0;
        GLenum internalFormat = 0;
        double meanLevel = 0, minLevel = 0, maxLevel = 0;
    };
    State s_;
};

// Channels of a pixel format: GL_RED 1, GL_RGB 3, GL_RGBA 4; else throws
// std::runtime_error "unknown GL format: %d".
int channelsOf(GLenum pixelFormat);

// Bytes of a pixel in a format (as above) and type (GL_UNSIGNED_BYTE,
// GL_HALF_FLOAT, GL_FLOAT); else throws std::runtime_error "unknown GL type: %d".
size_t bytesPerPixel(GLenum pixelFormat, GLenum type);
