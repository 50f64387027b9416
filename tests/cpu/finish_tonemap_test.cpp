// Tone mapping and thumbnail, CPU side: scene key, white point, chunk layout
// and statistics, the twin of the shader's curve, nearest sampling and the
// truncating box halving.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "passes/Thumbnail.h"
#include "passes/Tonemap.h"

namespace {
// An RGBE image whose pixel i is pixel(i).
template <class F>
Image rgbeImage(int w, int h, F pixel)
{
    Image img(w, h, 4);
    for (int64_t i = 0; i < int64_t(w) * h; ++i) {
        const std::array<uint8_t, 4> p = pixel(i);
        std::copy(p.begin(), p.end(), img.data() + 4 * i);
    }
    return img;
}
}  // namespace

TEST(FinishTonemap, FastLog2)
{
    for (int e = -20; e <= 20; ++e)
        EXPECT_FLOAT_EQ(fastLog2(std::ldexp(1.0f, e)), float(e)) << e;
    // The quadratic correction leaves a few thousandths of a stop; the bare
    // exponent-plus-mantissa form is off by up to 0.086.
    double worst = 0;
    for (float y = 0.001f; y < 5000.0f; y *= 1.0137f)
        worst = std::max(worst, std::fabs(double(fastLog2(y)) - std::log2(double(y))));
    EXPECT_LT(worst, 0.01);
    EXPECT_GT(worst, 0.0001);  // an approximation, not a library call
}

TEST(FinishTonemap, SceneKeyAndWhitePoint)
{
    const Image uniform = rgbeImage(64, 32, [](int64_t) { return std::array<uint8_t, 4>{200, 100, 50, 130}; });
    const double lum = (0.3 * 200 + 0.59 * 100 + 0.11 * 50) * std::ldexp(1.0, 130 - 136);
    EXPECT_NEAR(measureSceneKey(uniform).avgLum, lum, lum * 0.008);  // within the fast log2's error
    EXPECT_NEAR(measureSceneKey(uniform).rawMax, lum, lum * 0.008);

    // Luminance 1, 16, black (not sampled), 0.25: log2 mean 2/3, maximum 16.
    const std::array<uint8_t, 4> four[] = {{128, 128, 128, 129}, {128, 128, 128, 133}, {255, 255, 255, 0},
                                           {128, 128, 128, 127}};
    const SceneKey key = measureSceneKey(rgbeImage(4, 1, [&](int64_t i) { return four[i]; }));
    EXPECT_NEAR(key.avgLum, std::exp2(2.0 / 3.0), 1e-3);
    EXPECT_NEAR(key.rawMax, 16.0f, 1e-3);


    // Above 2,000,000 pixels only every eleventh is read.
    const auto elevenths = [](int64_t i) { return std::array<uint8_t, 4>{128, 128, 128, uint8_t(i % 11 ? 133 : 129)}; };
    const SceneKey sampled = measureSceneKey(rgbeImage(2001, 1000, elevenths));
    EXPECT_NEAR(sampled.avgLum, 1.0f, 1e-4);
    EXPECT_NEAR(sampled.rawMax, 1.0f, 1e-4);
    const SceneKey all = measureSceneKey(rgbeImage(2000, 1000, elevenths));
    EXPECT_NEAR(all.rawMax, 16.0f, 1e-3);
    EXPECT_GT(all.avgLum, 8.0f);

    EXPECT_FLOAT_EQ(whiteLuminance({1.0f, 100.0f}), 90.0f);  // 0.9 of the maximum
    EXPECT_FLOAT_EQ(whiteLuminance({1.0f, 2.0f}), 5.0f);     // or five times the average
}

