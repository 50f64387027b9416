// Radiance .hdr reading and writing: round trips, the run-length packet
// choices, header handling, and damaged files.
#include <cstdio>
#include <cstring>
#include <random>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <ImfArray.h>
#include <ImfInputFile.h>
#include <ImfRgbaFile.h>
#include <gtest/gtest.h>

#include "image/ExponentStats.h"
#include "image/Radiance.h"
#include "image/Rgbe.h"
#include "image_test_util.h"

namespace {

using testutil::TempDir;

std::string encode(const ImageView& rgbe)
{
    std::ostringstream out(std::ios::binary);
    testing::internal::CaptureStderr();  // the statistics line
    writeRadiance(out, rgbe);
    testing::internal::GetCapturedStderr();
    return out.str();
}

std::string header(int32_t h, int32_t w, bool format = true)
{
    return std::string("#?RADIANCE\n") + (format ? "FORMAT=32-bit_rle_rgbe\n" : "") + "\n-Y " + std::to_string(h) +
           " +X " + std::to_string(w) + "\n";
}

std::string readError(const std::string& path)
{
    try {
        readRadiance(path);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "no error";
}

// One-row image whose four channel planes are given.
Image rowImage(const std::vector<std::vector<uint8_t>>& planes)
{
    const int32_t w = int32_t(planes[0].size());
    Image img(w, 1, 4);
    for (int c = 0; c < 4; ++c)
        for (int32_t x = 0; x < w; ++x)
            img.pixel(x, 0)[c] = planes[c][x];
    return img;
}

std::vector<uint8_t> pixelData(const std::string& file, int32_t h, int32_t w)
{
    const size_t start = header(h, w).size();
    return std::vector<uint8_t>(file.begin() + std::ptrdiff_t(start), file.end());
}

TEST(Radiance, RoundTripIsBitExactAcrossLayoutBoundaries)
{
    TempDir dir;
    // Widths below 8 and above 65535 are flat, 8..65535 run-length encoded.
    const struct {
        int32_t w, h;
        bool rle;
    } cases[] = {{1, 3, false},  {7, 5, false},    {8, 5, true},    {9, 4, true},      {127, 3, true},
                 {128, 3, true}, {129, 17, true},  {300, 33, true}, {65535, 2, true}, {65536, 2, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h));
        const Image src = testutil::makeRgbeImage(c.w, c.h, uint32_t(c.w * 31 + c.h));
        const std::string bytes = encode(src);
        ASSERT_EQ(bytes.compare(0, header(c.h, c.w).size(), header(c.h, c.w)), 0);
        const std::vector<uint8_t> data = pixelData(bytes, c.h, c.w);
        if (c.rle) {
            ASSERT_GE(data.size(), 4u);
            EXPECT_EQ(std::vector<uint8_t>(data.begin(), data.begin() + 4),
                      (std::vector<uint8_t>{2, 2, uint8_t(c.w >> 8), uint8_t(c.w & 0xFF)}));
        } else {
            EXPECT_EQ(data.size(), size_t(c.w) * c.h * 4);
        }
        const std::string path = dir.file("round.hdr");
        testutil::writeFile(path, bytes);
        const Image back = readRadiance(path);
        EXPECT_EQ(back.step(), 4);
        EXPECT_EQ(back.stride(), 4 * c.w);
        EXPECT_TRUE(testutil::samePixels(src, back, 4));
    }
}

TEST(Radiance, StridedViewWritesLikeItsPackedCopy)
{
    const Image big = testutil::makeRgbeImage(50, 20, 3);
    const ImageView part = big.subView(5, 2, 40, 17);
    Image packed(40, 17, 4);
    for (int32_t y = 0; y < 17; ++y)
        std::memcpy(packed.row(y), part.row(y), 160);
    EXPECT_EQ(encode(part), encode(packed));
    const ImageView narrow = big.subView(3, 3, 6, 4);  // flat layout
    Image narrowPacked(6, 4, 4);
    for (int32_t y = 0; y < 4; ++y)
        std::memcpy(narrowPacked.row(y), narrow.row(y), 24);
    EXPECT_EQ(encode(narrow), encode(narrowPacked));
}

TEST(Radiance, RunLengthPacketChoices)
{
    // Expected bytes worked out by hand from the packet rules.
    const Image w8 = rowImage({{10, 10, 10, 10, 10, 10, 10, 10},
                               {1, 2, 3, 4, 5, 6, 7, 8},
                               {5, 9, 9, 9, 9, 9, 9, 9},
                               {7, 7, 3, 3, 3, 3, 3, 1}});
    EXPECT_EQ(pixelData(encode(w8), 1, 8),
              (std::vector<uint8_t>{2, 2, 0, 8,
                                    136, 10,                    // one run of 8
                                    8, 1, 2, 3, 4, 5, 6, 7, 8,  // no run at all: one literal
                                    129, 5, 135, 9,             // a lone byte before a run is a run of 1
                                    130, 7, 133, 3, 129, 1}));  // short run before a run; lone last byte

    const Image w10 = rowImage({{1, 1, 2, 2, 3, 3, 3, 3, 3, 3},
                                {4, 4, 4, 0, 0, 0, 0, 0, 0, 0},
                                {1, 1, 1, 1, 2, 3, 4, 5, 6, 6},
                                {8, 8, 8, 8, 8, 8, 8, 8, 8, 8}});
    EXPECT_EQ(pixelData(encode(w10), 1, 10),
              (std::vector<uint8_t>{2, 2, 0, 10,
                                    4, 1, 1, 2, 2, 134, 3,          // two short runs go out as literals
                                    131, 4, 135, 0,                 // a run of 3 alone before a run
                                    132, 1, 6, 2, 3, 4, 5, 6, 6,    // trailing stretch with a pair: literal
                                    138, 8}));

    // Runs stop at 127, literals at 128.
    const std::vector<uint8_t> flat300(300, 50);
    const std::vector<uint8_t> expect300 = {255, 50, 255, 50, 174, 50};
    std::vector<uint8_t> all300 = {2, 2, 1, 44};
    for (int c = 0; c < 4; ++c)
        all300.insert(all300.end(), expect300.begin(), expect300.end());
    EXPECT_EQ(pixelData(encode(rowImage({flat300, flat300, flat300, flat300})), 1, 300), all300);

    std::vector<uint8_t> ramp(130);
    for (int i = 0; i < 130; ++i)
        ramp[i] = uint8_t(i);
    std::vector<uint8_t> plane = {128};
    plane.insert(plane.end(), ramp.begin(), ramp.begin() + 128);
    plane.insert(plane.end(), {2, 128, 129});
    std::vector<uint8_t> all130 = {2, 2, 0, 130};
    for (int c = 0; c < 4; ++c)
        all130.insert(all130.end(), plane.begin(), plane.end());
    EXPECT_EQ(pixelData(encode(rowImage({ramp, ramp, ramp, ramp})), 1, 130), all130);
}

// The packet rules as plainly stated, one candidate run at a time: the oracle
// for the writer's faster search on arbitrary rows.
std::vector<uint8_t> referencePlane(const std::vector<uint8_t>& d)
{
    const int w = int(d.size());
    std::vector<uint8_t> out;
    int i = 0;
    while (i < w) {
        int j = i, length = 0, previousShort = 0;
        bool found = false;
        while (j < w) {
            length = 1;
            while (j + length < w && length < 127 && d[j + length] == d[j])
                ++length;
            if (length >= 4) {
                found = true;
                break;
            }
            previousShort = length;
            j += length;
        }
        if (previousShort > 0 && j - i == previousShort) {
            out.push_back(uint8_t(128 + previousShort));
            out.push_back(d[i]);
        } else {
            for (int k = i; k < j; k += 128) {
                const int n = std::min(128, j - k);
                out.push_back(uint8_t(n));
                out.insert(out.end(), d.begin() + k, d.begin() + k + n);
            }
        }
        i = j;
        if (found) {
            out.push_back(uint8_t(128 + length));
            out.push_back(d[j]);
            i = j + length;
        }
    }
    return out;
}

TEST(Radiance, WriterMatchesThePacketRulesOnRandomRows)
{
    // Rows built from runs whose lengths are drawn around the interesting
    // limits (1 to 5, 126 to 130) with a small alphabet so that neighbouring
    // runs sometimes merge.
    std::mt19937 rng(424242);
    for (int trial = 0; trial < 300; ++trial) {
        const int w = 8 + int(rng() % 700);
        std::vector<std::vector<uint8_t>> planes(4);
        for (auto& plane : planes) {
            const int alphabet = 2 + int(rng() % 6);
            while (int(plane.size()) < w) {
                const int pick = int(rng() % 10);
                const int length = pick < 7 ? 1 + pick % 5 : 126 + int(rng() % 5);
                plane.insert(plane.end(), size_t(length), uint8_t(rng() % alphabet));
            }
            plane.resize(size_t(w));
        }
        std::vector<uint8_t> expected = {2, 2, uint8_t(w >> 8), uint8_t(w & 0xFF)};
        for (const auto& plane : planes) {
            const std::vector<uint8_t> packets = referencePlane(plane);
            expected.insert(expected.end(), packets.begin(), packets.end());
        }
        ASSERT_EQ(pixelData(encode(rowImage(planes)), 1, w), expected) << "trial " << trial << ", width " << w;
    }
}

TEST(Radiance, ExponentStatisticsKeepTheirQuirks)
{
    // v = E - 128: -8 raises M, 2 raises M, -3 does not and becomes m. The
    // first pixel's -8 is never counted in m.
    Image img = rowImage({{1, 1, 1, 1, 1, 1, 1, 1}, {0, 0, 0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0, 0, 0, 0},
                          {120, 0, 130, 0, 125, 0, 0, 0}});
    const ExponentStats s = exponentStats(img);
    EXPECT_EQ(s.maxE, 2);
    EXPECT_EQ(s.minE, -3);
    EXPECT_EQ(s.count, 3);
    EXPECT_DOUBLE_EQ(s.mean(), -3.0);

    std::ostringstream out;
    testing::internal::CaptureStderr();
    writeRadiance(out, img);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "8x1, M: 2, m: -3 -> 5 f-stops, mean: -3\n");

