// Thumbnail: nearest sample, tone mapping in HDR mode, box halving, JPEG.
#include "passes/Thumbnail.h"

#include <cstring>

#include "image/Jpeg.h"
#include "libglutil/Stage.h"
#include "passes/Tonemap.h"

namespace {
constexpr int kSampleWidth = 2000;
constexpr int kSampleHeight = 1000;
}  // namespace

void sampleNearest(const ImageView& panorama, const MutableImageView& out)
{
    const int bytes = panorama.channels();
    const int64_t w = panorama.width();
    const int outWidth = out.width();
    for (int y = 0; y < out.height(); ++y) {
        const uint8_t* src = panorama.row(int32_t(y * w / outWidth));
        uint8_t* dst = out.row(y);
        for (int x = 0; x < outWidth; ++x)
            std::memcpy(dst + x * bytes, src + (x * w / outWidth) * bytes, bytes);
    }
}

MutableImageView halveBox(const MutableImageView& rgb)
{
    const MutableImageView half(rgb.data(), rgb.width() / 2, rgb.height() / 2, 3);
    const int step = rgb.channels();
    for (int y = 0; y < half.height(); ++y) {
        const uint8_t* top = rgb.row(2 * y);
        const uint8_t* bottom = rgb.row(2 * y + 1);
        uint8_t* out = half.row(y);
        for (int x = 0; x < half.width(); ++x) {
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
    Image buffer(kSampleWidth, kSampleHeight, panorama.channels());
    MutableImageView sample = buffer.mutableView();
    sampleNearest(panorama, sample);
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
    writeJpeg(thumbnail, thumbnailPath, {photoSphereXmp(thumbnail.width(), thumbnail.height())});
    finishStage("thumbnail");
}
