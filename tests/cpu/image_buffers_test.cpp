// ImageView geometry, the RGBE encoding and the half-float strip conversions.
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "image/ImageView.h"
#include "image/OpenExr.h"
#include "image/Rgbe.h"
#include "image_test_util.h"

namespace {

std::string subViewError(const ImageView& v, int x, int y, int w, int h)
{
    try {
        v.subView(x, y, w, h);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "no error";
}

TEST(ImageView, SubViewGeometryAndSizesCountingBack)
{
    Image img(10, 6, 4);
    const ImageView whole = img.subView(0, 0, 0, 0);
    EXPECT_EQ(whole.data, img.data);
    EXPECT_EQ(whole.width, 10);
    EXPECT_EQ(whole.height, 6);

    // Zero or negative sizes count back from the far edge.
    const ImageView part = img.subView(2, 3, -1, 0);
    EXPECT_EQ(part.width, 7);
    EXPECT_EQ(part.height, 3);
    EXPECT_EQ(part.data, img.data + 3 * 40 + 2 * 4);
    EXPECT_EQ(part.stride(), 40);
    EXPECT_EQ(part.step(), 4);
    // A sub-view of a sub-view addresses the same memory as the direct one.
    EXPECT_EQ(part.subView(1, 1, 2, 2).pixel(1, 1), img.pixel(4, 5));

    // A view with zero step and stride is tightly packed.
    uint8_t bytes[12] = {};
    ImageView packed{bytes, 0, 0, 4, 3};
    EXPECT_EQ(packed.subView(1, 2, 1, 1).data, bytes + 2 * 4 + 1);
}

TEST(ImageView, SubViewBoundsMessages)
{
    Image img(10, 6, 3);
    EXPECT_EQ(subViewError(img, 5, 0, 6, 2), "Access out of bounds in ImageView::subView: 6x2@5x0 not in 10x6");
    EXPECT_EQ(subViewError(img, 0, 4, 10, 3), "Access out of bounds in ImageView::subView: 10x3@0x4 not in 10x6");
    EXPECT_EQ(subViewError(img, 0, 6, 10, 0), "Access out of bounds in ImageView::subView: empty ROI (10x0)");
    EXPECT_EQ(subViewError(img, 3, 0, -7, 1), "Access out of bounds in ImageView::subView: empty ROI (0x1)");
    // The bounds test comes first: too large and empty reports out of bounds.
    EXPECT_EQ(subViewError(img, 8, 7, 5, 0), "Access out of bounds in ImageView::subView: 5x-1@8x7 not in 10x6");
}

TEST(ImageView, OwningImageIsZeroFilledAndRefusesAbsurdSizes)
{
    Image img(7, 5, 4);
    EXPECT_EQ(img.data, img.owned.get());
    EXPECT_EQ(img.step(), 4);
    EXPECT_EQ(img.stride(), 28);
    for (size_t i = 0; i < img.byteSize(); ++i)
        ASSERT_EQ(img.data[i], 0) << i;
    EXPECT_THROW(Image(0, 5, 4), std::runtime_error);
    EXPECT_THROW(Image(100000, 100000, 4), std::runtime_error);
}

TEST(Rgbe, DecodeUsesByteTimesPowerOfTwoWithoutHalfStep)
{
    float rgb[3];
    const uint8_t unit[4] = {1, 128, 255, 136};  // E = 136: bytes are the values
    rgbeToFloat(unit, rgb);
    EXPECT_EQ(rgb[0], 1.0f);
    EXPECT_EQ(rgb[1], 128.0f);
    EXPECT_EQ(rgb[2], 255.0f);

    const uint8_t half[4] = {128, 64, 1, 129};  // 2^-7 per step
    rgbeToFloat(half, rgb);
    EXPECT_EQ(rgb[0], 1.0f);
    EXPECT_EQ(rgb[1], 0.5f);
    EXPECT_EQ(rgb[2], 1.0f / 128);

    const uint8_t black[4] = {200, 100, 50, 0};  // E = 0 is black whatever the bytes
    rgbeToFloat(black, rgb);
    EXPECT_EQ(rgb[0], 0.0f);
    EXPECT_EQ(rgb[1], 0.0f);
    EXPECT_EQ(rgb[2], 0.0f);

    const float* table = rgbeExponentTable();
    EXPECT_EQ(table[0], float(std::ldexp(1.0, -136)));  // a denormal float, not 0
    EXPECT_EQ(table[255], float(std::ldexp(1.0, 119)));
}

TEST(Rgbe, EncodeTruncatesAndKeepsLowBits)
{
    uint8_t p[4];
    // 1.0 = 0.5 * 2^1: scale 128, E = 129; 0.3 * 128 = 38.4 truncates to 38.
    floatToRgbe(1.0f, 0.3f, 0.0f, p);
    EXPECT_EQ(p[0], 128);
    EXPECT_EQ(p[1], 38);
    EXPECT_EQ(p[2], 0);
    EXPECT_EQ(p[3], 129);
    // The largest channel may be any of the three; 0.999 * 256 = 255.7 -> 255.
    floatToRgbe(0.25f, 0.5f, 0.999f, p);
    EXPECT_EQ(p[0], 64);
    EXPECT_EQ(p[1], 128);
    EXPECT_EQ(p[2], 255);
    EXPECT_EQ(p[3], 128);
    // Negative channels are not clamped: -0.5 * 128 = -64 keeps its low 8 bits.
    floatToRgbe(1.0f, -0.5f, 0.0f, p);
    EXPECT_EQ(p[1], 192);
    // Below 1e-32 everything is zero; just above it is not.
    floatToRgbe(9e-33f, 5e-33f, 0.0f, p);
    EXPECT_EQ(std::vector<uint8_t>(p, p + 4), std::vector<uint8_t>(4, 0));
    floatToRgbe(2e-32f, 0.0f, 0.0f, p);
    EXPECT_NE(p[3], 0);
}

TEST(Rgbe, EncodeOfDecodedNormalisedPixelIsIdentity)
{
    // Every pixel the encoder produces has a largest byte of 128 or more; such
    // pixels survive decode + encode unchanged for every exponent whose value
    // stays above the 1e-32 cut-off (E >= 23).
    std::mt19937 rng(7);
    for (int e = 23; e < 256; ++e) {
        for (int top = 128; top < 256; ++top) {
            const uint8_t other1 = uint8_t(rng() % (top + 1));
            const uint8_t other2 = uint8_t(rng() % (top + 1));
            const uint8_t in[3][4] = {{uint8_t(top), other1, other2, uint8_t(e)},
                                      {other1, uint8_t(top), other2, uint8_t(e)},
                                      {other1, other2, uint8_t(top), uint8_t(e)}};
            for (const auto& pixel : in) {
                float rgb[3];
                uint8_t out[4];
                rgbeToFloat(pixel, rgb);
                floatToRgbe(rgb[0], rgb[1], rgb[2], out);
                ASSERT_EQ(0, std::memcmp(pixel, out, 4)) << "E " << e << " top " << top;
            }
        }
    }
}

TEST(Rgbe, NonFiniteInputDoesNotMisbehave)
{
    // Reachable through half values of an OpenEXR file; must give some pixel
    // without undefined behaviour (checked by the sanitizer build).
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    uint8_t p[4];
    floatToRgbe(inf, 1.0f, 0.0f, p);
    floatToRgbe(nan, nan, nan, p);
    floatToRgbe(1.0f, -1e30f, 0.0f, p);
    float rgb[3];
    rgbeToFloat(p, rgb);
    EXPECT_TRUE(std::isfinite(rgb[0]) && std::isfinite(rgb[1]) && std::isfinite(rgb[2]));
}

TEST(HalfStrips, RgbeWithinHalfRangeRoundTripsExactly)
{
    // RGBE values with E in [112, 144] are byte * 2^k with k in [-24, 8]:
    // exactly representable as half, so RGBE -> half -> RGBE is lossless.
    // Sizes on both sides of the single-thread limit (256 pixels), and a
    // strided view inside a larger image.
    for (const auto& size : {std::pair<int, int>{16, 16}, {17, 16}, {333, 7}, {1000, 3}}) {
        Image src = testutil::makeRgbeImage(size.first, size.second, uint32_t(size.first), 112, 144);
        std::vector<Imf::Rgba> strip(size_t(size.first) * size.second);
        rgbeToHalf(src, strip.data());
        Image canvas(size.first + 5, size.second + 2, 4);
        const ImageView target = canvas.subView(3, 1, size.first, size.second);
        halfToRgbe(strip.data(), target);
        EXPECT_TRUE(testutil::samePixels(src, target, 4)) << size.first << "x" << size.second;
        // Pixels around the sub-view are untouched.
        EXPECT_EQ(canvas.pixel(2, 1)[3], 0);
        EXPECT_EQ(canvas.pixel(0, 0)[3], 0);
        EXPECT_EQ(canvas.pixel(size.first + 4, size.second + 1)[3], 0);
        EXPECT_EQ(float(strip[5].a), 1.0f);
    }
}

TEST(HalfStrips, MatchPerPixelConversionOutsideHalfRange)
{
    // Large exponents overflow half and tiny ones flush toward zero; the strip
    // conversion must give what converting each pixel on its own gives, in
    // every position of a strided view.
    Image src = testutil::makeRgbeImage(301, 5, 99, 20, 200);
    const ImageView view = src.subView(1, 1, 299, 3);
    std::vector<Imf::Rgba> strip(size_t(view.width) * view.height);
    rgbeToHalf(view, strip.data());
    for (int32_t y = 0; y < view.height; ++y) {
        for (int32_t x = 0; x < view.width; ++x) {
            float rgb[3];
            rgbeToFloat(view.pixel(x, y), rgb);
            const Imf::Rgba& h = strip[size_t(y) * view.width + x];
            ASSERT_EQ(h.r.bits(), half(rgb[0]).bits());
            ASSERT_EQ(h.g.bits(), half(rgb[1]).bits());
            ASSERT_EQ(h.b.bits(), half(rgb[2]).bits());
        }
    }
    Image back(view.width, view.height, 4);
    halfToRgbe(strip.data(), back);
    for (int32_t i = 0; i < view.width * view.height; ++i) {
        uint8_t expected[4];
        floatToRgbe(float(strip[i].r), float(strip[i].g), float(strip[i].b), expected);
        ASSERT_EQ(0, std::memcmp(expected, back.data + 4 * i, 4)) << i;
    }
}

}  // namespace
