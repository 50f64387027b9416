// Built with -ffp-contract=off: each operation below must round as the
// shader's does, and a fused multiply-add rounds once where it rounds twice.
#include "passes/Sharpen.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <vector>

namespace {

// How llvmpipe reads an 8-bit texel: the byte times the float nearest 1/255.
inline float texel(uint8_t v) { return float(v) * (1.0f / 255.0f); }

// How llvmpipe stores a float in [0, 1] into an 8-bit target: times 255 in
// float, then rounded to the nearest integer, ties to even (adding and
// taking away 2^23 rounds so in the default rounding mode).
inline uint8_t level(float v)
{
    const float scaled = v * 255.0f;
    return uint8_t(int((scaled + 0x1p23f) - 0x1p23f));
}

}  // namespace

void sharpenLdr(const MutableImageView& rows, int32_t firstRow, int32_t height, const PixelRect& part)
{
    const int32_t width = rows.width(), step = rows.channels();
    const int32_t top = std::max(part.y0 - 1, 0), bottom = std::min(part.y1 + 1, height);
    if ((step != 3 && step != 4) || part.empty() || part.x0 < 0 || part.y0 < 0 || part.x1 > width ||
        part.y1 > height || firstRow > top || firstRow + rows.height() < bottom)
        throw std::invalid_argument("sharpenLdr: the rows do not hold the part and its neighbours");
    const int32_t n = step * (part.x1 - part.x0);

    // Three source rows as floats, columns part.x0 - 1 to part.x1, with the
    // image's edge pixel standing in for the column beyond it: the pixel
    // loop then reads its neighbours without a test. Each row is read once,
    // before its pixels are overwritten.
    std::array<std::vector<float>, 3> slots;
    std::array<int32_t, 3> held = {-1, -1, -1};
    const auto floats = [&](int32_t y, int32_t keep0, int32_t keep1) -> const float* {
        int free = 0;
        for (int i = 0; i < 3; ++i) {
            if (held[i] == y)
                return slots[i].data();
            if (held[i] != keep0 && held[i] != keep1)
                free = i;
        }
        std::vector<float>& f = slots[free];
        f.resize(size_t(n + 2 * step));
        const uint8_t* src = rows.pixel(part.x0, y - firstRow);
        for (int32_t i = 0; i < n; ++i)
            f[i + step] = texel(src[i]);
        const uint8_t* left = part.x0 > 0 ? src - step : src;
        const uint8_t* right = part.x1 < width ? src + n : src + n - step;
        for (int32_t k = 0; k < step; ++k)
            f[k] = texel(left[k]), f[n + step + k] = texel(right[k]);
        held[free] = y;
        return f.data();
    };

    for (int32_t y = part.y0; y < part.y1; ++y) {
        const int32_t above = std::max(y - 1, 0), below = std::min(y + 1, height - 1);
        const float* u = floats(above, y, below) + step;
        const float* m = floats(y, above, below);
        const float* d = floats(below, above, y) + step;
        uint8_t* out = rows.pixel(part.x0, y - firstRow);
        // The shader's operations, per channel, as the driver orders them:
        // its compiler adds the four neighbours in pairs, (l + r) + (u + d),
        // which rounds differently from the written left-to-right order.
        for (int32_t i = 0; i < n; ++i) {
            const float c = m[i + step], l = m[i], r = m[i + 2 * step];
            const float lo = std::min(c, std::min(std::min(l, r), std::min(u[i], d[i])));
            const float hi = std::max(c, std::max(std::max(l, r), std::max(u[i], d[i])));
            const float s = c + 0.5f * (c - 0.25f * ((l + r) + (u[i] + d[i])));
            out[i] = level(std::min(std::max(s, lo), hi));
        }
    }
}
