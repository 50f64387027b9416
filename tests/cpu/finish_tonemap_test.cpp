// Tone mapping, CPU side: scene key, chunk layout, chunk statistics and the
// twin of the shader's curve.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <vector>

#include "passes/Tonemap.h"

namespace {

ImageView packedRgbe(std::vector<uint8_t>& bytes, int width, int height)
{
    bytes.assign(size_t(width) * height * 4, 0);
    ImageView v;
    v.data = bytes.data();
    v.pixelStep = 4;
    v.width = width;
    v.height = height;
    return v;
}

void setPixel(uint8_t* p, uint8_t r, uint8_t g, uint8_t b, uint8_t e)
{
    p[0] = r;
    p[1] = g;
    p[2] = b;
    p[3] = e;
}

}  // namespace

TEST(FinishFastLog2, ExactAtPowersOfTwoAndCloseElsewhere)
{
    for (int e = -20; e <= 20; ++e)
        EXPECT_FLOAT_EQ(fastLog2(std::ldexp(1.0f, e)), float(e)) << e;
    // The quadratic correction leaves an error of a few thousandths of a
    // stop; 0.01 would catch a wrong constant or a dropped term (the bare
    // exponent-plus-mantissa form is off by up to 0.086).
    double worst = 0;
    for (float y = 0.001f; y < 5000.0f; y *= 1.0137f)
        worst = std::max(worst, std::fabs(double(fastLog2(y)) - std::log2(double(y))));
    EXPECT_LT(worst, 0.01);
    EXPECT_GT(worst, 0.0001);  // it is an approximation, not a library call
}

TEST(FinishSceneKey, UniformImageGivesItsLuminance)
{
    std::vector<uint8_t> bytes;
    const ImageView v = packedRgbe(bytes, 64, 32);
    for (int i = 0; i < 64 * 32; ++i)
        setPixel(v.data + 4 * i, 200, 100, 50, 130);
    const SceneKey key = measureSceneKey(v);
    const double lum = (0.3 * 200 + 0.59 * 100 + 0.11 * 50) * std::ldexp(1.0, 130 - 136);
    // Within the fast log2's error (0.01 stops is 0.7 %).
    EXPECT_NEAR(key.avgLum, lum, lum * 0.008);
    EXPECT_NEAR(key.rawMax, lum, lum * 0.008);
}

TEST(FinishSceneKey, LogAverageSkipsBlackAndKeepsMaximum)
{
    std::vector<uint8_t> bytes;
    const ImageView v = packedRgbe(bytes, 4, 1);
    setPixel(v.data + 0, 128, 128, 128, 129);  // luminance 1.0
    setPixel(v.data + 4, 128, 128, 128, 133);  // 16.0
    setPixel(v.data + 8, 255, 255, 255, 0);    // black: not sampled
    setPixel(v.data + 12, 128, 128, 128, 127); // 0.25
    const SceneKey key = measureSceneKey(v);
    // log2: 0, 4, -2 -> mean 2/3.
    EXPECT_NEAR(key.avgLum, std::exp2(2.0 / 3.0), 1e-3);
    EXPECT_NEAR(key.rawMax, 16.0f, 1e-3);
}

TEST(FinishSceneKey, ZeroMantissaWithExponentStillCounts)
{
    std::vector<uint8_t> bytes;
    const ImageView v = packedRgbe(bytes, 2, 1);
    setPixel(v.data + 0, 0, 0, 0, 136);
    setPixel(v.data + 4, 128, 128, 128, 129);
    const SceneKey key = measureSceneKey(v);
    // log2 of the zero pixel is about -127 + 136 - 136; with the 1.0 pixel
    // the mean is about -63.5.
    EXPECT_NEAR(std::log2(key.avgLum), -63.5, 0.01);
}

TEST(FinishSceneKey, LargeImagesSampleEveryEleventhPixel)
{
    // 2001 x 1000 is above the 2,000,000-pixel limit: only slots 0, 11, 22,
    // ... are read. Those hold 1.0, all others 16.0.
    std::vector<uint8_t> bytes;
    const ImageView big = packedRgbe(bytes, 2001, 1000);
    for (int64_t i = 0; i < 2001 * 1000; ++i)
        setPixel(big.data + 4 * i, 128, 128, 128, i % 11 == 0 ? 129 : 133);
    const SceneKey sampled = measureSceneKey(big);
    EXPECT_NEAR(sampled.avgLum, 1.0f, 1e-4);
    EXPECT_NEAR(sampled.rawMax, 1.0f, 1e-4);

    // 2000 x 1000 is at the limit: every pixel counts.
    std::vector<uint8_t> bytes2;
    const ImageView exact = packedRgbe(bytes2, 2000, 1000);
    for (int64_t i = 0; i < 2000 * 1000; ++i)
        setPixel(exact.data + 4 * i, 128, 128, 128, i % 11 == 0 ? 129 : 133);
    const SceneKey all = measureSceneKey(exact);
    EXPECT_NEAR(all.rawMax, 16.0f, 1e-3);
    EXPECT_GT(all.avgLum, 8.0f);
}

