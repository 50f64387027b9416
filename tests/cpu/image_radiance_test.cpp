// Radiance .hdr reading and writing: round trips, run-length packets, the
// exponent statistics line, headers and damaged files.
#include <gtest/gtest.h>

#include <ImfArray.h>
#include <ImfRgbaFile.h>

#include <sstream>
#include <string>
#include <vector>

#include "image/ExponentStats.h"
#include "image/Radiance.h"
#include "image/Rgbe.h"
#include "support/Support.h"

namespace {

std::string encode(const ImageView& rgbe, std::string* statistics = nullptr)
{
    std::ostringstream out(std::ios::binary);
    testing::internal::CaptureStderr();
    writeRadiance(out, rgbe);
    const std::string line = testing::internal::GetCapturedStderr();
    if (statistics)
        *statistics = line;
    return out.str();
}

std::string header(int32_t h, int32_t w)
{
    return "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y " + std::to_string(h) + " +X " + std::to_string(w) + "\n";
}

// The pixel bytes of a one-row file whose four channel planes are given.
std::vector<uint8_t> encodedRow(const std::vector<std::vector<uint8_t>>& planes)
{
    const int32_t w = int32_t(planes[0].size());
    Image img(w, 1, 4);
    for (int c = 0; c < 4; ++c)
        for (int32_t x = 0; x < w; ++x)
            img.pixel(x, 0)[c] = planes[c][x];
    const std::string file = encode(img);
    return std::vector<uint8_t>(file.begin() + std::ptrdiff_t(header(1, w).size()), file.end());
}

}  // namespace

TEST(Radiance, RoundTripIsBitExactAcrossLayouts)
{
    support::TempDir dir;
    // Widths 8..65535 are run-length encoded, others flat.
    const struct { int32_t w, h; bool rle; } cases[] = {
        {7, 5, false}, {8, 5, true}, {129, 17, true}, {300, 33, true}, {65535, 2, true}, {65536, 2, false}};
    for (const auto& c : cases) {
        const Image src = support::makeRgbeImage(c.w, c.h, uint32_t(c.w * 31 + c.h));
        const std::string bytes = encode(src), head = header(c.h, c.w);
        ASSERT_EQ(bytes.compare(0, head.size(), head), 0) << c.w;
        const std::string rowHead{2, 2, char(c.w >> 8), char(c.w & 0xFF)};
        if (c.rle)
            EXPECT_EQ(bytes.substr(head.size(), 4), rowHead) << c.w;
        else
            EXPECT_EQ(bytes.size() - head.size(), size_t(c.w) * c.h * 4) << c.w;
        support::writeFile(dir / "round.hdr", bytes);
        EXPECT_TRUE(support::samePixels(src, readRadiance(dir / "round.hdr"), 4)) << c.w;
    }
}

TEST(Radiance, RunLengthPacketChoices)
{
    // Expected bytes worked out by hand from the packet rules.
    EXPECT_EQ(encodedRow({{10, 10, 10, 10, 10, 10, 10, 10},
                          {1, 2, 3, 4, 5, 6, 7, 8},
                          {5, 9, 9, 9, 9, 9, 9, 9},
                          {7, 7, 3, 3, 3, 3, 3, 1}}),
              (std::vector<uint8_t>{2, 2, 0, 8,
                                    136, 10,                    // one run of 8
                                    8, 1, 2, 3, 4, 5, 6, 7, 8,  // no run: one literal
                                    129, 5, 135, 9,             // a lone byte before a run is a run of 1
                                    130, 7, 133, 3, 129, 1}));  // short run before a run; lone last byte
    EXPECT_EQ(encodedRow({{1, 1, 2, 2, 3, 3, 3, 3, 3, 3},
                          {4, 4, 4, 0, 0, 0, 0, 0, 0, 0},
                          {1, 1, 1, 1, 2, 3, 4, 5, 6, 6},
                          {8, 8, 8, 8, 8, 8, 8, 8, 8, 8}}),
              (std::vector<uint8_t>{2, 2, 0, 10,
                                    4, 1, 1, 2, 2, 134, 3,        // two short runs go out as literals
                                    131, 4, 135, 0,               // a run of 3 alone before a run
                                    132, 1, 6, 2, 3, 4, 5, 6, 6,  // trailing stretch with a pair: literal
                                    138, 8}));

    // Runs stop at 127, literals at 128.
    const std::vector<uint8_t> flat(300, 50);
    std::vector<uint8_t> want = {2, 2, 1, 44};
    for (int c = 0; c < 4; ++c)
        want.insert(want.end(), {255, 50, 255, 50, 174, 50});
    EXPECT_EQ(encodedRow({flat, flat, flat, flat}), want);
    std::vector<uint8_t> ramp(130);
    for (int i = 0; i < 130; ++i)
        ramp[i] = uint8_t(i);
    std::vector<uint8_t> plane = {128};
    plane.insert(plane.end(), ramp.begin(), ramp.begin() + 128);
    plane.insert(plane.end(), {2, 128, 129});
    want = {2, 2, 0, 130};
    for (int c = 0; c < 4; ++c)
        want.insert(want.end(), plane.begin(), plane.end());
    EXPECT_EQ(encodedRow({ramp, ramp, ramp, ramp}), want);
}

