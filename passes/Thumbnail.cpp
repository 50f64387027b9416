// Thumbnail: nearest sample, tone mapping in HDR mode, box halving, JPEG.
#include "passes/Thumbnail.h"

#include <cstring>
#include <memory>

#include "image/Jpeg.h"
#include "libglutil/Stage.h"
#include "passes/Tonemap.h"

namespace {
constexpr int kSampleWidth = 2000;
constexpr int kSampleHeight = 1000;
}  // namespace

void sampleNearest(const ImageView& panorama, int outWidth, int outHeight, uint8_t* out)
{
    const int bytes = panorama.step();
    const int64_t w = panorama.width;
    for (int y = 0; y < outHeight; ++y) {
        const uint8_t* src = panorama.row(int32_t(y * w / outWidth));
        uint8_t* dst = out + int64_t(y) * outWidth * bytes;
        for (int x = 0; x < outWidth; ++x)
            std::memcpy(dst + x * bytes, src + (x * w / outWidth) * bytes, bytes);
    }
}

ImageView halveBox(const ImageView& rgb)
{
    ImageView half;
    half.data = rgb.data;
    half.pixelStep = 3;
    half.width = rgb.width / 2;
    half.height = rgb.height / 2;
    half.rowStride = 3 * half.width;
    const int step = rgb.step();
    for (int y = 0; y < half.height; ++y) {
        const uint8_t* top = rgb.row(2 * y);
        const uint8_t* bottom = rgb.row(2 * y + 1);
        uint8_t* out = half.row(y);
        for (int x = 0; x < half.width; ++x) {
            const uint8_t* a = top + 2 * x * step;
            const uint8_t* c = bottom + 2 * x * step;
            for (int k = 0; k < 3; ++k)
                out[3 * x + k] = uint8_t((a[k] >> 2) + (a[step + k] >> 2) + (c[k] >> 2) + (c[step + k] >> 2));
        }
    }
    return half;
}

void makeThumbnail(const ImageView& panorama, bool hdr, const std::string& thumbnailPath)
{
    const int bytes = hdr ? 4 : 3;
    // RGBE as 32-bit words in HDR mode; either way zero-filled.
    std::unique_ptr<uint32_t[]> block(new uint32_t[(size_t(kSampleWidth) * kSampleHeight * bytes + 3) / 4]());
    uint8_t* pixels = reinterpret_cast<uint8_t*>(block.get());
    sampleNearest(panorama, kSampleWidth, kSampleHeight, pixels);

    ImageView sample;
    sample.data = pixels;
    sample.pixelStep = bytes;
    sample.rowStride = bytes * kSampleWidth;
    sample.width = kSampleWidth;
    sample.height = kSampleHeight;
    {
        // Timing is back on afterwards even when tone mapping throws.
        struct TimingOn {
            ~TimingOn() { stageTimingEnabled = true; }
        } timingOn;
        if (hdr) {
            stageTimingEnabled = false;
            sample = tonemap(sample);
        }
    }

    const ImageView thumbnail = halveBox(sample);
    writeJpeg(thumbnail, thumbnailPath, {photoSphereXmp(thumbnail.width, thumbnail.height)});
    finishStage("thumbnail");
}
