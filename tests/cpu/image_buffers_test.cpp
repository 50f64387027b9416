// Image views, the RGBE encoding, the camera colour matrices and the atomic
// output file.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <random>
#include <stdexcept>
#include <vector>

#include "image/Colour.h"
#include "image/ImageView.h"
#include "image/OutputFile.h"
#include "image/Rgbe.h"
#include "support/Support.h"

using support::errorOf;

TEST(ImageView, SubViewsAndTheirBounds)
{
    Image img(10, 6, 4);
    EXPECT_EQ(img.view().stride(), 40);
    EXPECT_EQ(img.data()[img.byteSize() - 1], 0);  // zero-filled
    const ImageView part = img.view().subView(2, 3, -1, 0);  // zero or negative sizes count back from the far edge
    EXPECT_EQ(part.width(), 7);
    EXPECT_EQ(part.height(), 3);
    EXPECT_EQ(part.stride(), 40);
    // A write through a sub-view of a sub-view lands at the right place of
    // the image and nowhere else.
    img.mutableView().subView(2, 3, -1, 0).subView(1, 1, 2, 2).pixel(1, 1)[2] = 77;
    EXPECT_EQ(part.pixel(2, 2)[2], 77);
    EXPECT_EQ(std::count(img.data(), img.data() + img.byteSize(), 0), int64_t(img.byteSize()) - 1);
    EXPECT_EQ(img.pixel(4, 5)[2], 77);

    const struct {
        int x, y, w, h;
        const char* error;
    } bad[] = {
        {5, 0, 6, 2, "6x2@5x0 not in 10x6"},
        {0, 4, 3, 3, "3x3@0x4 not in 10x6"},
        {-1, 0, 2, 2, "2x2@-1x0 not in 10x6"},
        {0, -2, 2, 2, "2x2@0x-2 not in 10x6"},
        {3, 2, -7, 1, "empty ROI (0x1)"},
    };
    for (const auto& c : bad)
        EXPECT_EQ(errorOf([&] { img.view().subView(c.x, c.y, c.w, c.h); }),
                  std::string("Access out of bounds in ImageView::subView: ") + c.error);
    EXPECT_THROW(Image(0, 5, 4), std::runtime_error);
    EXPECT_THROW(Image(100000, 100000, 4), std::runtime_error);
}

TEST(Rgbe, DecodeAndEncode)
{
    const struct { uint8_t in[4]; float out[3]; } decode[] = {
        {{1, 128, 255, 136}, {1.0f, 128.0f, 255.0f}},     // E = 136: the bytes are the values
        {{128, 64, 1, 129}, {1.0f, 0.5f, 1.0f / 128}},     // no half-step offset
        {{200, 100, 50, 0}, {0, 0, 0}},                    // E = 0 is black
    };
    for (const auto& d : decode) {
        float rgb[3];
        rgbeToFloat(d.in, rgb);
        for (int c = 0; c < 3; ++c)
            EXPECT_EQ(rgb[c], d.out[c]) << int(d.in[3]) << " " << c;
    }
    EXPECT_EQ(rgbeExponentTable()[0], float(std::ldexp(1.0, -136)));  // denormal, not 0

    const struct { float in[3]; uint8_t out[4]; } encode[] = {
        {{1.0f, 0.3f, 0.0f}, {128, 38, 0, 129}},          // 38.4 truncates
        {{0.25f, 0.5f, 0.999f}, {64, 128, 255, 128}},      // the largest channel may be any
        {{1.0f, -0.5f, 0.0f}, {128, 192, 0, 129}},         // negatives keep their low 8 bits
        {{9e-33f, 5e-33f, 0.0f}, {0, 0, 0, 0}},            // below 1e-32 is black
    };
    for (const auto& e : encode) {
        uint8_t p[4];
        floatToRgbe(e.in[0], e.in[1], e.in[2], p);
        EXPECT_EQ(std::vector<uint8_t>(p, p + 4), std::vector<uint8_t>(e.out, e.out + 4)) << e.in[0];
    }

    // Every pixel the encoder makes (largest byte >= 128) survives decode +
    // encode for every exponent above the cut-off.
    std::mt19937 rng(7);
    for (int e = 23; e < 256; ++e)
        for (int top = 128; top < 256; top += 3) {
            const uint8_t pixel[4] = {uint8_t(rng() % (top + 1)), uint8_t(top), uint8_t(rng() % (top + 1)), uint8_t(e)};
            float rgb[3];
            uint8_t out[4];
            rgbeToFloat(pixel, rgb);
            floatToRgbe(rgb[0], rgb[1], rgb[2], out);
            ASSERT_EQ(0, std::memcmp(pixel, out, 4)) << "E " << e << " top " << top;
        }

    // Non-finite input (from half values of an OpenEXR file) gives some pixel
    // without undefined behaviour (checked by the sanitizer build).
    uint8_t p[4];
    floatToRgbe(std::numeric_limits<float>::infinity(), 1.0f, 0.0f, p);
    floatToRgbe(NAN, NAN, NAN, p);
    floatToRgbe(1.0f, -1e30f, 0.0f, p);
}

