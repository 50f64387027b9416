// JPEG reading and writing, the "-" path and the failure messages.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "image/Jpeg.h"
#include "support/Support.h"

namespace {

using support::errorOf;

// Smooth content with some texture, like a photograph.
Image photo(int32_t w, int32_t h, int channels = 3)
{
    Image img(w, h, channels);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            uint8_t* p = img.pixel(x, y);
            p[0] = uint8_t(40 + 150.0 * x / w);
            p[1] = uint8_t(60 + 120.0 * y / h);
            p[2] = uint8_t(128 + 60 * std::sin(x * 0.2) * std::cos(y * 0.15));
        }
    return img;
}

// Largest and mean absolute difference of the RGB bytes.
std::pair<int, double> difference(const ImageView& a, const ImageView& b)
{
    int worst = 0;
    double sum = 0;
    for (int32_t y = 0; y < a.height(); ++y)
        for (int32_t x = 0; x < a.width(); ++x)
            for (int c = 0; c < 3; ++c) {
                const int d = std::abs(int(a.pixel(x, y)[c]) - int(b.pixel(x, y)[c]));
                worst = std::max(worst, d);
                sum += d;
            }
    return {worst, sum / (3.0 * a.width() * a.height())};
}

}  // namespace

TEST(Jpeg, WrittenFileIsBaselineQuality90AndReadsBack)
{
    support::TempDir dir;
    const Image src = photo(97, 61);  // not a multiple of the 16-pixel MCU
    writeJpeg(src, dir / "a.jpg");
    const Image back = readJpeg(dir / "a.jpg");
    ASSERT_EQ(back.width(), 97);
    ASSERT_EQ(back.height(), 61);
    EXPECT_EQ(back.channels(), 3);
    // Quality 90 with 2x2 chroma subsampling: a couple of levels on average;
    // the blue texture loses detail to the halved chroma, hence the looser max.
    const auto err = difference(src, back);
    EXPECT_LE(err.second, 2.5);
    EXPECT_LE(err.first, 24);

    // libjpeg's own decoder reads the same pixels.
    const support::RunResult ppm = support::runProgram({"/usr/bin/djpeg", "-ppm", dir / "a.jpg"});
    EXPECT_EQ(ppm.out, "P6\n97 61\n255\n" + std::string(reinterpret_cast<const char*>(back.data()), back.byteSize()));

    // Baseline frame (SOF0, no SOF2); first luminance quantizer (16 * 20 + 50) / 100 = 3.
    const std::string file = support::readFile(dir / "a.jpg");
    EXPECT_NE(file.find("\xFF\xC0"), std::string::npos);
    EXPECT_EQ(file.find("\xFF\xC2"), std::string::npos);
    const size_t dqt = file.find("\xFF\xDB");
    ASSERT_NE(dqt, std::string::npos);
    EXPECT_EQ(uint8_t(file[dqt + 5]), 3);

    // A view with a fourth byte per pixel writes the same file; so does "-".
    Image rgbx = photo(97, 61, 4);
    writeJpeg(rgbx, dir / "b.jpg");
    EXPECT_EQ(support::readFile(dir / "b.jpg"), file);
    testing::internal::CaptureStdout();
    EXPECT_EQ(errorOf([&] { writeJpeg(src, "-"); }), "no error");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), file);
}

