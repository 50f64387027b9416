// stdlib.frag helpers against CPU references: seam-free bilinear sampling of
// split images, RGBE decode/encode byte exactness, sRGB curves.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "glutil_helpers.h"
#include "image/Rgbe.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/GLError.h"
#include "libglutil/Shader.h"
#include "libglutil/Texture.h"

namespace {

// CPU bilinear of an RGB8 image at continuous pixel position (x, y), centres at
// integers, clamped at the edges.
float bilinear(const std::vector<uint8_t>& rgb, int w, int h, float x, float y, int c)
{
    x = std::clamp(x, 0.0f, float(w - 1));
    y = std::clamp(y, 0.0f, float(h - 1));
    const int x0 = int(std::floor(x)), y0 = int(std::floor(y));
    const int x1 = std::min(x0 + 1, w - 1), y1 = std::min(y0 + 1, h - 1);
    const float fx = x - float(x0), fy = y - float(y0);
    auto at = [&](int px, int py) { return float(rgb[(size_t(py) * w + px) * 3 + c]); };
    const float top = at(x0, y0) * (1 - fx) + at(x1, y0) * fx;
    const float bottom = at(x0, y1) * (1 - fx) + at(x1, y1) * fx;
    return top * (1 - fy) + bottom * fy;
}

struct ErrorStats {
    double max = 0, mean = 0;
};

// Samples `image` over a w x h grid at origin + (i, j) * step and compares the
// 8-bit result with the CPU bilinear of `pixels`.
ErrorStats compareSampling(const Texture& image, const std::vector<uint8_t>& pixels, float ox, float oy,
                           float sx, float sy, int w, int h)
{
    installTestShaders();
    Shader program("test_sample", "");
    image.bind(GL_TEXTURE0);
    Texture target(w, h, GL_RGBA8);
    program.setUniform("origin", ox, oy);
    program.setUniform("step", sx, sy);
    glClear(GL_COLOR_BUFFER_BIT);
    fullScreenPass(w, h);
    const auto out = readRGBA(target);
    ErrorStats stats;
    for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i)
            for (int c = 0; c < 3; ++c) {
                const double ref = bilinear(pixels, image.width(), image.height(), ox + i * sx, oy + j * sy, c);
                const double err = std::abs(double(out[(size_t(j) * w + i) * 4 + c]) - ref);
                stats.max = std::max(stats.max, err);
                stats.mean += err;
            }
    stats.mean /= double(w) * h * 3;
    return stats;
}

// RGBE bytes of a random canonical pixel (largest mantissa in [128, 256)).
void canonicalRgbe(uint8_t* p, uint32_t r)
{
    p[0] = uint8_t(r);
    p[1] = uint8_t(r >> 8);
    p[2] = uint8_t(r >> 16);
    const int big = int(r >> 30);  // which channel carries the top bit
    p[big % 3] |= 0x80;
    p[3] = uint8_t(100 + (r >> 24) % 60);
}

}  // namespace

// Bilinear sampling straddling the seam of a split image (columns 5999 | 6000)
// must equal sampling a whole image. Thresholds: 8-bit output of a float
// result rounds, so at most 1 level off and about half a level on average; a
// seam fault (wrong piece, clamped at the piece edge) shows up as tens of levels.
TEST(ShaderStdlib, SplitImageSamplesSeamlessly)
{
    const int w = 12000, h = 16;
    const auto pixels = patternBytes(size_t(w) * h * 3, 4242);
    Texture image;
    image.create(w, h, GL_RGB8, GL_RGB, pixels.data());
    ASSERT_EQ(image.tileWidth(), 6000);
    const ErrorStats s = compareSampling(image, pixels, 5996.0f, 0.0f, 0.125f, 0.375f, 64, 44);
    EXPECT_LE(s.max, 1.0);
    EXPECT_LT(s.mean, 0.5);
    // The right edge clamps inside the right piece.
    const ErrorStats e = compareSampling(image, pixels, 11990.0f, 3.0f, 0.5f, 0.5f, 30, 8);
    EXPECT_LE(e.max, 1.0);
    EXPECT_LT(e.mean, 0.5);
}