// Shrinking an RGBE image: each pixel the mean of its block in linear
// values, rounded to the nearest RGBE value (a mantissa that rounds up to 256
// moves to the next exponent instead of wrapping to 0); black stays black.
TEST(Rgbe, ShrinkAveragesBlocksAndRounds)
{
    Image in(4, 2, 4);
    const uint8_t pixels[8][4] = {
        {128, 64, 0, 129}, {128, 64, 0, 129}, {255, 0, 0, 128}, {255, 0, 0, 128},  // top row
        {128, 64, 0, 129}, {129, 64, 1, 129}, {255, 0, 0, 128}, {0, 0, 0, 0},      // bottom row
    };
    for (int i = 0; i < 8; ++i)
        std::memcpy(in.pixel(i % 4, i / 4), pixels[i], 4);
    const Image out = shrinkRgbe(in, 2);
    ASSERT_EQ(out.width(), 2);
    ASSERT_EQ(out.height(), 1);
    // (128 + 128 + 128 + 129) / 4 = 128.25 of 2^-7: 128; green 64; blue 0.25 rounds to 0.
    EXPECT_EQ(std::vector<uint8_t>(out.pixel(0, 0), out.pixel(0, 0) + 4), (std::vector<uint8_t>{128, 64, 0, 129}));
    // 3 x 255 / 4 = 191.25 of 2^-8: 191.
    EXPECT_EQ(std::vector<uint8_t>(out.pixel(1, 0), out.pixel(1, 0) + 4), (std::vector<uint8_t>{191, 0, 0, 128}));

    uint8_t p[4];
    floatToRgbeRounded(255.7f / 256.0f, 0.0f, 0.0f, p);  // 255.7 rounds to 256 = 128 of the next exponent
    EXPECT_EQ(std::vector<uint8_t>(p, p + 4), (std::vector<uint8_t>{128, 0, 0, 129}));
    EXPECT_THROW(shrinkRgbe(in, 3), std::invalid_argument);
}

// Each camera's colour matrix keeps white white (every row sums to 1);
// widths outside the table have none.
TEST(Colour, CameraMatricesKeepWhite)
{
    for (const int width : {3666, 3753, 3868, 4500, 5856}) {
        const ColourMatrix* m = cameraColourMatrix(width);
        ASSERT_NE(m, nullptr) << width;
        for (size_t r = 0; r < 3; ++r)
            EXPECT_NEAR((*m)[r] + (*m)[3 + r] + (*m)[6 + r], 1.0, 1e-5) << width << ", row " << r;
    }
    EXPECT_EQ(cameraColourMatrix(1234), nullptr);
}

TEST(AtomicOutputFile, FinalNameOnlyEverHoldsACompleteFile)
{
    support::TempDir dir;
    const std::string finalPath = dir / "out.jpg";
    support::writeFile(finalPath, "old");
    {
        AtomicOutputFile out(finalPath);
        EXPECT_EQ(std::filesystem::path(out.tempPath()).parent_path(), std::filesystem::path(dir.path()));
        support::writeFile(out.tempPath(), "new");
        EXPECT_EQ(support::readFile(finalPath), "old");
        out.commit();
    }
    EXPECT_EQ(support::readFile(finalPath), "new");

    std::string temp;
    try {
        AtomicOutputFile out(finalPath);
        temp = out.tempPath();
        support::writeFile(temp, "half a fi");
        throw std::runtime_error("writer failed");
    } catch (const std::runtime_error&) {
    }
    EXPECT_FALSE(std::filesystem::exists(temp));
    EXPECT_EQ(support::readFile(finalPath), "new");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);

    AtomicOutputFile never(dir / "never.exr");  // nothing at the temporary name
    EXPECT_EQ(errorOf([&] { never.commit(); }),
              "Failed to write file '" + (dir / "never.exr") + "': No such file or directory");
}

TEST(AtomicOutputFile, TemporariesOfDeadProcessesOfThisHostAreRemoved)
{
    // A run killed while writing used to leave its temporary file forever.
    // The next writer of the same name removes it, but not the temporary of
    // a live process, of another host (whose process ids say nothing here:
    // every pod of a Kubernetes Job is process 1) nor those of other names.
    support::TempDir dir;
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    ASSERT_GT(child, 0);
    waitpid(child, nullptr, 0);  // its pid now names no process
    const std::string host = temporaryHostTag(), dead = std::to_string(child), live = std::to_string(getppid());
    const std::string deadHere = "out.jpg.tmp-" + host + "-" + dead + "-0badcafe";
    const std::vector<std::string> kept{"out.jpg.tmp-" + host + "-" + live + "-0badcafe",
                                        "out.jpg.tmp-other-" + host + "-" + dead + "-0badcafe",
                                        "other.jpg.tmp-" + host + "-" + dead + "-0badcafe",
                                        deadHere + "x",
                                        "out.jpg.tmp-" + dead,
                                        "out.jpg.tmp-"};
    for (const std::string& name : kept)
        support::writeFile(dir / name, "partial");
    support::writeFile(dir / deadHere, "partial");
    AtomicOutputFile out(dir / "out.jpg");
    for (const std::string& name : kept)
        EXPECT_TRUE(std::filesystem::exists(dir / name)) << name;
    EXPECT_FALSE(std::filesystem::exists(dir / deadHere));

    // Two writers of one name in one process still get different temporaries.
    EXPECT_NE(out.tempPath(), AtomicOutputFile(dir / "out.jpg").tempPath());
    EXPECT_EQ(out.tempPath().find(dir / ("out.jpg.tmp-" + host + "-" + std::to_string(getpid()) + "-")), 0u);
}