TEST(Jpeg, FailuresNameTheFile)
{
    support::TempDir dir;
    const std::string missing = dir / "missing.jpg", unwritable = dir / "no/dir/out.jpg";
    EXPECT_EQ(errorOf([&] { readJpeg(missing); }),
              "Error opening file '" + missing + "' (with mode 'rb'): No such file or directory");
    EXPECT_EQ(errorOf([&] { writeJpeg(photo(8, 8), unwritable); }),
              "Error opening file '" + unwritable + "' (with mode 'wb'): No such file or directory");

    const Image src = photo(16, 16);
    support::writeFile(dir / "in.ppm", "P6\n16 16\n255\n" + std::string(reinterpret_cast<const char*>(src.data()), src.byteSize()));
    support::writeFile(dir / "grey.jpg", support::runProgram({"/usr/bin/cjpeg", "-grayscale", dir / "in.ppm"}).out);
    EXPECT_EQ(errorOf([&] { readJpeg(dir / "grey.jpg"); }), "can not open JPEG with color format other than RGB");

    writeJpeg(photo(64, 48), dir / "good.jpg");
    const std::string bytes = support::readFile(dir / "good.jpg");
    const std::string path = dir / "bad.jpg", prefix = "Error reading JPEG file '" + path + "': ";
    const struct { std::string content, message; } cases[] = {
        {"", "Empty input file"},
        {"GIF89a not a jpeg", "Not a JPEG file: starts with 0x47 0x49"},
        {bytes.substr(0, bytes.size() / 2), "Premature end of JPEG file"},
        {bytes.substr(0, bytes.size() - 3), "Premature end of JPEG file"},
    };
    for (const auto& c : cases) {
        support::writeFile(path, c.content);
        EXPECT_EQ(errorOf([&] { readJpeg(path); }), prefix + c.message) << c.content.size() << " bytes";
    }
    for (size_t length = 0; length + 2 < bytes.size(); length += 37) {  // every cut fails cleanly
        support::writeFile(path, bytes.substr(0, length));
        EXPECT_EQ(errorOf([&] { readJpeg(path); }).rfind(prefix, 0), 0u) << length;
    }
}

TEST(Jpeg, FramesTheFileCannotHoldAreRefusedBeforeDecoding)
{
    // A small file whose frame header was patched to a huge size used to
    // decode "successfully" (libjpeg pads missing data) after allocating
    // gigabytes. Baseline and progressive files (seeds of the fuzzing
    // corpus), frames beyond the data and, with enough trailing bytes to pass
    // that rule, beyond the pixel limit.
    support::TempDir dir;
    const std::string path = dir / "huge.jpg";
    const std::string prefix = "Error reading JPEG file '" + path + "': frame of ";
    const struct {
        const char* seed;
        const char* marker;
        int size;
        size_t padding;
        const char* message;
    } cases[] = {
        {"baseline-24x16", "\xFF\xC0", 65000, 0, "65000x65000 pixels needs more data than the file's "},
        {"progressive", "\xFF\xC2", 65000, 0, "65000x65000 pixels needs more data than the file's "},
        {"baseline-24x16", "\xFF\xC0", 2000, 0, "2000x2000 pixels needs more data than the file's "},
        {"baseline-24x16", "\xFF\xC0", 24000, 4 << 20, "24000x24000 pixels is too large"},
    };
    for (const auto& c : cases) {
        std::string bytes = support::readFile(std::string(TESSARA_SOURCE_DIR) + "/fuzz/corpus/jpeg/" + c.seed + ".jpg");
        const size_t sof = bytes.find(c.marker);
        ASSERT_NE(sof, std::string::npos) << c.seed;
        for (int k : {5, 7}) {
            bytes[sof + k] = char(c.size >> 8);
            bytes[sof + k + 1] = char(c.size & 0xFF);
        }
        support::writeFile(path, bytes + std::string(c.padding, '\0'));
        const std::string error = errorOf([&] { readJpeg(path); });
        EXPECT_EQ(error.rfind(prefix + c.message, 0), 0u) << c.seed << " " << c.size << ": " << error;
    }
}

