#include "image/Webp.h"

#include <webp/encode.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <vector>

#include "image/FormatText.h"
#include "image/OutputFile.h"

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& reason)
{
    throw std::runtime_error(formatText("Error writing WebP file '%s': %s", path.c_str(), reason.c_str()));
}

struct WebpFree {
    void operator()(uint8_t* p) const { WebPFree(p); }
};

}  // namespace

void writeWebp(const ImageView& rgb, const std::string& path, int quality)
{
    if (rgb.width() <= 0 || rgb.height() <= 0 || rgb.width() > WEBP_MAX_DIMENSION ||
        rgb.height() > WEBP_MAX_DIMENSION)
        fail(path, formatText("unsupported image size %dx%d", rgb.width(), rgb.height()));
    if (rgb.channels() < 3)
        fail(path, "pixels are not RGB");

    // The encoder takes packed RGB rows; other layouts are packed first.
    std::vector<uint8_t> packed;
    const uint8_t* pixels = rgb.data();
    int stride = int(rgb.stride());
    if (rgb.channels() != 3) {
        packed.resize(size_t(rgb.width()) * rgb.height() * 3);
        for (int y = 0; y < rgb.height(); ++y) {
            const uint8_t* p = rgb.row(y);
            for (int x = 0; x < rgb.width(); ++x, p += rgb.channels())
                std::memcpy(&packed[(size_t(y) * rgb.width() + x) * 3], p, 3);
        }
        pixels = packed.data();
        stride = 3 * rgb.width();
    }
    uint8_t* encoded = nullptr;
    const size_t size = WebPEncodeRGB(pixels, rgb.width(), rgb.height(), stride, float(quality), &encoded);
    const std::unique_ptr<uint8_t, WebpFree> owner(encoded);
    if (size == 0)
        fail(path, "the encoder failed");
    AtomicOutputFile(path).write(
        [&](std::ofstream& out) { out.write(reinterpret_cast<const char*>(encoded), std::streamsize(size)); });
}
