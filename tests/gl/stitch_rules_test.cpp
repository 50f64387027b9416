// The stitcher's fixed rules: capture layout by entry count, the heading turn,
// the HDR exposure normalisation, the packing of float strips into RGBE bytes
// (GPU against the CPU encoder) and the errors of an incomplete project.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "glutil_helpers.h"
#include "image/Rgbe.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/GLError.h"
#include "libglutil/Shader.h"
#include "libglutil/Texture.h"
#include "passes/Stitch.h"

TEST(StitchRules, LayoutFollowsTheEntryCount)
{
    // Six images and the orientation entry: one fisheye ring.
    const StitchLayout seven = stitchLayout(7);
    EXPECT_EQ(seven.slotCount, 5);
    EXPECT_EQ(seven.slotAngle, 72.0f);
    EXPECT_TRUE(seven.fisheye);
    const StitchLayout eight = stitchLayout(8);
    EXPECT_EQ(eight.slotCount, 6);
    EXPECT_EQ(eight.slotAngle, 60.0f);
    EXPECT_FALSE(eight.fisheye);
}

// Rows turn left by the columns that bring longitude -heading to the centre:
// (slot + 180 - q - heading) / 360 of the width, truncated, q a quarter slot
// in the two-ring layout; a negative shift wraps once.
TEST(StitchRules, HeadingShift)
{
    const StitchLayout fisheye = stitchLayout(7), twoRing = stitchLayout(14);
    // No heading: 0.7 of the width for the fisheye layout.
    EXPECT_EQ(headingShiftBytes(fisheye, 0.0f, 14140, 3), size_t(9898) * 3);
    EXPECT_EQ(headingShiftBytes(twoRing, 0.0f, 2040, 4), size_t(1275) * 4);
    // 252 - 37.5 = 214.5 degrees of 2000 columns is 1191.67: truncated.
    EXPECT_EQ(headingShiftBytes(fisheye, 37.5f, 2000, 3), size_t(1191) * 3);
    // Heading 300: (252 - 300) / 360 * 2000 = -266.67 -> -266, plus one row.
    EXPECT_EQ(headingShiftBytes(fisheye, 300.0f, 2000, 4), size_t(2000 - 266) * 4);
    // A heading of a full turn more lands on the same columns (no overrun).
    EXPECT_EQ(headingShiftBytes(fisheye, 37.5f - 720.0f, 2000, 3), size_t(1191) * 3);
    EXPECT_LT(headingShiftBytes(fisheye, 1e30f, 2000, 3), size_t(2000) * 3);
}

// The mean exponent over non-black pixels, truncated toward zero, moves to -2
// (byte 126); black pixels stay black; bytes wrap modulo 256.
TEST(StitchRules, ExposureNormalisation)
{
    // Exponents 128 + {-5, -4, -4, -6} and one black pixel: mean -4.75 -> -4,
    // delta +2.
    std::vector<uint8_t> rgbe = {1, 2, 3, 123, 9, 9, 9, 124, 0, 0, 0, 0, 7, 7, 7, 124, 5, 5, 5, 122};
    EXPECT_TRUE(normalizeExposure(rgbe.data(), 5));
    const std::vector<uint8_t> expected = {1, 2, 3, 125, 9, 9, 9, 126, 0, 0, 0, 0, 7, 7, 7, 126, 5, 5, 5, 124};
    EXPECT_EQ(rgbe, expected);

    // Bright scene (mean +100): delta -102 wraps below the byte range only
    // for exponents that were already below it.
    std::vector<uint8_t> bright = {1, 1, 1, 228, 1, 1, 1, 228};
    EXPECT_TRUE(normalizeExposure(bright.data(), 2));
    EXPECT_EQ(bright[3], 126);

    // All black: no mean, nothing changes, no failure.
    std::vector<uint8_t> black(4 * 16, 0);
    black[0] = 200;  // mantissa bytes alone do not make a pixel lit
    const std::vector<uint8_t> before = black;
    EXPECT_FALSE(normalizeExposure(black.data(), 16));
    EXPECT_EQ(black, before);
}