// An unsplit 8-bit image takes the hardware filter; it must agree with the same
// CPU bilinear, edges included. Thresholds: hardware filters quantise the
// weights (8 bits on common GPUs), worth at most about 1 level on 8-bit data,
// plus output rounding.
TEST(ShaderStdlib, HardwareFilterMatchesBilinear)
{
    const int w = 37, h = 23;
    const auto pixels = patternBytes(size_t(w) * h * 3, 37);
    Texture image;
    image.create(w, h, GL_RGB8, GL_RGB, pixels.data());
    const ErrorStats s = compareSampling(image, pixels, -2.0f, -1.5f, 0.3f, 0.27f, 140, 100);
    EXPECT_LE(s.max, 2.0);
    EXPECT_LT(s.mean, 0.6);
}

// decodeRGBE is exact and encodeRGBE is its byte-exact inverse on canonical
// pixels; scaling by a power of two moves only the exponent; scaling by 0.75
// truncates mantissas and renormalises exactly as the CPU encoder does
// (largest mantissa into [128, 256), every mantissa truncated toward zero).
TEST(ShaderStdlib, RgbeRoundTripIsByteExact)
{
    const int w = 64, h = 64;
    std::vector<uint8_t> rgbe(size_t(w) * h * 4);
    const auto random = patternBytes(size_t(w) * h * 4, 555);
    for (size_t i = 0; i < size_t(w) * h; ++i) {
        uint32_t r;
        std::memcpy(&r, &random[i * 4], 4);
        canonicalRgbe(&rgbe[i * 4], r);
    }
    std::memset(&rgbe[0], 0, 4);  // black stays black
    Texture image;
    image.create(w, h, GL_RGBA8, GL_RGBA, rgbe.data());
    ASSERT_TRUE(image.isRGBE());

    installTestShaders();
    Shader program("test_rgbe", "");
    image.bind(GL_TEXTURE0);
    Texture target(w, h, GL_RGBA8);
    for (const float gain : {1.0f, 2.0f, 0.75f}) {
        SCOPED_TRACE(gain);
        program.use();
        program.setUniform("gain", gain);
        bindAsRenderTarget(target);
        glClear(GL_COLOR_BUFFER_BIT);
        fullScreenPass(w, h);
        const auto out = readRGBA(target);
        int bad = 0;
        for (size_t i = 0; i < size_t(w) * h; ++i) {
            const uint8_t* in = &rgbe[i * 4];
            uint8_t expected[4] = {0, 0, 0, 0};
            if (in[3] != 0) {
                // Scaled mantissas are exact (at most 10 significant bits).
                double m[3] = {in[0] * gain, in[1] * gain, in[2] * gain};
                int e = in[3];
                const double top = std::max({m[0], m[1], m[2]});
                const double norm = top >= 256 ? 0.5 : top < 128 ? 2.0 : 1.0;
                e += norm == 0.5 ? 1 : norm == 2.0 ? -1 : 0;
                for (int c = 0; c < 3; ++c)
                    expected[c] = uint8_t(int(m[c] * norm));
                expected[3] = uint8_t(e);
            }
            bad += std::memcmp(expected, &out[i * 4], 4) != 0;
        }
        EXPECT_EQ(bad, 0);
    }
}

// RGBE pixels are decoded before interpolation: halfway between (255,255,255,E=130)
// and (128,128,128,E=131) the linear mean is 255.5 * 2^(130-136), i.e. mantissa 255
// at E=130 after truncation, where byte-averaging would give garbage.
TEST(ShaderStdlib, RgbeIsDecodedBeforeInterpolation)
{
    const uint8_t rgbe[8] = {255, 255, 255, 130, 128, 128, 128, 131};
    Texture image;
    image.create(2, 1, GL_RGBA8, GL_RGBA, rgbe);
    installTestShaders();
    Shader program("test_sample", "");
    image.bind(GL_TEXTURE0);
    Texture target(1, 1, GL_RGBA32F);
    program.setUniform("origin", 0.5f, 0.0f);
    program.setUniform("step", 0.0f, 0.0f);
    glClear(GL_COLOR_BUFFER_BIT);
    fullScreenPass(1, 1);
    float out[4] = {0, 0, 0, 0};
    bindAsRenderTarget(target);
    glReadPixels(0, 0, 1, 1, GL_RGBA, GL_FLOAT, out);
    const float expected = 0.5f * (255.0f * std::ldexp(1.0f, 130 - 136) + 128.0f * std::ldexp(1.0f, 131 - 136));
    EXPECT_FLOAT_EQ(out[0], expected);
    EXPECT_FLOAT_EQ(out[2], expected);
    EXPECT_EQ(glErrorReport(__FILE__, __LINE__), "");
}