    // A single non-zero pixel with E = 130 leaves m at 128.
    Image single(4, 2, 4);
    single.pixel(3, 1)[0] = 200;
    single.pixel(3, 1)[3] = 130;
    testing::internal::CaptureStderr();
    printExponentStats(single, exponentStats(single));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "4x2, M: 2, m: 128 -> -126 f-stops, mean: 2\n");

    // No non-zero pixel: the mean is 0/0 and printed as the stream prints NaN.
    Image black(3, 3, 4);
    testing::internal::CaptureStderr();
    printExponentStats(black, exponentStats(black));
    const std::string line = testing::internal::GetCapturedStderr();
    EXPECT_EQ(line.rfind("3x3, M: -127, m: 128 -> -255 f-stops, mean: ", 0), 0u) << line;
    EXPECT_NE(line.find("nan"), std::string::npos) << line;
}

TEST(Radiance, HeaderVariants)
{
    TempDir dir;
    const std::string path = dir.file("h.hdr");
    const std::string pixels8(8 * 4, '\x40');

    // "#?RGBE" with trailing blanks, comment lines and other keys are fine.
    testutil::writeFile(path, "#?RGBE  \t\n# FORMAT=nonsense\nEXPOSURE=1.0\nFORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 8\n" +
                                  pixels8);
    EXPECT_EQ(readRadiance(path).pixel(7, 0)[3], 0x40);

    testutil::writeFile(path, "#?RADIANCE\nFORMAT=32-bit_rle_xyze\n\n-Y 1 +X 8\n" + pixels8);
    EXPECT_EQ(readError(path), "Invalid format of RADIANCE file '" + path + "': 'FORMAT=32-bit_rle_xyze'");
    testutil::writeFile(path, "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\r\n\n-Y 1 +X 8\n" + pixels8);
    EXPECT_EQ(readError(path), "Invalid format of RADIANCE file '" + path + "': 'FORMAT=32-bit_rle_rgbe\r'");

    testutil::writeFile(path, "P6\n1 1\n255\nabc");
    EXPECT_EQ(readError(path), "Not a RADIANCE file: '" + path + "' (P6)");
    EXPECT_EQ(readError(dir.file("missing.hdr")),
              "Failed to open file '" + dir.file("missing.hdr") + "': No such file or directory");

    // Data that looks like run-length scanlines but is exactly h * w * 4
    // bytes long is read flat; so is a file without a FORMAT line.
    std::string looksRle = pixels8;
    looksRle.replace(0, 4, std::string("\x02\x02\x00\x08", 4));
    testutil::writeFile(path, header(1, 8) + looksRle);
    Image flat = readRadiance(path);
    EXPECT_EQ(std::vector<uint8_t>(flat.data, flat.data + 5), (std::vector<uint8_t>{2, 2, 0, 8, 0x40}));
    testutil::writeFile(path, header(2, 8, false) + looksRle + looksRle + "trailing bytes are ignored");
    EXPECT_EQ(readRadiance(path).pixel(0, 1)[3], 8);
}

