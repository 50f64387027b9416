// JPEG reading and writing, the "-" path and the open-file messages.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "image/Jpeg.h"
#include "image_test_util.h"

namespace {

using testutil::TempDir;

// Smooth content with some texture, like a photograph.
Image makeRgbImage(int32_t w, int32_t h)
{
    Image img(w, h, 3);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            uint8_t* p = img.pixel(x, y);
            p[0] = uint8_t(40 + 150.0 * x / w);
            p[1] = uint8_t(60 + 120.0 * y / h);
            p[2] = uint8_t(128 + 60 * std::sin(x * 0.2) * std::cos(y * 0.15));
        }
    return img;
}

struct ErrorStats {
    int maxErr = 0;
    double meanErr = 0;
};

ErrorStats compare(const ImageView& a, const ImageView& b)
{
    ErrorStats s;
    double sum = 0;
    for (int32_t y = 0; y < a.height; ++y)
        for (int32_t x = 0; x < a.width; ++x)
            for (int c = 0; c < 3; ++c) {
                const int d = std::abs(int(a.pixel(x, y)[c]) - int(b.pixel(x, y)[c]));
                s.maxErr = std::max(s.maxErr, d);
                sum += d;
            }
    s.meanErr = sum / (3.0 * a.width * a.height);
    return s;
}

std::string errorOf(const std::function<void()>& f)
{
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "no error";
}

// The image djpeg decodes from a file (binary PPM on its standard output).
Image decodeWithDjpeg(const std::string& path)
{
    FILE* pipe = popen(("djpeg -ppm '" + path + "'").c_str(), "r");
    if (!pipe)
        throw std::runtime_error("cannot run djpeg");
    int w = 0, h = 0, maxValue = 0;
    if (std::fscanf(pipe, "P6 %d %d %d", &w, &h, &maxValue) != 3 || maxValue != 255 || std::fgetc(pipe) == EOF) {
        pclose(pipe);
        throw std::runtime_error("djpeg gave no PPM");
    }
    Image img(w, h, 3);
    const size_t got = std::fread(img.data, 1, img.byteSize(), pipe);
    pclose(pipe);
    if (got != img.byteSize())
        throw std::runtime_error("short PPM from djpeg");
    return img;
}

TEST(Jpeg, WriteThenReadStaysWithinJpegTolerance)
{
    TempDir dir;
    const Image src = makeRgbImage(97, 61);  // not a multiple of the 16-pixel MCU
    const std::string path = dir.file("smooth.jpg");
    writeJpeg(src, path);
    const Image back = readJpeg(path);
    ASSERT_EQ(back.width, 97);
    ASSERT_EQ(back.height, 61);
    EXPECT_EQ(back.step(), 3);
    EXPECT_EQ(back.stride(), 3 * 97);
    const ErrorStats err = compare(src, back);
    // Quality 90 with 2x2 chroma subsampling: on smooth content the average
    // error is a couple of levels; the sine texture in the blue channel loses
    // some of its detail to the halved chroma resolution, hence the looser max.
    EXPECT_LE(err.meanErr, 2.5);
    EXPECT_LE(err.maxErr, 24);

    // libjpeg's own command-line decoder reads it to the same pixels.
    const Image djpeg = decodeWithDjpeg(path);
    const ErrorStats same = compare(back, djpeg);
    EXPECT_EQ(same.maxErr, 0);
    EXPECT_EQ(same.meanErr, 0);
}

TEST(Jpeg, FileIsBaselineQuality90)
{
    TempDir dir;
    const std::string path = dir.file("q.jpg");
    writeJpeg(makeRgbImage(32, 16), path);
    const std::string bytes = testutil::readFile(path);
    // Baseline frame header (SOF0), no progressive one (SOF2).
    EXPECT_NE(bytes.find("\xFF\xC0"), std::string::npos);
    EXPECT_EQ(bytes.find("\xFF\xC2"), std::string::npos);
    // First luminance quantizer: the standard 16 scaled by 20 % (quality 90),
    // (16 * 20 + 50) / 100 = 3.
    const size_t dqt = bytes.find("\xFF\xDB");
    ASSERT_NE(dqt, std::string::npos);
    EXPECT_EQ(uint8_t(bytes[dqt + 4]), 0);  // 8-bit table 0
    EXPECT_EQ(uint8_t(bytes[dqt + 5]), 3);
}

TEST(Jpeg, StridedViewWritesLikeItsPackedCopy)
{
    TempDir dir;
    const Image rgb = makeRgbImage(40, 20);
    Image rgbx(40, 20, 4);  // same pixels with a fourth byte
    for (int32_t y = 0; y < 20; ++y)
        for (int32_t x = 0; x < 40; ++x) {
            std::memcpy(rgbx.pixel(x, y), rgb.pixel(x, y), 3);
            rgbx.pixel(x, y)[3] = 0xEE;
        }
    writeJpeg(rgb, dir.file("a.jpg"));
    writeJpeg(rgbx, dir.file("b.jpg"));
    EXPECT_EQ(testutil::readFile(dir.file("a.jpg")), testutil::readFile(dir.file("b.jpg")));
}

