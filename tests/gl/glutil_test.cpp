// The GL layer against the real driver: the shared program cache, and
// stdlib.frag's RGBE and sRGB helpers against CPU references.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "image/Rgbe.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/FullScreenPass.h"
#include "libglutil/GLError.h"
#include "libglutil/Shader.h"
#include "libglutil/ShaderCache.h"
#include "libglutil/Texture.h"
#include "support/GLSupport.h"
#include "support/Support.h"

using support::patternBytes;
using support::runPass;

namespace {

Texture textureOf(int w, int h, GLenum internal, GLenum format, const void* data)
{
    return Texture::upload(w, h, internal, format, data);
}

}  // namespace

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
    const RenderTarget target(1, 1, GL_RGBA32F);
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