TEST(Radiance, SizeLineFollowsTheRegularExpression)
{
    // std::regex is the oracle for which size lines are accepted.
    const std::regex sizeLine(R"(^-Y (\d+) \+X (\d+).*)");
    const char* lines[] = {"-Y 1 +X 2",   "-Y 1 +X 2 extra", "-Y 01 +X 002", "-Y 1 +X 2\r",  "-Y 1 +X 2 x\ry",
                           "+Y 1 +X 2",   "-Y 1 -X 2",       "+X 2 -Y 1",    "-Y  1 +X 2",   "-Y 1 +X ",
                           "-Y 1 +X 2\t", "-Y1 +X 2",        " -Y 1 +X 2",   "-Y 1 +X 2abc", "-Y 1 +X"};
    TempDir dir;
    const std::string path = dir.file("s.hdr");
    for (const std::string line : lines) {
        testutil::writeFile(path, "#?RADIANCE\n\n" + line + "\nABCDEFGH");
        if (std::regex_match(line, sizeLine)) {
            const Image img = readRadiance(path);
            EXPECT_EQ(img.width, 2) << line;
            EXPECT_EQ(img.height, 1) << line;
        } else {
            EXPECT_EQ(readError(path), "Invalid size of RADIANCE file '" + path + "': '" + line + "'");
        }
    }
}