TEST(Jpeg, DashWritesToStandardOutput)
{
    TempDir dir;
    const Image src = makeRgbImage(24, 24);
    writeJpeg(src, dir.file("file.jpg"));

    const std::string captured = dir.file("stdout.jpg");
    std::fflush(stdout);
    const int saved = dup(1);
    FILE* sink = std::fopen(captured.c_str(), "wb");
    ASSERT_NE(sink, nullptr);
    dup2(fileno(sink), 1);
    std::string error;
    try {
        writeJpeg(src, "-");
    } catch (const std::exception& e) {
        error = e.what();
    }
    std::fflush(stdout);
    dup2(saved, 1);
    close(saved);
    std::fclose(sink);
    EXPECT_EQ(error, "");
    EXPECT_EQ(testutil::readFile(captured), testutil::readFile(dir.file("file.jpg")));
    EXPECT_EQ(openFile("-", "rb"), stdout);
}

TEST(Jpeg, OpenFailuresNameFileAndMode)
{
    TempDir dir;
    const std::string missing = dir.file("missing.jpg");
    EXPECT_EQ(errorOf([&] { readJpeg(missing); }),
              "Error opening file '" + missing + "' (with mode 'rb'): No such file or directory");
    const std::string unwritable = dir.file("no/such/dir/out.jpg");
    EXPECT_EQ(errorOf([&] { writeJpeg(makeRgbImage(8, 8), unwritable); }),
              "Error opening file '" + unwritable + "' (with mode 'wb'): No such file or directory");
}

TEST(Jpeg, GreyScaleIsRefused)
{
    TempDir dir;
    // A PPM through cjpeg's grey-scale conversion gives a one-component JPEG.
    const Image src = makeRgbImage(16, 16);
    const std::string ppm = dir.file("in.ppm");
    testutil::writeFile(ppm, "P6\n16 16\n255\n" + std::string(reinterpret_cast<const char*>(src.data), src.byteSize()));
    const std::string grey = dir.file("grey.jpg");
    ASSERT_EQ(std::system(("cjpeg -grayscale -outfile '" + grey + "' '" + ppm + "'").c_str()), 0);
    EXPECT_EQ(errorOf([&] { readJpeg(grey); }), "can not open JPEG with color format other than RGB");
}

TEST(Jpeg, DamagedFilesThrowTheLibraryMessage)
{
    TempDir dir;
    const std::string good = dir.file("good.jpg");
    writeJpeg(makeRgbImage(64, 48), good);
    const std::string bytes = testutil::readFile(good);
    const std::string path = dir.file("bad.jpg");
    const std::string prefix = "Error reading JPEG file '" + path + "': ";

    const struct {
        std::string content;
        std::string message;
    } cases[] = {
        {"", prefix + "Empty input file"},
        {"GIF89a not a jpeg", prefix + "Not a JPEG file: starts with 0x47 0x49"},
        {bytes.substr(0, 2), prefix + "Premature end of JPEG file"},
        {bytes.substr(0, bytes.size() / 2), prefix + "Premature end of JPEG file"},
        {bytes.substr(0, bytes.size() - 3), prefix + "Premature end of JPEG file"},
    };
    for (const auto& c : cases) {
        testutil::writeFile(path, c.content);
        EXPECT_EQ(errorOf([&] { readJpeg(path); }), c.message) << c.content.size() << " bytes";
    }
    // Every cut of the file fails cleanly with the reader's prefix.
    for (size_t length = 0; length + 2 < bytes.size(); length += 37) {
        testutil::writeFile(path, bytes.substr(0, length));
        EXPECT_EQ(errorOf([&] { readJpeg(path); }).rfind(prefix, 0), 0u) << length;
    }
}

TEST(Jpeg, HugeDeclaredSizeIsRefusedBeforeDecoding)
{
    TempDir dir;
    const std::string good = dir.file("good.jpg");
    writeJpeg(makeRgbImage(16, 16), good);
    std::string bytes = testutil::readFile(good);
    // Patch the frame header to claim 65000 x 65000 pixels (12.7 GB of RGB).
    const size_t sof = bytes.find("\xFF\xC0");
    ASSERT_NE(sof, std::string::npos);
    bytes[sof + 5] = char(0xFD);
    bytes[sof + 6] = char(0xE8);
    bytes[sof + 7] = char(0xFD);
    bytes[sof + 8] = char(0xE8);
    const std::string path = dir.file("huge.jpg");
    testutil::writeFile(path, bytes);
    EXPECT_EQ(errorOf([&] { readJpeg(path); }), "Image size 65000x65000 is too large");
}

}  // namespace