// sRGB curves against the IEC 61966-2-1 formulas for every 8-bit input.
// Thresholds: results are rounded to 8 bits (0.5 level) and GPU pow is
// approximate, so 1 level at most; the mean stays well below one level.
TEST(ShaderStdlib, SrgbCurvesMatchTheStandard)
{
    std::vector<uint8_t> ramp(256 * 3);
    for (int i = 0; i < 256; ++i)
        ramp[size_t(i) * 3] = ramp[size_t(i) * 3 + 1] = ramp[size_t(i) * 3 + 2] = uint8_t(i);
    Texture image;
    image.create(256, 1, GL_RGB8, GL_RGB, ramp.data());
    installTestShaders();
    Shader program("test_srgb", "");
    image.bind(GL_TEXTURE0);
    Texture target(256, 1, GL_RGBA8);
    glClear(GL_COLOR_BUFFER_BIT);
    fullScreenPass(256, 1);
    const auto out = readRGBA(target);
    double maxErr = 0, sum = 0;
    for (int i = 0; i < 256; ++i) {
        const double v = i / 255.0;
        const double lin = v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
        const double srgb = v <= 0.0031308 ? v * 12.92 : 1.055 * std::pow(v, 1 / 2.4) - 0.055;
        const double refs[3] = {lin * 255, srgb * 255, double(i)};
        for (int c = 0; c < 3; ++c) {
            const double err = std::abs(out[size_t(i) * 4 + c] - refs[c]);
            maxErr = std::max(maxErr, err);
            sum += err;
        }
    }
    EXPECT_LE(maxErr, 1.0);
    EXPECT_LT(sum / (256 * 3), 0.35);
}

// encodeRGBE agrees byte for byte with the CPU encoder on values with full
// 24-bit mantissas: decode is exact on both sides and one float multiply is
// correctly rounded on both, so any difference is the encoder's (exponent
// choice at powers of two, truncation, low-8-bit wrap).
TEST(ShaderStdlib, RgbeEncodeMatchesCpuEncoder)
{
    const int w = 128, h = 64;
    auto rgbe = patternBytes(size_t(w) * h * 4, 777);
    for (size_t i = 0; i < size_t(w) * h; ++i) {
        rgbe[i * 4 + 3] = uint8_t(110 + rgbe[i * 4 + 3] % 40);
        if (i % 7 == 0)
            rgbe[i * 4 + i % 3] = 0;  // a zero channel beside others
    }
    Texture image;
    image.create(w, h, GL_RGBA8, GL_RGBA, rgbe.data());
    installTestShaders();
    Shader program("test_rgbe", "");
    image.bind(GL_TEXTURE0);
    Texture target(w, h, GL_RGBA8);
    for (const float gain : {0.7f, 1.37f, 3.1f, 1.0f / 3.0f}) {
        SCOPED_TRACE(gain);
        program.use();
        program.setUniform("gain", gain);
        bindAsRenderTarget(target);
        glClear(GL_COLOR_BUFFER_BIT);
        fullScreenPass(w, h);
        const auto out = readRGBA(target);
        int bad = 0;
        for (size_t i = 0; i < size_t(w) * h; ++i) {
            float c[3];
            rgbeToFloat(&rgbe[i * 4], c);
            uint8_t expected[4];
            floatToRgbe(c[0] * gain, c[1] * gain, c[2] * gain, expected);
            bad += std::memcmp(expected, &out[i * 4], 4) != 0;
        }
        EXPECT_EQ(bad, 0);
    }
}