TEST(Radiance, DeclaredSizesBeyondTheFileAreRefusedBeforeAllocating)
{
    TempDir dir;
    const std::string path = dir.file("big.hdr");
    const std::string data(100, '\x02');
    const auto invalid = [&](const std::string& line) {
        return "Invalid size of RADIANCE file '" + path + "': '" + line + "'";
    };
    testutil::writeFile(path, "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 100000 +X 100000\n" + data);
    EXPECT_EQ(readError(path), invalid("-Y 100000 +X 100000"));
    // Within the allocation limit, but 30000 scanlines need far more than 100 bytes.
    testutil::writeFile(path, "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 30000 +X 30000\n" + data);
    EXPECT_EQ(readError(path), invalid("-Y 30000 +X 30000"));
    testutil::writeFile(path, "#?RADIANCE\n\n-Y 30000 +X 30000\n" + data);
    EXPECT_EQ(readError(path), "Failed to read file '" + path + "'");
    testutil::writeFile(path, "#?RADIANCE\n\n-Y 0 +X 5\n");
    EXPECT_EQ(readError(path), invalid("-Y 0 +X 5"));
    testutil::writeFile(path, "#?RADIANCE\n\n-Y 99999999999999999999 +X 5\n" + data);
    EXPECT_EQ(readError(path), invalid("-Y 99999999999999999999 +X 5"));
}

