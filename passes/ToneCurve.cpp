// CPU side of the tone-mapping pass: scene key, chunk layout and the twin of
// the shader's curve. No GL here.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "image/Colour.h"
#include "passes/Tonemap.h"

float fastLog2(float y)
{
    int32_t bits;
    std::memcpy(&bits, &y, sizeof bits);
    // The mantissa with a zero exponent is a float in [1, 2); f is its fraction.
    const int32_t mantissaBits = (bits & 0x007fffff) | 0x3f800000;
    float mantissa;
    std::memcpy(&mantissa, &mantissaBits, sizeof mantissa);
    const float f = mantissa - 1.0f;
    return float(bits - 0x3f800000) * 1.1920929e-07f + f * 0.3465736f * (1.0f - f);
}

SceneKey measureSceneKey(const ImageView& rgbe)
{
    const int64_t width = rgbe.width(), height = rgbe.height();
    const int64_t slots = int64_t(rgbe.stride() / 4) * height;
    const int64_t step = width * height <= 2000000 ? 1 : 11;
    double sum = 0;
    int64_t count = 0;
    float maxLog = -128.0f;
    for (int64_t i = 0; i < slots; i += step) {
        const uint8_t* p = rgbe.data() + i * 4;
        if (p[3] == 0)
            continue;
        const float y = 0.3f * float(p[0]) + 0.59f * float(p[1]) + 0.11f * float(p[2]);
        // 136 = exponent bias 128 plus the 8 bits of the mantissa bytes.
        const float v = fastLog2(y) + float(int(p[3]) - 136);
        sum += v;
        ++count;
        maxLog = std::max(maxLog, v);
    }
    SceneKey key;
    key.avgLum = float(std::exp2(sum / double(count)));
    key.rawMax = float(std::exp2(double(maxLog)));
    return key;
}

float whiteLuminance(const SceneKey& key)
{
    const float a = 5.0f * key.avgLum;
    const float b = 0.9f * key.rawMax;
    return a > b ? a : b;
}

ToneChunks toneChunks(int width, int height)
{
    ToneChunks c;
    c.count = width <= 2000 ? 1 : (width % 12 == 0 ? 12 : 10);
    c.width = width / c.count;
    c.height = height;
    // Tall narrow chunks become two rows' worth as wide and half as high:
    // the same pixel run, a squarer texture.
    if (2 * c.width < height && height % 2 == 0) {
        c.width = 2 * (width / c.count);
        c.height = height / 2;
    }
    return c;
}

namespace {
// Must equal the constant in shaders/tonemap.frag.
constexpr float kKey = 0.18f;
}  // namespace

void toneMapPixel(const float rgb[3], float avgLum, float maxLum, uint8_t out[3])
{
    const float lum = 0.3f * rgb[0] + 0.59f * rgb[1] + 0.11f * rgb[2];
    const float scaled = kKey * lum / avgLum;
    const float white = kKey * maxLum / avgLum;
    const float display = scaled * (1.0f + scaled / (white * white)) / (1.0f + scaled);
    const float ratio = lum > 0.0f ? display / lum : 0.0f;
    for (int c = 0; c < 3; ++c)
        out[c] = uint8_t(std::floor(srgbEncode(rgb[c] * ratio) * 255.0f + 0.5f));
}
