#pragma once
// Non-owning view of 8-bit pixel data, rows top first, and the owning image
// that holds a buffer for such a view.
#include <cstddef>
#include <cstdint>
#include <memory>

struct ImageView {
    uint8_t* data = nullptr;
    int32_t pixelStep = 0;  // elements from one pixel to the next; 0 means 1
    int32_t rowStride = 0;  // elements from one row to the next; 0 means width * pixel step
    int32_t width = 0;
    int32_t height = 0;

    int32_t step() const { return pixelStep ? pixelStep : 1; }
    int32_t stride() const { return rowStride ? rowStride : width * step(); }
    uint8_t* row(int32_t y) const { return data + ptrdiff_t(y) * stride(); }
    uint8_t* pixel(int32_t x, int32_t y) const { return row(y) + ptrdiff_t(x) * step(); }

    // The w x h rectangle at (x, y). Sizes <= 0 count back from the far edge.
    // Throws std::runtime_error "Access out of bounds in ImageView::subView: ...".
    ImageView subView(int32_t x, int32_t y, int32_t w, int32_t h) const;
};

// An ImageView that owns its (zero-filled) buffer.
struct Image : ImageView {
    std::unique_ptr<uint8_t[]> owned;

    Image() = default;
    // Packed image of width x height pixels with `channels` bytes each
    // (pixel step = channels, row stride = channels * width), zero-filled.
    // Throws std::runtime_error for non-positive or absurd sizes instead of
    // attempting the allocation.
    Image(int32_t width, int32_t height, int32_t channels);

    ImageView view() const { return *this; }
    size_t byteSize() const { return size_t(stride()) * size_t(height); }
};

// Largest image buffer the program agrees to allocate (bytes). Generous enough
// for the widest panorama (31800 x 15900 RGBE is about 2 GB).
constexpr uint64_t kMaxImageBytes = uint64_t(8) << 30;