TEST(Radiance, CorruptScanlinesNameTheRow)
{
    TempDir dir;
    const std::string path = dir.file("bad.hdr");
    // Row 0 is four runs of 8; row 1 is given per case.
    const std::string row0("\x02\x02\x00\x08\x88\x01\x88\x02\x88\x03\x88\x80", 12);
    const auto withRow1 = [&](const std::string& row1) { testutil::writeFile(path, header(2, 8) + row0 + row1); };
    const std::string bad = "Bad scanline data in line 1 in RADIANCE file '" + path + "'";

    withRow1(std::string("\x02\x02\x00\x08\x89\x01\x88\x02\x88\x03\x88\x80", 12));  // run of 9
    EXPECT_EQ(readError(path), bad);
    withRow1(std::string("\x02\x02\x00\x08\x84\x01\x05\x01\x02\x03\x04\x05\x88\x02\x88\x03\x88\x80", 18));
    EXPECT_EQ(readError(path), bad);  // literal of 5 after a run of 4
    withRow1(std::string("\x02\x02\x00\x08\x00\x01\x88\x02\x88\x03\x88\x80", 12));  // count 0
    EXPECT_EQ(readError(path), bad);
    withRow1(std::string("\x02\x02\x00\x09\x88\x01\x88\x02\x88\x03\x88\x80", 12));
    EXPECT_EQ(readError(path), "Failed to parse rle line header 1 of RADIANCE file '" + path + "': 2 2 0 9");
    withRow1(std::string("\x01\x01\x01\x00\x88\x01\x88\x02\x88\x03\x88\x80", 12));  // old-style run
    EXPECT_EQ(readError(path), "Failed to parse rle line header 1 of RADIANCE file '" + path + "': 1 1 1 0");

    withRow1(row0);
    const Image good = readRadiance(path);
    EXPECT_EQ(std::vector<uint8_t>(good.pixel(7, 1), good.pixel(7, 1) + 4), (std::vector<uint8_t>{1, 2, 3, 128}));
}

TEST(Radiance, TruncatedFiles)
{
    TempDir dir;
    const int32_t w = 20, h = 6;
    const Image src = testutil::makeRgbeImage(w, h, 11);
    const std::string full = encode(src);
    const size_t dataStart = header(h, w).size();
    // Where each row's scanline starts: rows encode independently.
    std::vector<size_t> rowStart = {dataStart};
    for (int32_t y = 0; y < h; ++y)
        rowStart.push_back(rowStart.back() + pixelData(encode(src.subView(0, y, w, 1)), 1, w).size());
    ASSERT_EQ(rowStart.back(), full.size());
    ASSERT_NE(full.size() - dataStart, size_t(w * h * 4));

    const std::string path = dir.file("cut.hdr");
    const std::string name = "'" + path + "'";
    const struct {
        size_t length;
        std::string message;
    } cuts[] = {
        {5, "Not a RADIANCE file: " + name + " (#?RAD)"},
        {11, "Invalid size of RADIANCE file " + name + ": ''"},
        {dataStart - 3, "Invalid size of RADIANCE file " + name + ": '-Y 6 +X '"},
        {dataStart, "Invalid size of RADIANCE file " + name + ": '-Y 6 +X 20'"},
        {rowStart[2], "Failed to parse rle line header 2 of RADIANCE file " + name + ": 0 0 0 0"},
        {rowStart[3] + 10, "Bad scanline data in line 3 in RADIANCE file " + name},
        {rowStart[5], "Failed to parse rle line header 5 of RADIANCE file " + name + ": 0 0 0 0"},
        {rowStart[5] + 2, "Failed to parse rle line header 5 of RADIANCE file " + name + ": 2 2 0 0"},
        {full.size() - 1, "Bad scanline data in line 5 in RADIANCE file " + name},
    };
    for (const auto& cut : cuts) {
        testutil::writeFile(path, full.substr(0, cut.length));
        EXPECT_EQ(readError(path), cut.message) << "cut at " << cut.length;
    }
}

