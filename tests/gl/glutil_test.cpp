// The GL layer against the real driver: texture splitting, the shared
// program cache, and stdlib.frag's sampling, RGBE and sRGB helpers against CPU
// references.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "image/Rgbe.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/GLError.h"
#include "libglutil/Shader.h"
#include "libglutil/ShaderCache.h"
#include "libglutil/Texture.h"
#include "support/GLSupport.h"
#include "support/Support.h"

using support::patternBytes;
using support::readRGBA;
using support::runPass;

namespace {

Texture textureOf(int w, int h, GLenum internal, GLenum format, const void* data, int stride = 0)
{
    Texture t;
    t.create(w, h, internal, format, data, stride);
    return t;
}

// Rows [0, rows) of `rowBytes` bytes from a buffer with `stride` bytes per row.
std::vector<uint8_t> packRows(const uint8_t* data, int rows, size_t rowBytes, size_t stride)
{
    std::vector<uint8_t> out(rowBytes * size_t(rows));
    for (int y = 0; y < rows; ++y)
        std::memcpy(&out[size_t(y) * rowBytes], data + size_t(y) * stride, rowBytes);
    return out;
}

// The test_copy pass: output pixel (x, y) is image pixel (x, y) + offset.
std::vector<uint8_t> copyPass(const Texture& image, int w, int h, int offsetX, bool decodeRgbe = true)
{
    support::installTestShaders();
    Shader program("test_copy", "");
    return runPass(program, &image, w, h, [&] {
        program.setUniform2i("offset", offsetX, 0);
        if (!decodeRgbe)
            program.setUniform("texIsRGBE0", 0);
    });
}

// Largest and mean difference between test_sample over a w x h grid at
// origin + (i, j) * step and a CPU bilinear of the RGB8 `pixels` (centres at
// integers, clamped at the edges).
std::pair<double, double> samplingError(const Texture& image, const std::vector<uint8_t>& pixels, float ox, float oy,
                                        float sx, float sy, int w, int h)
{
    support::installTestShaders();
    Shader program("test_sample", "");
    const auto out = runPass(program, &image, w, h, [&] {
        program.setUniform("origin", ox, oy);
        program.setUniform("step", sx, sy);
    });
    const int iw = image.width(), ih = image.height();
    double worst = 0, sum = 0;
    for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i) {
            const float x = std::clamp(ox + i * sx, 0.0f, float(iw - 1)), y = std::clamp(oy + j * sy, 0.0f, float(ih - 1));
            const int x0 = int(x), y0 = int(y), x1 = std::min(x0 + 1, iw - 1), y1 = std::min(y0 + 1, ih - 1);
            const float fx = x - float(x0), fy = y - float(y0);
            for (int c = 0; c < 3; ++c) {
                auto at = [&](int px, int py) { return float(pixels[(size_t(py) * iw + px) * 3 + c]); };
                const double ref = (at(x0, y0) * (1 - fx) + at(x1, y0) * fx) * (1 - fy) +
                                   (at(x0, y1) * (1 - fx) + at(x1, y1) * fx) * fy;
                const double err = std::abs(double(out[(size_t(j) * w + i) * 4 + c]) - ref);
                worst = std::max(worst, err);
                sum += err;
            }
        }
    return {worst, sum / (double(w) * h * 3)};
}

}  // namespace

// Wider than 10000 and at most 8192 high splits at the 8192 cap into two
// halves; an odd width drops its last column (the shader clamps to the one
// before); sampling across the seam equals sampling a whole image.
TEST(TextureSplit, WideImagesSplitAndSampleSeamlessly)
{
    const int w = 12000, h = 40;
    const auto rgba = patternBytes(size_t(w) * h * 4, 12000);
    Texture tex = textureOf(w, h, GL_RGBA8, GL_RGBA, rgba.data());
    ASSERT_EQ(tex.tileWidth(), 6000);
    EXPECT_EQ(tex.count() * tex.layers(), 2);
    EXPECT_TRUE(readRGBA(tex, 6000, h) == packRows(rgba.data(), h, 6000 * 4, size_t(w) * 4));
    EXPECT_TRUE(copyPass(tex, 6000, h, 6000, false) == packRows(rgba.data() + 6000 * 4, h, 6000 * 4, size_t(w) * 4));

    const auto rgb = patternBytes(size_t(w + 1) * h * 3, 12001);
    Texture odd = textureOf(w + 1, h, GL_RGB8, GL_RGB, rgb.data());
    EXPECT_EQ(odd.tileWidth(), 6000);
    const auto out = copyPass(odd, 6000, h, 6001);
    size_t bad = 0;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < 6000; ++x)  // column 12000 comes back as 11999
            bad += std::memcmp(&out[(size_t(y) * 6000 + x) * 4], &rgb[(size_t(y) * (w + 1) + std::min(x + 6001, 11999)) * 3], 3) != 0;
    EXPECT_EQ(bad, 0u);

    // Bilinear across columns 5999 | 6000 and at the right edge: the 8-bit
    // output rounds (at most 1 level, half on average); a seam fault is tens.
    const auto wide = patternBytes(size_t(w) * 16 * 3, 4242);
    const Texture wideRgb = textureOf(w, 16, GL_RGB8, GL_RGB, wide.data());
    for (const auto& grid : {std::array<float, 4>{5996.0f, 0.0f, 0.125f, 0.375f}, {11990.0f, 3.0f, 0.5f, 0.5f}}) {
        const auto err = samplingError(wideRgb, wide, grid[0], grid[1], grid[2], grid[3], 64, 40);
        EXPECT_LE(err.first, 1.0) << grid[0];
        EXPECT_LT(err.second, 0.5) << grid[0];
    }
}

