#pragma once
// RGBE: 4 bytes per pixel (R, G, B, E), value of a channel = byte * 2^(E - 136);
// E = 0 is black whatever R, G, B hold. The same encoding is used in memory,
// in .hdr files and in RGBE textures (the shader twin lives in stdlib.frag and
// must stay byte-exact with floatToRgbe).
#include <cstdint>

#include "image/ImageView.h"

// Lazily built table: entry E holds 2^(E - 136).
const float* rgbeExponentTable();

// Decodes one pixel into three floats. No half-step is added to the mantissa
// bytes, so decode(encode(x)) rounds toward zero.
inline void rgbeToFloat(const uint8_t* rgbe, float* rgb3)
{
    if (rgbe[3] == 0) {
        rgb3[0] = rgb3[1] = rgb3[2] = 0.0f;
        return;
    }
    const float f = rgbeExponentTable()[rgbe[3]];
    rgb3[0] = float(rgbe[0]) * f;
    rgb3[1] = float(rgbe[1]) * f;
    rgb3[2] = float(rgbe[2]) * f;
}

// Encodes three floats, truncating (no rounding). A largest channel below
// 1e-32 gives four zero bytes; negative channels are not clamped, their
// truncated value keeps only its low 8 bits.
void floatToRgbe(float r, float g, float b, uint8_t* rgbe4);

// Encodes three non-negative floats to the nearest RGBE value (the mantissa
// bytes rounded, the exponent raised where the largest one would reach 256).
void floatToRgbeRounded(float r, float g, float b, uint8_t* rgbe4);

// The RGBE image `factor` times smaller each way: every output pixel is the
// mean, in linear values, of a factor x factor block of the input, whose
// sides must be multiples of `factor`, encoded to the nearest RGBE value.
Image shrinkRgbe(const ImageView& rgbe, int factor);
