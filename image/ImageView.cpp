#include "image/ImageView.h"

#include <sys/mman.h>

#include <cstring>
#include <stdexcept>
#include <utility>

#include "image/FormatText.h"

namespace {
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

template <typename T>
BasicImageView<T> BasicImageView<T>::subView(int32_t x, int32_t y, int32_t w, int32_t h) const
{
    if (w <= 0)
        w = (width_ - x) + w;
    if (h <= 0)
        h = (height_ - y) + h;
    if (x < 0 || y < 0 || int64_t(x) + w > width_ || int64_t(y) + h > height_)
        throw std::runtime_error(formatText("Access out of bounds in ImageView::subView: %dx%d@%dx%d not in %dx%d",
                                            w, h, x, y, width_, height_));
    if (w < 1 || h < 1)
        throw std::runtime_error(formatText("Access out of bounds in ImageView::subView: empty ROI (%dx%d)", w, h));
    return BasicImageView(pixel(x, y), w, h, channels_, stride_);
}

template class BasicImageView<const uint8_t>;
template class BasicImageView<uint8_t>;

Image::Image(int32_t w, int32_t h, int32_t channels)
{
    if (w <= 0 || h <= 0 || channels <= 0)
        throw std::runtime_error(formatText("Invalid image size %dx%d", w, h));
    const uint64_t bytes = uint64_t(w) * uint64_t(h) * uint64_t(channels);
    if (bytes > kMaxImageBytes || uint64_t(w) * channels > uint64_t(INT32_MAX))
        throw std::runtime_error(formatText("Image size %dx%d is too large", w, h));
    pixels_.reset(new uint8_t[bytes]);
    adviseHugePages(pixels_.get(), bytes);
    std::memset(pixels_.get(), 0, bytes);
    width_ = w;
    height_ = h;
    channels_ = channels;
}

Image::Image(Image&& other) noexcept
    : pixels_(std::move(other.pixels_)), width_(std::exchange(other.width_, 0)),
      height_(std::exchange(other.height_, 0)), channels_(std::exchange(other.channels_, 0))
{
}

Image& Image::operator=(Image&& other) noexcept
{
    pixels_ = std::move(other.pixels_);
    width_ = std::exchange(other.width_, 0);
    height_ = std::exchange(other.height_, 0);
    channels_ = std::exchange(other.channels_, 0);
    return *this;
}
