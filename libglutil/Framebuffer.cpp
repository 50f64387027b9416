#include "libglutil/Framebuffer.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "libglutil/GLError.h"

namespace {

// Reads of more pixels than this go in bands of kReadBandPixels / width rows.
constexpr long long kBandedReadThreshold = 4096LL * 4096LL;
constexpr long long kReadBandPixels = 8388608LL;

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

// "Framebuffer Error in file <file name> @ line <line>: <status text>"; an
// unknown status carries the GL error report instead.
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

void attachFirstPiece(const Texture& texture)
{
    if (Texture::target() == GL_TEXTURE_2D_ARRAY)
        // glFramebufferTexture3D accepts only GL_TEXTURE_3D targets; a layer
        // of an array texture is attached with glFramebufferTextureLayer.
        glFramebufferTextureLayer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, texture.piece(0), 0, 0);
    else
        glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture.piece(0), 0);
    const GLenum status = glCheckFramebufferStatus(GL_FRAMEBUFFER);
    if (status != GL_FRAMEBUFFER_COMPLETE)
        throw opengl_error(framebufferErrorText(status, __FILE__, __LINE__));
    GL_CHECK();
}

// Destination rows `pixels` apart while it lives; GL's default (packed rows) after.
class PackRowLength {
public:
    explicit PackRowLength(int pixels) { glPixelStorei(GL_PACK_ROW_LENGTH, pixels); }
    ~PackRowLength() { glPixelStorei(GL_PACK_ROW_LENGTH, 0); }
    PackRowLength(const PackRowLength&) = delete;
    PackRowLength& operator=(const PackRowLength&) = delete;
};

}  // namespace

Framebuffer::Framebuffer(const Texture& texture)
{
    glGenFramebuffers(1, &name_);
    glBindFramebuffer(GL_FRAMEBUFFER, name_);
    try {
        attachFirstPiece(texture);
    } catch (...) {
        destroy();
        throw;
    }
    glDrawBuffer(GL_COLOR_ATTACHMENT0);
}

Framebuffer::~Framebuffer() { destroy(); }

Framebuffer::Framebuffer(Framebuffer&& other) noexcept : name_(std::exchange(other.name_, 0u)) {}

Framebuffer& Framebuffer::operator=(Framebuffer&& other) noexcept
{
    if (this != &other) {
        destroy();
        name_ = std::exchange(other.name_, 0u);
    }
    return *this;
}

void Framebuffer::destroy() noexcept
{
    if (name_ != 0)
        glDeleteFramebuffers(1, &name_);
    name_ = 0;
}

void Framebuffer::bind() const
{
    glBindFramebuffer(GL_FRAMEBUFFER, name_);
    glDrawBuffer(GL_COLOR_ATTACHMENT0);
}

void Framebuffer::read(void* destination, GLenum pixelFormat, GLenum type, int w, int h, int rowPixels) const
{
    const size_t pixelBytes = bytesPerPixel(pixelFormat, type);
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    bind();
    glReadBuffer(GL_COLOR_ATTACHMENT0);
    PackRowLength rowLength(rowPixels);
    auto* dst = static_cast<uint8_t*>(destination);
    if (static_cast<long long>(w) * h > kBandedReadThreshold) {
        const size_t rowBytes = size_t(rowPixels != 0 ? rowPixels : w) * pixelBytes;
        const int band = int(kReadBandPixels / w);
        for (int y = 0; y < h; y += band)
            glReadPixels(0, y, w, std::min(band, h - y), pixelFormat, type, dst + rowBytes * size_t(y));
    } else {
        glReadPixels(0, 0, w, h, pixelFormat, type, dst);
    }
    GL_CHECK();
}
