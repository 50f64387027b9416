#include "image/Rgbe.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <stdexcept>
#include <vector>

const float* rgbeExponentTable()
{
    // A function-local static is initialised once, thread-safely, on first use.
    static const struct Table {
        float scale[256];
        Table()
        {
            for (int e = 0; e < 256; ++e)
                scale[e] = float(std::ldexp(1.0, e - 136));
        }
    } table;
    return table.scale;
}

namespace {
// (int)f, low 8 bits. Values outside the int range (only reachable with
// negative channels far below the largest one, or infinities and NaN) give 0,
// the bits x86's truncating conversion produces for them, without the
// undefined behaviour of the plain cast.
inline uint8_t truncToByte(float f)
{
    if (!(f > float(INT_MIN) && f < float(INT_MAX)))
        return 0;
    return uint8_t(unsigned(int(f)) & 0xFFu);
}
}  // namespace

void floatToRgbe(float r, float g, float b, uint8_t* rgbe4)
{
    float v = b > g ? b : g;
    v = v > r ? v : r;
    if (v < 1e-32f) {
        rgbe4[0] = rgbe4[1] = rgbe4[2] = rgbe4[3] = 0;
        return;
    }
    int e = 0;
    const float m = std::frexp(v, &e);
    const float scale = m * 256.0f / v;
    rgbe4[0] = truncToByte(r * scale);
    rgbe4[1] = truncToByte(g * scale);
    rgbe4[2] = truncToByte(b * scale);
    rgbe4[3] = uint8_t(unsigned(e + 128) & 0xFFu);
}

void floatToRgbeRounded(float r, float g, float b, uint8_t* rgbe4)
{
    const float v = std::max(std::max(r, g), b);
    if (v < 1e-32f) {
        rgbe4[0] = rgbe4[1] = rgbe4[2] = rgbe4[3] = 0;
        return;
    }
    int e = 0;
    std::frexp(v, &e);
    float scale = std::ldexp(1.0f, 8 - e);
    if (v * scale + 0.5f >= 256.0f) {
        ++e;
        scale *= 0.5f;
    }
    rgbe4[0] = uint8_t(r * scale + 0.5f);
    rgbe4[1] = uint8_t(g * scale + 0.5f);
    rgbe4[2] = uint8_t(b * scale + 0.5f);
    rgbe4[3] = uint8_t(e + 128);
}

Image shrinkRgbe(const ImageView& rgbe, int factor)
{
    if (factor < 1 || rgbe.width() % factor != 0 || rgbe.height() % factor != 0)
        throw std::invalid_argument("shrinkRgbe: the image does not divide into blocks");
    const int32_t w = rgbe.width() / factor, h = rgbe.height() / factor;
    Image out(w, h, 4);
    const float* table = rgbeExponentTable();
    const float norm = 1.0f / float(factor * factor);
    const int32_t step = rgbe.channels();
    std::vector<float> sums(size_t(w) * 3);
    for (int32_t y = 0; y < h; ++y) {
        std::fill(sums.begin(), sums.end(), 0.0f);
        for (int j = 0; j < factor; ++j) {
            const uint8_t* p = rgbe.row(y * factor + j);
            for (int32_t x = 0; x < rgbe.width(); ++x, p += step) {
                if (p[3] == 0)
                    continue;
                const float f = table[p[3]];
                float* sum = &sums[size_t(x / factor) * 3];
                sum[0] += float(p[0]) * f;
                sum[1] += float(p[1]) * f;
                sum[2] += float(p[2]) * f;
            }
        }
        uint8_t* q = out.pixel(0, y);
        for (int32_t x = 0; x < w; ++x)
            floatToRgbeRounded(sums[3 * x] * norm, sums[3 * x + 1] * norm, sums[3 * x + 2] * norm, q + 4 * x);
    }
    return out;
}
