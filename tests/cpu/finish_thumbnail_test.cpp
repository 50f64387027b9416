// Thumbnail CPU steps: nearest sampling and the truncating box halving.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "passes/Thumbnail.h"

namespace {
ImageView view(std::vector<uint8_t>& bytes, int width, int height, int channels)
{
    ImageView v;
    v.data = bytes.data();
    v.pixelStep = channels;
    v.width = width;
    v.height = height;
    return v;
}
}  // namespace

TEST(FinishHalveBox, QuartersEachByteBeforeSumming)
{
    std::vector<uint8_t> threes(2 * 2 * 3, 3);
    const ImageView h = halveBox(view(threes, 2, 2, 3));
    EXPECT_EQ(h.width, 1);
    EXPECT_EQ(h.height, 1);
    EXPECT_EQ(h.data[0], 0);  // 3 >> 2 four times: 0, not 3

    std::vector<uint8_t> white(2 * 2 * 3, 255);
    EXPECT_EQ(halveBox(view(white, 2, 2, 3)).data[0], 252);
}

TEST(FinishHalveBox, InPlaceMatchesReferenceForOddSizes)
{
    // 7 x 5: the last column and row are dropped; every output pixel must
    // equal the formula applied to an untouched copy (the in-place order
    // never overwrites unread source bytes).
    const int w = 7, h = 5;
    std::vector<uint8_t> bytes(w * h * 3);
    std::mt19937 rng(5);
    for (uint8_t& b : bytes)
        b = uint8_t(rng());
    const std::vector<uint8_t> source = bytes;
    const ImageView half = halveBox(view(bytes, w, h, 3));
    ASSERT_EQ(half.width, 3);
    ASSERT_EQ(half.height, 2);
    EXPECT_EQ(half.stride(), 9);
    EXPECT_EQ(half.data, bytes.data());
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x)
            for (int c = 0; c < 3; ++c) {
                auto at = [&](int px, int py) { return source[(py * w + px) * 3 + c] >> 2; };
                const int expect = at(2 * x, 2 * y) + at(2 * x + 1, 2 * y) + at(2 * x, 2 * y + 1) +
                                   at(2 * x + 1, 2 * y + 1);
                EXPECT_EQ(half.pixel(x, y)[c], expect) << x << "," << y << "," << c;
            }
}

TEST(FinishThumbnailSample, ExactCopyAtWidth2000)
{
    std::vector<uint8_t> pano(2000 * 1000 * 3);
    for (size_t i = 0; i < pano.size(); ++i)
        pano[i] = uint8_t(i * 7 + i / 6000);
    std::vector<uint8_t> out(pano.size());
    sampleNearest(view(pano, 2000, 1000, 3), 2000, 1000, out.data());
    EXPECT_EQ(out, pano);
}

TEST(FinishThumbnailSample, ColumnsAndRowsByIntegerDivisionOfWidth)
{
    // 3000 x 1500 RGBE: pixel (x, y) holds its coordinates. Thumbnail pixel
    // (x, y) comes from column x * 3000 / 2000 and row y * 3000 / 2000.
    const int W = 3000, H = 1500;
    std::vector<uint8_t> pano(size_t(W) * H * 4);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            uint8_t* p = &pano[(size_t(y) * W + x) * 4];
            p[0] = uint8_t(x), p[1] = uint8_t(x >> 8), p[2] = uint8_t(y), p[3] = uint8_t(y >> 8);
        }
    std::vector<uint8_t> out(2000 * 1000 * 4);
    sampleNearest(view(pano, W, H, 4), 2000, 1000, out.data());
    for (int y : {0, 1, 333, 999})
        for (int x : {0, 1, 2, 1001, 1999}) {
            const uint8_t* p = &out[(size_t(y) * 2000 + x) * 4];
            EXPECT_EQ(p[0] | p[1] << 8, x * W / 2000) << x;
            EXPECT_EQ(p[2] | p[3] << 8, y * W / 2000) << y;
        }
}