// decodeRGBE is exact and encodeRGBE agrees byte for byte with the CPU
// encoder (exponent choice, truncation, low-8-bit wrap) after scaling by
// powers of two and by gains that fill the whole mantissa; RGBE is decoded
// before interpolation.
TEST(ShaderStdlib, RgbeMatchesTheCpuEncoder)
{
    const int w = 128, h = 64;
    auto rgbe = patternBytes(size_t(w) * h * 4, 777);
    for (size_t i = 0; i < size_t(w) * h; ++i) {
        rgbe[i * 4 + 3] = uint8_t(110 + rgbe[i * 4 + 3] % 40);
        if (i % 7 == 0)
            rgbe[i * 4 + i % 3] = 0;  // a zero channel beside others
    }
    std::memset(&rgbe[0], 0, 4);  // black stays black
    Texture image = textureOf(w, h, GL_RGBA8, GL_RGBA, rgbe.data());
    ASSERT_TRUE(image.isRGBE());
    support::installTestShaders();
    Shader program("test_rgbe", "");
    for (const float gain : {1.0f, 2.0f, 0.75f, 1.37f, 1.0f / 3.0f}) {
        const auto out = runPass(program, &image, w, h, [&] { program.setUniform("gain", gain); });
        int bad = 0;
        for (size_t i = 0; i < size_t(w) * h; ++i) {
            float c[3];
            rgbeToFloat(&rgbe[i * 4], c);
            uint8_t expected[4];
            floatToRgbe(c[0] * gain, c[1] * gain, c[2] * gain, expected);
            bad += std::memcmp(expected, &out[i * 4], 4) != 0;
        }
        EXPECT_EQ(bad, 0) << "gain " << gain;
    }

    // Halfway between (255, 255, 255, E 130) and (128, 128, 128, E 131) is
    // the mean of the decoded values; averaging bytes would give garbage.
    const uint8_t two[8] = {255, 255, 255, 130, 128, 128, 128, 131};
    Texture pair = textureOf(2, 1, GL_RGBA8, GL_RGBA, two);
    Shader sample("test_sample", "");
    sample.use();
    pair.bind(GL_TEXTURE0);
    Texture target(1, 1, GL_RGBA32F);
    bindAsRenderTarget(target);
    sample.setUniform("origin", 0.5f, 0.0f);
    sample.setUniform("step", 0.0f, 0.0f);
    fullScreenPass(1, 1);
    float mean[4] = {0, 0, 0, 0};
    glReadPixels(0, 0, 1, 1, GL_RGBA, GL_FLOAT, mean);
    EXPECT_FLOAT_EQ(mean[0], 0.5f * (255.0f * std::ldexp(1.0f, -6) + 128.0f * std::ldexp(1.0f, -5)));
}

// sRGB curves against the standard's formulas for every 8-bit input: 8-bit
// rounding and approximate GPU pow allow 1 level, well under on average.
TEST(ShaderStdlib, SrgbCurvesMatchTheStandard)
{
    std::vector<uint8_t> ramp(256 * 3);
    for (int i = 0; i < 256 * 3; ++i)
        ramp[size_t(i)] = uint8_t(i / 3);
    Texture image = textureOf(256, 1, GL_RGB8, GL_RGB, ramp.data());
    support::installTestShaders();
    Shader program("test_srgb", "");
    const auto out = runPass(program, &image, 256, 1);
    double worst = 0, sum = 0;
    for (int i = 0; i < 256; ++i) {
        const double v = i / 255.0;
        const double refs[3] = {255 * (v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4)),
                                255 * (v <= 0.0031308 ? v * 12.92 : 1.055 * std::pow(v, 1 / 2.4) - 0.055), double(i)};
        for (int c = 0; c < 3; ++c) {
            const double err = std::abs(out[size_t(i) * 4 + c] - refs[c]);
            worst = std::max(worst, err);
            sum += err;
        }
    }
    EXPECT_LE(worst, 1.0);
    EXPECT_LT(sum / (256 * 3), 0.35);
}

// A program from the shared cache comes back as the same GL program but in the
// state of a fresh build: uniforms zero, samplers on their units, current.
TEST(ShaderProgram, SharedProgramIsReusedInAFreshState)
{
    support::installTestShaders();
    releaseSharedShaders();
    const Shader& first = sharedShader("test_copy", "");
    first.setUniform2i("offset", 3, 4);
    first.setUniform("texUnit0", 5);
    glUseProgram(0);

    const Shader& again = sharedShader("test_copy", "");
    EXPECT_EQ(&again, &first);
    GLint current = 0, offset[2] = {-1, -1}, unit = -1;
    glGetIntegerv(GL_CURRENT_PROGRAM, &current);
    glGetUniformiv(again.program(), again.uniformLocation("offset"), offset);
    glGetUniformiv(again.program(), again.uniformLocation("texUnit0"), &unit);
    EXPECT_EQ(GLuint(current), again.program());
    EXPECT_EQ(offset[0], 0);
    EXPECT_EQ(offset[1], 0);
    EXPECT_EQ(unit, 0);

    EXPECT_NE(sharedShader("test_copy", "#define OTHER\n").program(), first.program());
    EXPECT_EQ(sharedShaderCount(), 2u);
    const GLuint name = first.program();
    releaseSharedShaders();
    EXPECT_FALSE(glIsProgram(name));
    EXPECT_EQ(sharedShaderCount(), 0u);
    EXPECT_EQ(glErrorReport(__FILE__, __LINE__), "");
}