// Decoding at M/8 of the size: the smallest scale from the one asked for up
// that shrinks both sides to whole pixels, each output pixel close to the
// mean of the full decode over the 8/M x 8/M source area it stands for (so
// its centre lies at (i + 1/2) 8/M - 1/2), not over an area half a step off.
TEST(Jpeg, ReducedDecodingAveragesWholeAreas)
{
    struct Case {
        int w, h, eighths, expected;
    };
    support::TempDir dir;
    const std::string path = dir / "r.jpg";
    for (const Case c : {Case{96, 64, 1, 1}, Case{96, 64, 4, 4}, Case{100, 60, 1, 2}, Case{97, 61, 1, 8},
                         Case{96, 64, 5, 5}, Case{100, 60, 5, 6}, Case{96, 64, 8, 8}}) {
        SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h) + " " + std::to_string(c.eighths) + "/8");
        writeJpeg(photo(c.w, c.h), path);
        const Image full = readJpeg(path);
        int m = 0;
        const Image small = readJpeg(path, c.eighths, &m);
        ASSERT_EQ(m, c.expected);
        ASSERT_EQ(small.width(), c.w * m / 8);
        ASSERT_EQ(small.height(), c.h * m / 8);
        if (m == 8)
            continue;
        // Mean of the full decode over [x0, x1) x [y0, y1) (pixel edges).
        const auto areaMean = [&](double x0, double x1, double y0, double y1, int ch) {
            double sum = 0, weight = 0;
            for (int y = int(y0); y < int(std::ceil(y1)); ++y)
                for (int x = int(x0); x < int(std::ceil(x1)); ++x) {
                    const double a = (std::min(x1, x + 1.0) - std::max(x0, double(x))) *
                                     (std::min(y1, y + 1.0) - std::max(y0, double(y)));
                    sum += a * full.pixel(x, y)[ch];
                    weight += a;
                }
            return sum / weight;
        };
        const double step = 8.0 / m;
        double aligned = 0, shifted = 0;
        int n = 0;
        for (int j = 0; j + 1 < small.height(); ++j)
            for (int i = 0; i + 1 < small.width(); ++i)
                for (int ch = 0; ch < 3; ++ch) {
                    const double v = small.pixel(i, j)[ch];
                    aligned += std::abs(v - areaMean(i * step, (i + 1) * step, j * step, (j + 1) * step, ch));
                    shifted += std::abs(v - areaMean((i + 0.5) * step, (i + 1.5) * step, (j + 0.5) * step,
                                                     (j + 1.5) * step, ch));
                    ++n;
                }
        EXPECT_LE(aligned / n, 1.5);
        EXPECT_GT(shifted / n, 2 * aligned / n);
    }
}

// Decoding only some rows: they are exactly those of the whole decode, at
// full size and scaled, at the top, inside and at the bottom of the frame
// (colour is subsampled, so rows share chroma with their neighbours); a
// file cut short fails though the damage lies in rows that were skipped.
TEST(Jpeg, RowsOfADecodeAreThoseOfTheWholeOne)
{
    struct Case {
        int eighths, first, end;
    };
    support::TempDir dir;
    const std::string path = dir / "rows.jpg";
    writeJpeg(photo(160, 120), path);
    for (const Case c : {Case{8, 0, 17}, Case{8, 37, 90}, Case{8, 101, 200}, Case{4, 13, 45}, Case{5, 30, 75}}) {
        SCOPED_TRACE(std::to_string(c.eighths) + ": " + std::to_string(c.first));
        const Image whole = readJpeg(path, c.eighths);
        const JpegRows part = readJpegRows(path, c.eighths, [&](int32_t w, int32_t h, int eighths) {
            EXPECT_EQ(w, whole.width());
            EXPECT_EQ(h, whole.height());
            EXPECT_EQ(eighths, c.eighths);
            return std::pair<int32_t, int32_t>{c.first, c.end};
        });
        const int32_t end = std::min(c.end, whole.height());
        ASSERT_EQ(part.firstRow, c.first);
        ASSERT_EQ(part.rows.height(), end - c.first);
        EXPECT_TRUE(std::equal(part.rows.data(), part.rows.data() + part.rows.byteSize(), whole.pixel(0, c.first)));
    }
    std::string bytes = support::readFile(path);
    support::writeFile(path, bytes.substr(0, bytes.size() * 3 / 4));
    const auto firstRows = [](int32_t, int32_t, int) { return std::pair<int32_t, int32_t>{0, 10}; };
    EXPECT_EQ(errorOf([&] { readJpegRows(path, 8, firstRows); }).rfind("Error reading JPEG file", 0), 0u);
}