TEST(Radiance, ReadsAFileFromAnIndependentWriter)
{
    // oiio_gradient.hdr and oiio_gradient.exr were written once by OpenImageIO's
    // oiiotool from the same float pattern (see tests/data/README.md). The
    // .exr holds the exact floats; the .hdr must decode to them within RGBE
    // precision: a channel is off by less than one step of the 8-bit mantissa,
    // i.e. (largest channel of the pixel) / 128 at worst. The mean error stays
    // far below that since truncation errors are spread over the step.
    const std::string dataDir = std::string(TESSARA_SOURCE_DIR) + "/tests/data/";
    const Image hdr = readRadiance(dataDir + "oiio_gradient.hdr");
    Imf::RgbaInputFile exr((dataDir + "oiio_gradient.exr").c_str());
    const Imath::Box2i dw = exr.dataWindow();
    const int32_t w = dw.max.x - dw.min.x + 1, h = dw.max.y - dw.min.y + 1;
    ASSERT_EQ(hdr.width, w);
    ASSERT_EQ(hdr.height, h);
    Imf::Array2D<Imf::Rgba> ref(h, w);
    exr.setFrameBuffer(&ref[0][0], 1, size_t(w));
    exr.readPixels(dw.min.y, dw.max.y);
    double maxErr = 0, sumErr = 0;
    for (int32_t y = 0; y < h; ++y) {
        for (int32_t x = 0; x < w; ++x) {
            float rgb[3];
            rgbeToFloat(hdr.pixel(x, y), rgb);
            const float r[3] = {ref[y][x].r, ref[y][x].g, ref[y][x].b};
            const float top = std::max(r[0], std::max(r[1], r[2]));
            for (int c = 0; c < 3; ++c) {
                const double err = std::abs(double(rgb[c]) - r[c]) / top;
                maxErr = std::max(maxErr, err);
                sumErr += err;
            }
        }
    }
    EXPECT_LE(maxErr, 1.0 / 128);
    EXPECT_LE(sumErr / (3.0 * w * h), 1.0 / 256);
}

TEST(Radiance, SeededDamageNeverEndsInAnythingButACleanError)
{
    // Overwrite a sliding window of good files with random bytes, and cut them
    // at every length. Only success or a std::exception is acceptable; the
    // sanitizer build checks that no out-of-bounds access happens on the way.
    TempDir dir;
    const std::string path = dir.file("fuzz.hdr");
    const std::string good[] = {encode(testutil::makeRgbeImage(40, 12, 5)),
                                encode(testutil::makeRgbeImage(5, 4, 6)),
                                encode(testutil::makeRgbeImage(9, 30, 7))};
    std::mt19937 rng(20210105);
    int failures = 0, successes = 0;
    const auto attempt = [&](const std::string& bytes) {
        testutil::writeFile(path, bytes);
        try {
            const Image img = readRadiance(path);
            ASSERT_GT(img.width, 0);
            ++successes;
        } catch (const std::exception&) {
            ++failures;
        } catch (...) {
            ADD_FAILURE() << "unexpected exception type";
        }
    };
    for (const std::string& file : good) {
        for (size_t offset = 0; offset < file.size(); offset += 1 + rng() % 3) {
            std::string damaged = file;
            const size_t len = 1 + rng() % 8;
            for (size_t i = offset; i < std::min(file.size(), offset + len); ++i)
                damaged[i] = char(rng());
            attempt(damaged);
        }
        for (size_t length = 0; length < file.size(); length += 1 + rng() % 2)
            attempt(file.substr(0, length));
    }
    EXPECT_GT(failures, 100);
    EXPECT_GT(successes, 100);  // damage inside pixel bytes often still decodes
}

}  // namespace
