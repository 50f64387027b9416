#pragma once
// Views of 8-bit pixel data and the image that owns such data.
//
// A view shows width x height pixels of `channels` bytes each, rows top first
// and `stride` bytes apart (width * channels for packed rows; a sub-view
// keeps the stride of the view it was cut from). It owns nothing: the buffer
// must outlive it. ImageView is read-only; a MutableImageView also lets its
// pixels be written and converts to an ImageView. An Image owns a packed,
// zero-filled buffer and hands out both kinds of view of it.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>

// T is uint8_t (writable) or const uint8_t (read-only).
template <typename T>
class BasicImageView {
    static_assert(std::is_same<std::remove_const_t<T>, uint8_t>::value, "views are of 8-bit data");

public:
    BasicImageView() = default;
    // rowStride 0: rows packed, width * channels bytes apart.
    BasicImageView(T* data, int32_t width, int32_t height, int32_t channels, int32_t rowStride = 0)
        : data_(data), width_(width), height_(height), channels_(channels),
          stride_(rowStride ? rowStride : width * channels)
    {
    }
    // A writable view is also a read-only one (never the other way round).
    template <typename U, typename = std::enable_if_t<std::is_same<T, const U>::value>>
    BasicImageView(const BasicImageView<U>& other)
        : BasicImageView(other.data(), other.width(), other.height(), other.channels(), other.stride())
    {
    }

    T* data() const { return data_; }
    int32_t width() const { return width_; }
    int32_t height() const { return height_; }
    int32_t channels() const { return channels_; }
    int32_t stride() const { return stride_; }
    bool packed() const { return stride_ == width_ * channels_; }
    T* row(int32_t y) const { return data_ + ptrdiff_t(y) * stride_; }
    T* pixel(int32_t x, int32_t y) const { return row(y) + ptrdiff_t(x) * channels_; }

    // The w x h rectangle at (x, y). Sizes <= 0 count back from the far edge.
    // Throws std::runtime_error "Access out of bounds in ImageView::subView: ...".
    BasicImageView subView(int32_t x, int32_t y, int32_t w, int32_t h) const;

private:
    T* data_ = nullptr;
    int32_t width_ = 0;
    int32_t height_ = 0;
    int32_t channels_ = 0;
    int32_t stride_ = 0;
};

using ImageView = BasicImageView<const uint8_t>;
using MutableImageView = BasicImageView<uint8_t>;
extern template class BasicImageView<const uint8_t>;
extern template class BasicImageView<uint8_t>;

// Owns the packed pixels of an image. Move-only; a moved-from image is empty.
class Image {
public:
    Image() = default;
    // width x height pixels of `channels` bytes, zero-filled. Throws
    // std::runtime_error for non-positive or absurd sizes instead of
    // attempting the allocation.
    Image(int32_t width, int32_t height, int32_t channels);
    Image(Image&& other) noexcept;
    Image& operator=(Image&& other) noexcept;

    ImageView view() const { return {pixels_.get(), width_, height_, channels_}; }
    MutableImageView mutableView() { return {pixels_.get(), width_, height_, channels_}; }
    // An image is read wherever a read-only view is.
    operator ImageView() const { return view(); }

    const uint8_t* data() const { return pixels_.get(); }
    uint8_t* data() { return pixels_.get(); }
    const uint8_t* pixel(int32_t x, int32_t y) const { return view().pixel(x, y); }
    uint8_t* pixel(int32_t x, int32_t y) { return mutableView().pixel(x, y); }
    int32_t width() const { return width_; }
    int32_t height() const { return height_; }
    int32_t channels() const { return channels_; }
    size_t byteSize() const { return size_t(width_) * size_t(height_) * size_t(channels_); }

private:
    std::unique_ptr<uint8_t[]> pixels_;
    int32_t width_ = 0;
    int32_t height_ = 0;
    int32_t channels_ = 0;
};

// Bytes a pixel of the panorama has: Radiance RGBE in an HDR render, else
// 8-bit RGB.
constexpr int32_t panoramaChannels(bool hdr) { return hdr ? 4 : 3; }

// Largest image buffer the program agrees to allocate (bytes). Generous enough
// for the widest panorama (31800 x 15900 RGBE is about 2 GB).
constexpr uint64_t kMaxImageBytes = uint64_t(8) << 30;

// Most pixels a picture file may decode to: a 32768 x 16384 panorama, 1.5 GiB
// as RGB, the largest whose faces and tiles are made within 4 GB.
constexpr uint64_t kMaxPicturePixels = uint64_t(1) << 29;

// Whether a compressed picture file of `fileLength` bytes (0: unknown, not a
// regular file) may decode to `decodedBytes`: at most max(64 MiB, 1024 x its
// length). A photograph decodes to 5 to 50 times its length and a flat
// colour to a few hundred; deflate and the entropy coders cannot expand
// further than about a thousand, so a larger claim is a damaged or hostile
// header, refused before anything is allocated for it.
constexpr bool decodedSizeFits(uint64_t decodedBytes, uint64_t fileLength)
{
    constexpr uint64_t kMinDecodeBudget = uint64_t(64) << 20;
    constexpr uint64_t kMaxExpansion = 1024;
    return fileLength == 0 || decodedBytes <= std::max(kMinDecodeBudget, kMaxExpansion * fileLength);
}