// The packing program against image/Rgbe's floatToRgbe, byte for byte, on
// random floats whose largest channel spans the whole exponent range that
// RGBE encodes (from the 1e-32 black limit to just below 2^128), channel
// ratios from equal to 2^-30, exact powers of two and their neighbours, and
// zeros.
TEST(StitchRules, GpuRgbeMatchesTheCpuEncoder)
{
    const int w = 256, h = 64;
    std::vector<float> rgb(size_t(w) * h * 3);
    std::mt19937 rng(20240611);
    std::uniform_real_distribution<float> unit(0.5f, 1.0f);
    std::uniform_int_distribution<int> exponent(-108, 128);
    std::uniform_int_distribution<int> kind(0, 5);
    for (size_t i = 0; i < size_t(w) * h; ++i) {
        const int e = exponent(rng);
        const int k = kind(rng);
        float top = std::ldexp(unit(rng), e);
        if (k == 0)
            top = std::ldexp(1.0f, e - 1);  // exact power of two
        else if (k == 1)
            top = std::nextafter(std::ldexp(1.0f, e - 1), 0.0f);  // just below one
        for (int c = 0; c < 3; ++c)
            rgb[i * 3 + c] = top * std::ldexp(unit(rng), -int(rng() % 31));
        rgb[i * 3 + rng() % 3] = top;
        if (k == 2)
            rgb[i * 3 + (rng() % 3)] = 0.0f;
        if (!std::isfinite(top))
            rgb[i * 3] = rgb[i * 3 + 1] = rgb[i * 3 + 2] = 1.0f;
    }

    // A float texture (Texture uploads only bytes): bound by hand with the
    // per-unit uniforms the packing program reads.
    Shader pack("rgb2rgbe", "");
    const GLenum target = Texture::target();
    GLuint source = 0;
    glGenTextures(1, &source);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(target, source);
    glTexParameteri(target, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(target, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    if (target == GL_TEXTURE_2D_ARRAY)
        glTexImage3D(target, 0, GL_RGB32F, w, h, 1, 0, GL_RGB, GL_FLOAT, rgb.data());
    else
        glTexImage2D(target, 0, GL_RGB32F, w, h, 0, GL_RGB, GL_FLOAT, rgb.data());
    Texture bytes(w, h, GL_RGBA8);
    pack.use();
    glUniform2i(glGetUniformLocation(pack.program(), "texSize0"), w, h);
    glUniform1i(glGetUniformLocation(pack.program(), "texIsRGBE0"), 0);
    glUniform1i(glGetUniformLocation(pack.program(), "texIsHDR0"), 1);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(target, source);
    bindAsRenderTarget(bytes);
    glClear(GL_COLOR_BUFFER_BIT);
    fullScreenPass(w, h);
    std::vector<uint8_t> out(size_t(w) * h * 4);
    bytes.readPixels(out.data(), GL_RGBA);
    glDeleteTextures(1, &source);
    EXPECT_EQ(glErrorReport(__FILE__, __LINE__), "");

    int mismatches = 0;
    for (size_t i = 0; i < size_t(w) * h; ++i) {
        uint8_t expected[4];
        floatToRgbe(rgb[i * 3], rgb[i * 3 + 1], rgb[i * 3 + 2], expected);
        if (std::memcmp(expected, &out[i * 4], 4) != 0 && ++mismatches <= 5)
            ADD_FAILURE() << "(" << rgb[i * 3] << ", " << rgb[i * 3 + 1] << ", " << rgb[i * 3 + 2]
                          << "): CPU " << int(expected[0]) << " " << int(expected[1]) << " "
                          << int(expected[2]) << " " << int(expected[3]) << ", GPU " << int(out[i * 4])
                          << " " << int(out[i * 4 + 1]) << " " << int(out[i * 4 + 2]) << " "
                          << int(out[i * 4 + 3]);
    }
    EXPECT_EQ(mismatches, 0);
}

// A project that lacks ring images fails with a message before any GL work.
TEST(StitchRules, IncompleteProjectIsAnError)
{
    Project project;
    project.images.resize(4);
    std::vector<uint8_t> pixels(100 * 50 * 3);
    try {
        stitchEquirect(pixels.data(), 100, 50, "/nonexistent/p.pts", project, false, true);
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "project has 4 entries, but a capture of 5 slots needs 6 source images");
    }
}

// The same under a 3.3 core context and under array textures (fixed per
// process, so each runs in a child): shaders, samplers and the whole stitch.
TEST(StitchRules, CoreProfileAndArrayModeChildren)
{
    if (isTestChild())
        GTEST_SKIP() << "already a child";
    const std::string filter = "StitchLens.*:StitchRules.*:StitchCapture.FisheyeLdr";
    {
        const ChildResult r = runTestChild(selfExecutable(), filter, {{"USE_GL_CORE", ""}});
        EXPECT_EQ(r.status, 0) << r.output;
        EXPECT_NE(r.output.find("Core Profile"), std::string::npos) << r.output;
    }
    {
        const ChildResult r = runTestChild(selfExecutable(), filter, {{"USE_ARRAY_TEXTURE", "1"}});
        EXPECT_EQ(r.status, 0) << r.output;
    }
}