TEST(FinishTonemap, Chunks)
{
    const struct { int w, h, count, cw, ch; } cases[] = {
        {2000, 1000, 1, 2000, 1000},    {21000, 10500, 12, 3500, 5250}, {14140, 7070, 10, 2828, 3535},
        {2010, 1005, 10, 201, 1005},    {24000, 1000, 12, 2000, 1000},  {100, 50, 1, 100, 50},
    };
    for (const auto& c : cases) {
        const ToneChunks t = toneChunks(c.w, c.h);
        EXPECT_EQ(t.count, c.count) << c.w;
        EXPECT_EQ(t.width, c.cw) << c.w;
        EXPECT_EQ(t.height, c.ch) << c.w;
    }
}

TEST(FinishTonemap, CurveKeyWhiteAndHue)
{
    const float avg = 0.2f, white = 20.0f;
    uint8_t out[3];
    const float grey[3] = {avg, avg, avg};
    toneMapPixel(grey, avg, white, out);
    // The log-average lands at the key 0.18 compressed by 1 / (1 + 0.18):
    // about 0.153 linear, 109 in sRGB bytes.
    EXPECT_NEAR(out[0], 109, 2);
    EXPECT_EQ(out[0], out[2]);
    const float atWhite[3] = {white, white, white};
    toneMapPixel(atWhite, avg, white, out);
    EXPECT_EQ(out[0], 255);
    int previous = -1;
    for (float v = 1e-4f; v < white; v *= 1.05f) {
        const float c[3] = {v, v, v};
        toneMapPixel(c, avg, white, out);
        EXPECT_GE(int(out[0]), previous) << v;
        previous = out[0];
    }
    const float warm[3] = {0.3f, 0.2f, 0.05f};  // hue survives
    toneMapPixel(warm, 0.25f, 10.0f, out);
    EXPECT_GT(out[0], out[1]);
    EXPECT_GT(out[1], out[2]);
}

TEST(FinishThumbnail, HalveBoxQuartersEachByteInPlace)
{
    // 7 x 5: the last column and row are dropped; each byte is quartered
    // before summing (four 3s give 0); in place, never overwriting unread bytes.
    Image img(7, 5, 3);
    std::mt19937 rng(5);
    for (size_t i = 0; i < img.byteSize(); ++i)
        img.data()[i] = uint8_t(rng());
    img.data()[0] = img.data()[3] = img.data()[21] = img.data()[24] = 3;
    const std::vector<uint8_t> src(img.data(), img.data() + img.byteSize());
    const ImageView half = halveBox(img.mutableView());
    ASSERT_EQ(half.width(), 3);
    ASSERT_EQ(half.height(), 2);
    EXPECT_EQ(half.data(), img.data());
    EXPECT_EQ(half.pixel(0, 0)[0], 0);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x)
            for (int c = 0; c < 3; ++c) {
                auto at = [&](int px, int py) { return src[size_t(py * 7 + px) * 3 + c] >> 2; };
                EXPECT_EQ(half.pixel(x, y)[c],
                          at(2 * x, 2 * y) + at(2 * x + 1, 2 * y) + at(2 * x, 2 * y + 1) + at(2 * x + 1, 2 * y + 1));
            }
}

TEST(FinishThumbnail, NearestSamplingByIntegerDivisionOfWidth)
{
    // Pixel (x, y) of a 3000 x 1500 RGBE image holds its coordinates; the
    // 2000 x 1000 sample takes column x * 3000 / 2000 and row y * 3000 / 2000.
    const int W = 3000, H = 1500;
    Image pano(W, H, 4);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            uint8_t* p = pano.pixel(x, y);
            p[0] = uint8_t(x), p[1] = uint8_t(x >> 8), p[2] = uint8_t(y), p[3] = uint8_t(y >> 8);
        }
    Image out(2000, 1000, 4);
    sampleNearest(pano, out.mutableView());
    for (int y : {0, 1, 333, 999})
        for (int x : {0, 1, 2, 1001, 1999}) {
            const uint8_t* p = out.pixel(x, y);
            EXPECT_EQ(p[0] | p[1] << 8, x * W / 2000) << x;
            EXPECT_EQ(p[2] | p[3] << 8, y * W / 2000) << y;
        }
}
