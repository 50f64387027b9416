#include "libglutil/Texture.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <utility>

#include "libglutil/GLError.h"
#include "libglutil/GLVersion.h"

namespace {

// Rows per glTexSubImage2D call: keeps each driver-side conversion small.
constexpr int kUploadBand = 256;
// Widest image that is kept whole when the GPU could hold more: wider panoramas
// are always split so that each piece stays a comfortable size.
constexpr int kWideImageCap = 8192;
constexpr int kWideImageWidth = 10000;

GLint maxTextureSize()
{
    GLint max = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &max);
    return max;
}

// The effective limit for an image of this size (the wide-image cap included)
// on a GPU whose largest texture side is `max`.
int effectiveMax(int width, int height, int max)
{
    if (height <= kWideImageCap && width > kWideImageWidth && max > kWideImageCap)
        max = kWideImageCap;
    return max;
}

int effectiveMax(int width, int height) { return effectiveMax(width, height, maxTextureSize()); }

void setUniform1i(GLint program, const char* base, int index, int v)
{
    const std::string name = base + std::to_string(index);
    const GLint loc = glGetUniformLocation(program, name.c_str());
    if (loc != -1)
        glUniform1i(loc, v);
}

void uploadRect(GLenum target, int layer, int x, int y, int w, int h, GLenum pixelFormat, GLenum type,
                const uint8_t* data, int rowStride);

// The component type of the pixels uploaded to a texture of `internalFormat`:
// 16-bit photographs come as unsigned shorts, everything else as bytes.
GLenum uploadType(GLenum internalFormat)
{
    return internalFormat == GL_RGB16 ? GL_UNSIGNED_SHORT : GL_UNSIGNED_BYTE;
}

