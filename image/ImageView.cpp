#include "image/ImageView.h"

#include <sys/mman.h>

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
// Asks for transparent huge pages on a large buffer before it is first
// touched. A panorama is hundreds of MB; faulting it in 4 KiB pages costs
// more than decoding it on a virtual machine, 2 MiB pages cut that 512-fold.
// Only a hint: where the kernel does not give them, nothing changes.
void adviseHugePages(uint8_t* p, size_t bytes)
{
#ifdef MADV_HUGEPAGE
    constexpr uintptr_t kHuge = uintptr_t(2) << 20;
    if (bytes < 8 * kHuge)
        return;
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(p) + kHuge - 1) & ~(kHuge - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(p) + bytes) & ~(kHuge - 1);
    if (end > begin)
        madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
    (void)p;
    (void)bytes;
#endif
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
    owned.reset(new uint8_t[bytes]);
    adviseHugePages(owned.get(), bytes);
    std::memset(owned.get(), 0, bytes);
    data = owned.get();
    pixelStep = channels;
    rowStride = channels * w;
    width = w;
    height = h;
}