TEST(Radiance, ExponentStatisticsLine)
{
    // v = E - 128: -8 raises M, 2 raises M, -3 does not and becomes m; the
    // first pixel's -8 is never counted in m.
    Image img(8, 1, 4);
    const uint8_t e[8] = {120, 0, 130, 0, 125, 0, 0, 0};
    for (int x = 0; x < 8; ++x)
        img.pixel(x, 0)[0] = 1, img.pixel(x, 0)[3] = e[x];
    std::string line;
    encode(img, &line);
    EXPECT_EQ(line, "8x1, M: 2, m: -3 -> 5 f-stops, mean: -3\n");

    encode(Image(3, 3, 4), &line);  // nothing lit: the mean is 0/0
    EXPECT_EQ(line.rfind("3x3, M: -127, m: 128 -> -255 f-stops, mean: ", 0), 0u) << line;
    EXPECT_NE(line.find("nan"), std::string::npos) << line;
}

TEST(Radiance, ExponentStatisticsOverBandsOfRows)
{
    // A 1 x 256 column, scanned in four bands of 64 rows: a later band's
    // first raise that does not exceed the earlier maximum counts for m.
    const struct {
        std::vector<std::pair<int, int>> lit;  // row, v
        int maxE, minE, lowestE;
    } cases[] = {
        {{{0, 5}, {100, 3}, {200, -4}, {210, 7}}, 7, -4, -4},
        {{{0, -8}, {150, 2}, {220, -3}}, 2, -3, -8},
        {{{70, -2}, {140, -1}, {250, 4}}, 4, 128, -2},
        {{{10, 6}, {199, 6}}, 6, 6, 6},
    };
    for (const auto& c : cases) {
        Image img(1, 256, 4);
        int sum = 0;
        for (const auto& [row, v] : c.lit)
            img.pixel(0, row)[3] = uint8_t(128 + v), sum += v;
        const ExponentStats s = exponentStats(img);
        EXPECT_EQ(s.maxE, c.maxE) << c.maxE;
        EXPECT_EQ(s.minE, c.minE) << c.maxE;
        EXPECT_EQ(s.lowestE, c.lowestE) << c.maxE;
        EXPECT_EQ(s.count, int64_t(c.lit.size())) << c.maxE;
        EXPECT_EQ(s.sum, sum) << c.maxE;
    }
}

TEST(Radiance, HeadersAndSizeLines)
{
    support::TempDir dir;
    const std::string path = dir / "h.hdr", pixels8(8 * 4, '\x40');
    const auto read = [&](const std::string& bytes) {
        support::writeFile(path, bytes);
        return support::errorOf([&] { readRadiance(path); });
    };
    EXPECT_EQ(read("#?RGBE  \t\n# FORMAT=nonsense\nEXPOSURE=1.0\nFORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 8\n" + pixels8),
              "no error");
    EXPECT_EQ(read("#?RADIANCE\nFORMAT=32-bit_rle_xyze\n\n-Y 1 +X 8\n" + pixels8),
              "Invalid format of RADIANCE file '" + path + "': 'FORMAT=32-bit_rle_xyze'");
    EXPECT_EQ(read("P6\n1 1\n255\nabc"), "Not a RADIANCE file: '" + path + "' (P6)");

    // Data exactly h * w * 4 bytes long is flat even when it looks run-length
    // encoded; so is any data without a FORMAT line.
    std::string looksRle = pixels8;
    looksRle.replace(0, 4, std::string("\x02\x02\x00\x08", 4));
    support::writeFile(path, header(1, 8) + looksRle);
    EXPECT_EQ(readRadiance(path).pixel(0, 0)[0], 2);
    support::writeFile(path, "#?RADIANCE\n\n-Y 2 +X 8\n" + looksRle + looksRle + "trailing bytes");
    EXPECT_EQ(readRadiance(path).pixel(0, 1)[3], 8);

    EXPECT_EQ(read("#?RADIANCE\n\n-Y 1 -X 2\nABCDEFGH"), "Invalid size of RADIANCE file '" + path + "': '-Y 1 -X 2'");
    EXPECT_EQ(read("#?RADIANCE\n\n-Y 01 +X 002 extra\nABCDEFGH"), "no error");

    // Sizes the file cannot hold are refused before allocating.
    const std::string data(100, '\x02');
    for (const std::string line : {"-Y 30000 +X 30000", "-Y 0 +X 5", "-Y 99999999999999999999 +X 5"})
        EXPECT_EQ(read("#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n" + line + "\n" + data),
                  "Invalid size of RADIANCE file '" + path + "': '" + line + "'");
    EXPECT_EQ(read("#?RADIANCE\n\n-Y 30000 +X 30000\n" + data), "Failed to read file '" + path + "'");
}

