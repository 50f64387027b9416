#include "image/Rgbe.h"

#include <climits>
#include <cmath>

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
