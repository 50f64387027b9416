// The GL layer against the real driver: the shared program cache, and
// stdlib.frag's RGBE and sRGB helpers against CPU references.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "image/Colour.h"
#include "image/Rgbe.h"
#include "libglutil/GLError.h"
#include "libglutil/Shader.h"
#include "libglutil/ShaderCache.h"
#include "libglutil/Texture.h"
#include "support/GLSupport.h"
#include "support/Support.h"

using support::patternBytes;
using support::runPass;

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
    Texture image = Texture::upload(w, h, GL_RGBA8, GL_RGBA, rgbe.data());
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
            for (size_t k = 0; k < 4; ++k)
                bad += std::lround(out[i * 4 + k] * 255.0f) != expected[k];
        }
        EXPECT_EQ(bad, 0) << "gain " << gain;
    }

    // Halfway between (255, 255, 255, E 130) and (128, 128, 128, E 131) is
    // the mean of the decoded values; averaging bytes would give garbage.
    const uint8_t two[8] = {255, 255, 255, 130, 128, 128, 128, 131};
    Texture pair = Texture::upload(2, 1, GL_RGBA8, GL_RGBA, two);
    Shader sample("test_sample", "");
    const auto mean = runPass(sample, &pair, 1, 1, [&] {
        sample.setUniform("origin", 0.5f, 0.0f);
        sample.setUniform("step", 0.0f, 0.0f);
    });
    EXPECT_FLOAT_EQ(mean[0], 0.5f * (255.0f * std::ldexp(1.0f, -6) + 128.0f * std::ldexp(1.0f, -5)));
}

// The sRGB curves for every 8-bit input, read back as floats: decoding
// against the standard's formula, encoding against the CPU curve, and the
// round trip. Relative 1e-3 leaves room for GPU pow; a wrong constant in
// either branch of either curve is off by percents.
TEST(ShaderStdlib, SrgbCurvesMatchTheStandard)
{
    std::vector<uint8_t> ramp(256 * 3);
    for (int i = 0; i < 256 * 3; ++i)
        ramp[size_t(i)] = uint8_t(i / 3);
    Texture image = Texture::upload(256, 1, GL_RGB8, GL_RGB, ramp.data());
    support::installTestShaders();
    const auto out = runPass(Shader("test_srgb", ""), &image, 256, 1);
    double worst[3] = {0, 0, 0};
    for (int i = 0; i < 256; ++i) {
        const double v = i / 255.0;
        const double refs[3] = {v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4), srgbEncode(float(v)), v};
        for (int c = 0; c < 3; ++c)
            worst[c] = std::max(worst[c], std::abs(out[size_t(i) * 4 + size_t(c)] - refs[c]) / std::max(refs[c], 1e-3));
    }
    for (int c = 0; c < 3; ++c)
        EXPECT_LT(worst[c], 1e-3) << "decode, encode, round trip: " << c;
}

// A program from the shared cache comes back as the same GL program but in the
// state of a fresh build: uniforms zero, samplers on their units, current.
TEST(ShaderProgram, SharedProgramIsReusedInAFreshState)
{
    support::installTestShaders();
    releaseSharedShaders();
    const Shader& first = sharedShader("test_rgbe", "");
    first.setUniform("gain", 3.0f);
    first.setUniform("texUnit0", 5);
    glUseProgram(0);

    const Shader& again = sharedShader("test_rgbe", "");
    EXPECT_EQ(&again, &first);
    GLint current = 0, unit = -1;
    GLfloat gain = -1;
    glGetIntegerv(GL_CURRENT_PROGRAM, &current);
    glGetUniformfv(again.program(), again.uniformLocation("gain"), &gain);
    glGetUniformiv(again.program(), again.uniformLocation("texUnit0"), &unit);
    EXPECT_EQ(GLuint(current), again.program());
    EXPECT_EQ(gain, 0.0f);
    EXPECT_EQ(unit, 0);

    EXPECT_NE(sharedShader("test_rgbe", "#define OTHER\n").program(), first.program());
    EXPECT_EQ(sharedShaderCount(), 2u);
    const GLuint name = first.program();
    releaseSharedShaders();
    EXPECT_FALSE(glIsProgram(name));
    EXPECT_EQ(sharedShaderCount(), 0u);
    EXPECT_EQ(glErrorReport(__FILE__, __LINE__), "");
}
