#include "image/ImageView.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

namespace {
template <typename... Args>
std::string format(const char* fmt, Args... args)
{
    char buf[256];
    std::snprintf(buf, sizeof buf, fmt, args...);
    return buf;
}
}  // namespace

ImageView ImageView::subView(int32_t x, int32_t y, int32_t w, int32_t h) const
{
    if (w <= 0)
        w = (width - x) + w;
    if (h <= 0)
        h = (height - y) + h;
    if (int64_t(x) + w > width || int64_t(y) + h > height)
        throw std::runtime_error(format("Access out of bounds in ImageView::subView: %dx%d@%dx%d not in %dx%d",
                                        w, h, x, y, width, height));
    if (w < 1 || h < 1)
        throw std::runtime_error(format("Access out of bounds in ImageView::subView: empty ROI (%dx%d)", w, h));
    ImageView v = *this;
    v.data = pixel(x, y);
    v.width = w;
    v.height = h;
    v.pixelStep = step();
    v.rowStride = stride();
    return v;
}

Image::Image(int32_t w, int32_t h, int32_t channels)
{
    if (w <= 0 || h <= 0 || channels <= 0)
        throw std::runtime_error(format("Invalid image size %dx%d", w, h));
    const uint64_t bytes = uint64_t(w) * uint64_t(h) * uint64_t(channels);
    if (bytes > kMaxImageBytes || uint64_t(w) * channels > uint64_t(INT32_MAX))
        throw std::runtime_error(format("Image size %dx%d is too large", w, h));
    owned.reset(new uint8_t[bytes]());
    data = owned.get();
    pixelStep = channels;
    rowStride = channels * w;
    width = w;
    height = h;
}