TEST(Radiance, CorruptAndTruncatedScanlinesNameTheRow)
{
    support::TempDir dir;
    const std::string path = dir / "bad.hdr";
    const std::string row0("\x02\x02\x00\x08\x88\x01\x88\x02\x88\x03\x88\x80", 12);  // four runs of 8
    const auto withRow1 = [&](const std::string& row1) {
        support::writeFile(path, header(2, 8) + row0 + row1);
        return support::errorOf([&] { readRadiance(path); });
    };
    const std::string bad = "Bad scanline data in line 1 in RADIANCE file '" + path + "'";
    const std::string rle = "Failed to parse rle line header 1 of RADIANCE file '" + path + "': ";
    EXPECT_EQ(withRow1(std::string("\x02\x02\x00\x08\x89\x01\x88\x02\x88\x03\x88\x80", 12)), bad);  // run of 9
    EXPECT_EQ(withRow1(std::string("\x02\x02\x00\x08\x00\x01\x88\x02\x88\x03\x88\x80", 12)), bad);  // count 0
    EXPECT_EQ(withRow1(std::string("\x02\x02\x00\x09\x88\x01\x88\x02\x88\x03\x88\x80", 12)), rle + "2 2 0 9");
    EXPECT_EQ(withRow1(row0), "no error");
    const Image good = readRadiance(path);
    EXPECT_EQ(std::vector<uint8_t>(good.pixel(7, 1), good.pixel(7, 1) + 4), (std::vector<uint8_t>{1, 2, 3, 128}));

    // A file cut inside its last scanline.
    const std::string full = encode(support::makeRgbeImage(20, 6, 11));
    support::writeFile(path, full.substr(0, full.size() - 1));
    EXPECT_EQ(support::errorOf([&] { readRadiance(path); }), "Bad scanline data in line 5 in RADIANCE file '" + path + "'");
}

TEST(Radiance, ReadsAFileFromAnIndependentWriter)
{
    // oiio_gradient.hdr and .exr were written by another library from the
    // same floats (tests/data/README.md). The .hdr must decode to the .exr's
    // values within RGBE precision: less than one mantissa step of the
    // pixel's largest channel (1/128 of it) at worst, half that on average.
    const Image hdr = readRadiance(support::sourcePath("data/oiio_gradient.hdr"));
    Imf::RgbaInputFile exr(support::sourcePath("data/oiio_gradient.exr").c_str());
    const Imath::Box2i dw = exr.dataWindow();
    const int32_t w = dw.max.x - dw.min.x + 1, h = dw.max.y - dw.min.y + 1;
    ASSERT_EQ(hdr.width(), w);
    ASSERT_EQ(hdr.height(), h);
    Imf::Array2D<Imf::Rgba> ref(h, w);
    exr.setFrameBuffer(&ref[0][0], 1, size_t(w));
    exr.readPixels(dw.min.y, dw.max.y);
    double maxErr = 0, sumErr = 0;
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            float rgb[3];
            rgbeToFloat(hdr.pixel(x, y), rgb);
            const float r[3] = {ref[y][x].r, ref[y][x].g, ref[y][x].b};
            for (int c = 0; c < 3; ++c) {
                const double err = std::abs(double(rgb[c]) - r[c]) / std::max({r[0], r[1], r[2]});
                maxErr = std::max(maxErr, err);
                sumErr += err;
            }
        }
    EXPECT_LE(maxErr, 1.0 / 128);
    EXPECT_LE(sumErr / (3.0 * w * h), 1.0 / 256);
}