// Allocates one piece (or, in array mode, all its layers) on the bound target
// and uploads `data` in bands. In array mode `layers` > 1 means the left and the
// right half of the image go to layers 0 and 1.
void storePiece(GLenum target, GLuint& name, int w, int h, int layers, bool mip, GLenum internalFormat,
                GLenum pixelFormat, const uint8_t* data, int rowStride)
{
    glGenTextures(1, &name);
    glBindTexture(target, name);
    glTexParameteri(target, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(target, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    // Only photographs (8 or 16 bits) are filtered by the hardware; RGBE bytes
    // and float targets must never be blended before decoding.
    const bool photograph = internalFormat == GL_RGB8 || internalFormat == GL_RGB16 || internalFormat == GL_LUMINANCE8;
    const GLint filter = photograph ? GL_LINEAR : GL_NEAREST;
    glTexParameteri(target, GL_TEXTURE_MAG_FILTER, filter);
    glTexParameteri(target, GL_TEXTURE_MIN_FILTER, filter);

    if (target == GL_TEXTURE_2D_ARRAY) {
        glTexStorage3D(GL_TEXTURE_2D_ARRAY, 1, internalFormat, w, h, layers);
    } else if (glewIsSupported("GL_VERSION_4_2")) {
        // One level fewer than a complete chain (4096 gives 12), as the
        // renderer has always allocated.
        const int levels = mip ? std::max(1, int(std::log2(double(std::max(w, h))))) : 1;
        glTexStorage2D(target, levels, internalFormat, w, h);
    } else {
        glTexImage2D(target, 0, GLint(internalFormat), w, h, 0, pixelFormat, uploadType(internalFormat), nullptr);
    }
    GL_CHECK();

    if (data) {
        const GLenum type = uploadType(internalFormat);
        for (int layer = 0; layer < layers; ++layer)
            uploadRect(target, layer, 0, 0, w, h, pixelFormat, type,
                       data + size_t(layer) * size_t(w) * bytesPerPixel(pixelFormat, type), rowStride);
        if (mip)
            glGenerateMipmap(target);
    }
    GL_CHECK();
}

// Uploads the w x h pixels at (x, y) of the piece bound on `target` (layer
// `layer` of an array texture) from `data`, their first row, in bands.
void uploadRect(GLenum target, int layer, int x, int y, int w, int h, GLenum pixelFormat, GLenum type,
                const uint8_t* data, int rowStride)
{
    glPixelStorei(GL_UNPACK_ROW_LENGTH, rowStride / int(bytesPerPixel(pixelFormat, type)));
    glPixelStorei(GL_UNPACK_ALIGNMENT, rowStride % 4 == 0 ? 4 : 1);
    for (int row = 0; row < h; row += kUploadBand) {
        const int band = std::min(kUploadBand, h - row);
        const uint8_t* src = data + size_t(row) * size_t(rowStride);
        if (target == GL_TEXTURE_2D_ARRAY)
            glTexSubImage3D(target, 0, x, y + row, layer, w, band, 1, pixelFormat, type, src);
        else
            glTexSubImage2D(target, 0, x, y + row, w, band, pixelFormat, type, src);
    }
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
}

}  // namespace

namespace {

[[noreturn]] void throwUnknown(const char* what, GLenum value)
{
    char msg[64];
    std::snprintf(msg, sizeof msg, "unknown GL %s: %d", what, int(value));
    throw std::runtime_error(msg);
}

}  // namespace

int channelsOf(GLenum pixelFormat)
{
    switch (pixelFormat) {
    case GL_RED: return 1;
    case GL_RGB: return 3;
    case GL_RGBA: return 4;
    default: throwUnknown("format", pixelFormat);
    }
}

size_t bytesPerPixel(GLenum pixelFormat, GLenum type)
{
    const size_t channels = size_t(channelsOf(pixelFormat));
    if (type == GL_UNSIGNED_BYTE)
        return channels;
    if (type == GL_UNSIGNED_SHORT)
        return 2 * channels;
    if (type == GL_HALF_FLOAT)
        return 2 * channels;
    if (type == GL_FLOAT)
        return 4 * channels;
    throwUnknown("type", type);
}

GLenum Texture::target()
{
    // Read once: the choice holds for the whole run, like the shader define.
    static const GLenum t = std::getenv("USE_ARRAY_TEXTURE") ? GL_TEXTURE_2D_ARRAY : GL_TEXTURE_2D;
    return t;
}

bool Texture::isWhole(int width, int height, int maxTextureSize)
{
    const int max = effectiveMax(width, height, maxTextureSize);
    return width <= max && height <= max;
}

void Texture::checkFits(int width, int height)
{
    const int max = effectiveMax(width, height);
    if (height > max || width > 2 * max) {
        char msg[128];
        std::snprintf(msg, sizeof msg, "Maximum texture size of GPU is too small (%dx%d > %d)", width, height, max);
        throw opengl_error(msg);
    }
}

Texture Texture::upload(int width, int height, GLenum internalFormat, GLenum pixelFormat, const void* data,
                        int rowStride, Mipmaps mipmaps)
{
    Texture texture;  // releases the names generated so far if allocation fails
    texture.allocate(width, height, internalFormat, pixelFormat, data, rowStride, mipmaps == Mipmaps::generate);
    return texture;
}

Texture Texture::renderTarget(int width, int height, GLenum internalFormat)
{
    Texture texture;
    texture.allocate(width, height, internalFormat, GL_RGBA, nullptr, 0, false);
    return texture;
}

Texture::~Texture() { destroy(); }

Texture::Texture(Texture&& other) noexcept : s_(std::exchange(other.s_, State{})) {}

Texture& Texture::operator=(Texture&& other) noexcept
{
    if (this != &other) {
        destroy();
        s_ = std::exchange(other.s_, State{});
    }
    return *this;
}

void Texture::setExposureLevels(double mean, double min, double max)
{
    s_.meanLevel = mean;
    s_.minLevel = min;
    s_.maxLevel = max;
}

void Texture::allocate(int width, int height, GLenum internalFormat, GLenum pixelFormat, const void* data,
                       int rowStride, bool mipmaps)
{
    const int max = effectiveMax(width, height);
    checkFits(width, height);

    s_.isHDR = internalFormat == GL_RGB16F || internalFormat == GL_RGBA8;
    s_.isRGBE = internalFormat == GL_RGBA8;
    s_.internalFormat = internalFormat;
    s_.width = width;
    s_.height = height;
    s_.isMipMap = data && mipmaps && !s_.isHDR;

    // An odd split width loses the last column; the renderer has always accepted that.
    s_.tileWidth = width > max ? width / 2 : width;
    s_.tileHeight = height;
    const bool split = width > max;
    const size_t pixelBytes = bytesPerPixel(pixelFormat, uploadType(internalFormat));
    if (rowStride == 0)
        rowStride = width * int(pixelBytes);
    const bool array = target() == GL_TEXTURE_2D_ARRAY;
    s_.layers = array && split ? 2 : 1;

    // Creating a texture must not disturb the inputs a pass has already bound:
    // the binding of the active unit is put back afterwards.
    GLint previous = 0;
    glGetIntegerv(array ? GL_TEXTURE_BINDING_2D_ARRAY : GL_TEXTURE_BINDING_2D, &previous);
    struct RestoreBinding {
        GLenum target;
        GLint name;
        ~RestoreBinding() { glBindTexture(target, GLuint(name)); }
    } restore{target(), previous};

    const auto* bytes = static_cast<const uint8_t*>(data);
    s_.count = 1;
    storePiece(target(), s_.names[0], s_.tileWidth, s_.tileHeight, s_.layers, s_.isMipMap, internalFormat,
               pixelFormat, bytes, rowStride);
    if (!array && split) {
        s_.count = 2;
        const uint8_t* right = bytes ? bytes + size_t(s_.tileWidth) * pixelBytes : nullptr;
        storePiece(target(), s_.names[1], s_.tileWidth, s_.tileHeight, 1, s_.isMipMap, internalFormat, pixelFormat,
                   right, rowStride);
    }
}

void Texture::replacePart(int x, int y, int w, int h, GLenum pixelFormat, const void* data, int rowStride)
{
    if (x < 0 || y < 0 || w < 0 || h < 0 || x > s_.width - w || y > s_.height - h)
        throw std::out_of_range("Texture::replacePart: pixels outside the texture");
    if (w == 0 || h == 0)
        return;
    const GLenum type = uploadType(s_.internalFormat);
    const size_t pixelBytes = bytesPerPixel(pixelFormat, type);
    if (rowStride == 0)
        rowStride = w * int(pixelBytes);
    GLint previous = 0;
    const bool array = target() == GL_TEXTURE_2D_ARRAY;
    glGetIntegerv(array ? GL_TEXTURE_BINDING_2D_ARRAY : GL_TEXTURE_BINDING_2D, &previous);
    const auto* bytes = static_cast<const uint8_t*>(data);
    // Piece k (a texture, or a layer in array mode) holds the image's columns
    // [k tileWidth, (k + 1) tileWidth).
    for (int k = 0; k < std::max(s_.count, s_.layers); ++k) {
        const int left = k * s_.tileWidth;
        const int from = std::max(x, left), to = std::min(x + w, left + s_.tileWidth);
        if (from >= to)
            continue;
        glBindTexture(target(), s_.names[array ? 0 : k]);
        uploadRect(target(), array ? k : 0, from - left, y, to - from, h, pixelFormat, type,
                   bytes + size_t(from - x) * pixelBytes, rowStride);
    }
    glBindTexture(target(), GLuint(previous));
    GL_CHECK();
}

GLenum Texture::bind(GLenum unit) const
{
    GLint program = 0;
    glGetIntegerv(GL_CURRENT_PROGRAM, &program);
    const int index = int(unit - GL_TEXTURE0);
    if (program != 0) {
        if (glVersionNumber() < 30) {
            // GLSL 1.20 cannot ask a sampler for its size.
            const std::string name = "tileSize" + std::to_string(index);
            const GLint loc = glGetUniformLocation(GLuint(program), name.c_str());
            if (loc != -1)
                glUniform3i(loc, s_.tileWidth, s_.tileHeight, s_.count);
        }
        const std::string sizeName = "texSize" + std::to_string(index);
        const GLint loc = glGetUniformLocation(GLuint(program), sizeName.c_str());
        if (loc != -1)
            glUniform2i(loc, s_.width, s_.height);
        setUniform1i(program, "texIsRGBE", index, s_.isRGBE ? 1 : 0);
        setUniform1i(program, "texIsHDR", index, s_.isHDR ? 1 : 0);
        setUniform1i(program, "texIsMipMap", index, s_.isMipMap ? 1 : 0);
    }
    GL_CHECK();
    for (int k = 0; k < s_.count; ++k) {
        glActiveTexture(unit + GLenum(k));
        glBindTexture(target(), s_.names[k]);
    }
    glActiveTexture(unit);
    return unit + GLenum(s_.count);
}

void Texture::destroy() noexcept
{
    // Nothing may be thrown from here. Unused slots hold 0, which GL ignores,
    // so a creation that failed half-way is released the same way.
    if (s_.names[0] != 0 || s_.names[1] != 0)
        glDeleteTextures(2, s_.names);
    s_ = State{};
}