TEST(FinishSceneKey, WhitePointIsTheLargerOfFiveAverageAndNinetyPercentMax)
{
    EXPECT_FLOAT_EQ(whiteLuminance({1.0f, 100.0f}), 90.0f);
    EXPECT_FLOAT_EQ(whiteLuminance({1.0f, 2.0f}), 5.0f);
    EXPECT_FLOAT_EQ(whiteLuminance({2.0f, 100.0f / 9.0f}), 10.0f);
}

TEST(FinishToneChunks, CountShapeAndHalfHeightRule)
{
    struct Case {
        int w, h, count, cw, ch;
    } cases[] = {
        {2000, 1000, 1, 2000, 1000},    // the thumbnail: one chunk
        {21000, 10500, 12, 3500, 5250}, // multiple of 12, tall chunks folded
        {14140, 7070, 10, 2828, 3535},  // not a multiple of 12
        {2010, 1005, 10, 201, 1005},    // odd height: no folding
        {24000, 1000, 12, 2000, 1000},  // wide enough: no folding
        {100, 50, 1, 100, 50},
    };
    for (const Case& c : cases) {
        const ToneChunks t = toneChunks(c.w, c.h);
        EXPECT_EQ(t.count, c.count) << c.w;
        EXPECT_EQ(t.width, c.cw) << c.w;
        EXPECT_EQ(t.height, c.ch) << c.w;
        EXPECT_EQ(int64_t(t.count) * t.width * t.height, int64_t(c.w) * c.h) << c.w;
    }
}

TEST(FinishChunkExposure, PlainMinimumAndMaximum)
{
    // The lowest exponent comes first: unlike the Radiance writer's rule, it
    // still counts as the minimum.
    const uint8_t px[] = {1, 1, 1, 120, 9, 9, 9, 0, 1, 1, 1, 140, 1, 1, 1, 130};
    const ChunkExposure s = chunkExposure(px, 4);
    EXPECT_EQ(s.minE, -8);
    EXPECT_EQ(s.maxE, 12);
    EXPECT_EQ(s.count, 3);
    EXPECT_DOUBLE_EQ(s.sum, -8 + 12 + 2);
}

TEST(FinishToneCurve, KeyMapsToMidGreyAndCurveIsMonotonic)
{
    const float avg = 0.2f, white = 20.0f;
    uint8_t out[3];
    const float grey[3] = {avg, avg, avg};
    toneMapPixel(grey, avg, white, out);
    // The log-average lands at the key 0.18 compressed by 1 / (1 + 0.18):
    // about 0.153 linear, 109 in sRGB bytes.
    EXPECT_NEAR(out[0], 109, 2);
    EXPECT_EQ(out[0], out[1]);
    EXPECT_EQ(out[1], out[2]);

    const float black[3] = {0, 0, 0};
    toneMapPixel(black, avg, white, out);
    EXPECT_EQ(out[0] + out[1] + out[2], 0);

    const float atWhite[3] = {white, white, white};
    toneMapPixel(atWhite, avg, white, out);
    EXPECT_EQ(out[0], 255);  // the white point maps to display white

    int previous = -1;
    for (float v = 1e-4f; v < white; v *= 1.05f) {
        const float c[3] = {v, v, v};
        toneMapPixel(c, avg, white, out);
        EXPECT_GE(int(out[0]), previous) << v;
        previous = out[0];
    }
}

TEST(FinishToneCurve, ExposureInvariantAndHuePreserving)
{
    // Keyed on avgLum: scaling the scene and its key together changes nothing.
    const float c[3] = {0.3f, 0.2f, 0.05f};
    uint8_t a[3], b[3];
    toneMapPixel(c, 0.25f, 10.0f, a);
    const float scaled[3] = {c[0] * 64, c[1] * 64, c[2] * 64};
    toneMapPixel(scaled, 0.25f * 64, 10.0f * 64, b);
    for (int k = 0; k < 3; ++k)
        EXPECT_NEAR(a[k], b[k], 1) << k;
    // Channel order survives: a warm colour stays warm.
    EXPECT_GT(a[0], a[1]);
    EXPECT_GT(a[1], a[2]);
}
