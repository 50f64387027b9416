// Render jobs whose input is an equirect image this program wrote: every
// output kind with its name and size, the round trip through our own .hdr and
// .exr files, the tonemapping-only path, and clean failures.
#include <gtest/gtest.h>

#include <ImfEnvmap.h>
#include <ImfEnvmapAttribute.h>
#include <ImfInputFile.h>
#include <ImfStandardAttributes.h>
#include <ImfTiledRgbaFile.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "E2eImages.h"
#include "RunProgram.h"
#include "image/OpenExr.h"
#include "image/Radiance.h"

namespace {

class ImageInput : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dir_ = new TempDir;
        panorama_ = new Image(syntheticEquirect(2400, 1200));
        writeHdrFile(*dir_ / "in.hdr", *panorama_);
    }
    static void TearDownTestSuite()
    {
        delete panorama_;
        delete dir_;
    }
    static std::string input() { return *dir_ / "in.hdr"; }

    TempDir out;  // per test
    static TempDir* dir_;
    static Image* panorama_;
};
TempDir* ImageInput::dir_ = nullptr;
Image* ImageInput::panorama_ = nullptr;

}  // namespace

TEST_F(ImageInput, RadianceAndJpegOutputs)
{
    const RunResult r = runRenderer({input(), "--er-hdr", "--er-jpg", "--cf-jpg", "--er-width", "1000",
                                     "--output-prefix", out / "pano"});
    ASSERT_EQ(r.status, 0) << r.err;
    // The width option does not apply to an image input; the sizes are the file's.
    EXPECT_EQ(r.err.find("Adjusting output equirect width"), std::string::npos);
    EXPECT_EQ(filesIn(out.path()), (std::set<std::string>{"pano.hdr", "pano.jpg", "pano thumbnail.jpg", "pano_r.jpg",
                                                           "pano_l.jpg", "pano_u.jpg", "pano_d.jpg", "pano_b.jpg",
                                                           "pano_f.jpg"}));
    // Nothing touched the pixels between reading and writing: the file is exact.
    const Image hdr = readRadiance(out / "pano.hdr");
    ASSERT_EQ(hdr.width, 2400);
    ASSERT_EQ(hdr.height, 1200);
    EXPECT_EQ(std::memcmp(hdr.data, panorama_->data, hdr.byteSize()), 0);
    EXPECT_EQ(jpegSize(out / "pano.jpg"), (Size{2400, 1200}));
    EXPECT_EQ(jpegSize(out / "pano thumbnail.jpg"), (Size{1000, 500}));
    for (const char* face : {"r", "l", "u", "d", "b", "f"})
        EXPECT_EQ(jpegSize(out / (std::string("pano_") + face + ".jpg")), (Size{600, 600})) << face;
    for (const char* stage : {" read hdr/exr: ", " save (equirect HDR): ", " save (equirect JPG): ", " thumbnail: "})
        EXPECT_EQ(countLinesWith(r.err, stage), 1) << stage << "\n" << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_TRUE(takeOrphansNamed("Xvfb").empty());
}

TEST_F(ImageInput, ExrOutputCarriesThePreviewAndReadsBack)
{
    const RunResult r = runRenderer({input(), "--er-exr", "--exr-compression", "zip", "--output-prefix", out / "pano"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(filesIn(out.path()), (std::set<std::string>{"pano.exr", "pano thumbnail.jpg"}));

    registerExrAttributeTypes();
    {
        Imf::InputFile file((out / "pano.exr").c_str());
        const Imf::Header& h = file.header();
        EXPECT_EQ(h.dataWindow().max.x, 2399);
        EXPECT_EQ(h.dataWindow().max.y, 1199);
        EXPECT_EQ(h.compression(), Imf::ZIPS_COMPRESSION);
        ASSERT_TRUE(Imf::hasEnvmap(h));
        EXPECT_EQ(Imf::envmap(h), Imf::ENVMAP_LATLONG);
        const auto* preview = h.findTypedAttribute<TessaraBinaryAttribute>("tessaraJpegPreview");
        ASSERT_NE(preview, nullptr);
        EXPECT_EQ(preview->value(), readFile(out / "pano thumbnail.jpg"));
        // An image input has no project document to embed.
        EXPECT_TRUE(h.find("tessaraMetaData") == h.end());
    }
    // RGBE (8-bit mantissa) fits into half (11-bit significand) for these
    // values, so the EXR holds the panorama up to the rounding of the way
    // back to RGBE: one step of an 8-bit mantissa whose top bit is set is
    // under 1/128 relative; the mean stays far below that.
    const Image exr = readExr(out / "pano.exr");
    const RelativeError e = compareRgbe(*panorama_, exr);
    EXPECT_LT(e.max, 1.0 / 64);
    EXPECT_LT(e.mean, 1.0 / 512);

    // Our own .exr is a valid input again, and its .hdr output carries it on.
    const RunResult again = runRenderer({out / "pano.exr", "--er-hdr", "--output-prefix", out / "again"});
    ASSERT_EQ(again.status, 0) << again.err;
    const RelativeError e2 = compareRgbe(exr, readRadiance(out / "again.hdr"));
    EXPECT_EQ(e2.max, 0.0);  // RGBE read from the EXR is written unchanged
    EXPECT_TRUE(takeOrphansNamed("Xvfb").empty());
}

TEST_F(ImageInput, CubeMapExr)
{
    const RunResult r = runRenderer({input(), "--cf-exr", "--cf-width", "500", "--output-prefix", out / "cube"});
    ASSERT_EQ(r.status, 0) << r.err;
    // The message is printed even though nothing changes.
    EXPECT_EQ(countLinesWith(r.err, "Adjusting output cubeface width from 500 to 500 = 500 * 2^0."), 1) << r.err;
    EXPECT_EQ(filesIn(out.path()), (std::set<std::string>{"cube.exr", "cube thumbnail.jpg"}));
    Imf::TiledRgbaInputFile file((out / "cube.exr").c_str());
    EXPECT_EQ(file.dataWindow().max.x, 499);
    EXPECT_EQ(file.dataWindow().max.y, 6 * 500 - 1);  // six faces stacked
    ASSERT_TRUE(Imf::hasEnvmap(file.header()));
    EXPECT_EQ(Imf::envmap(file.header()), Imf::ENVMAP_CUBE);
    EXPECT_EQ(file.levelMode(), Imf::MIPMAP_LEVELS);
    EXPECT_EQ(file.tileXSize(), 500u);
}

TEST_F(ImageInput, TilePyramidIntoADirectoryPrefix)
{
    const std::string prefix = out / "tiles/";
    const RunResult r = runRenderer({input(), "--cf-jpg", "--cf-width", "1000", "--output-prefix", prefix});
    ASSERT_EQ(r.status, 0) << r.err;
    // A directory prefix always rounds the face width, and gets no thumbnail.
    EXPECT_EQ(countLinesWith(r.err, "Adjusting output cubeface width from 1000 to 1000 = 500 * 2^1."), 1) << r.err;
    EXPECT_TRUE(filesIn(out.path()).empty());
    // 1000 splits into 500-pixel tiles: level 1 holds 2 x 2 tiles, level 0 one.
    std::set<std::string> expected;
    for (const char* face : {"r", "l", "u", "d", "b", "f"}) {
        expected.insert(std::string("0_") + face + "_00_00.jpg");
        for (const char* rc : {"00_00", "00_01", "01_00", "01_01"})
            expected.insert(std::string("1_") + face + "_" + rc + ".jpg");
    }
    EXPECT_EQ(filesIn(prefix), expected);
    EXPECT_EQ(jpegSize(prefix + "1_d_01_01.jpg"), (Size{500, 500}));
    EXPECT_EQ(jpegSize(prefix + "0_f_00_00.jpg"), (Size{500, 500}));
}

TEST_F(ImageInput, SmallPanoramaTakesTheThumbnailName)
{
    writeHdrFile(out / "small.hdr", syntheticEquirect(1000, 500));
    const RunResult r = runRenderer({out / "small.hdr", "--er-jpg"});
    ASSERT_EQ(r.status, 0) << r.err;
    // Below 2000 no thumbnail is made, and the panorama itself takes its name.
    EXPECT_EQ(filesIn(out.path()), (std::set<std::string>{"small.hdr", "small thumbnail.jpg"}));
    EXPECT_EQ(jpegSize(out / "small thumbnail.jpg"), (Size{1000, 500}));
}

TEST_F(ImageInput, UnsupportedSizeIsOnlyToneMapped)
{
    // One colour everywhere keeps the run-length encoded file small.
    writeHdrFile(out / "odd.hdr", syntheticEquirect(8001, 4000, true));
    const RunResult r = runRenderer({out / "odd.hdr", "--er-hdr", "--er-exr", "--er-jpg", "--cf-jpg"});
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(countLinesWith(r.err, "can only reproject equirect hdr images that have been rendered with this tool "
                                    "(unsupported image dimensions 8001x4000) -> tonemapping only"),
              1)
        << r.err;
    EXPECT_EQ(countLinesWith(r.err, "Error ("), 0);
    EXPECT_EQ(filesIn(out.path()), (std::set<std::string>{"odd.hdr", "odd.jpg"}));
    EXPECT_EQ(jpegSize(out / "odd.jpg"), (Size{8001, 4000}));
    EXPECT_TRUE(takeOrphansNamed("Xvfb").empty());
}

TEST_F(ImageInput, FailuresLeaveNoFiles)
{
    // Missing input.
    expectCleanFailure(runRenderer({out / "missing.hdr", "--er-jpg"}), "missing.hdr");
    expectCleanFailure(runRenderer({out / "missing.exr", "--er-jpg"}), "missing.exr");

    // Truncated input: the first half of a valid file.
    const std::string bytes = readFile(input());
    std::ofstream(out / "cut.hdr", std::ios::binary).write(bytes.data(), std::streamsize(bytes.size() / 2));
    expectCleanFailure(runRenderer({out / "cut.hdr", "--er-jpg"}), "cut.hdr");
    EXPECT_EQ(filesIn(out.path()), (std::set<std::string>{"cut.hdr"}));

    // Output directory missing: the first file written fails.
    expectCleanFailure(runRenderer({input(), "--er-hdr", "--output-prefix", out / "no/such/dir/pano"}),
                       "no/such/dir/pano");

    // The Radiance output cannot be put in place (a directory holds its name):
    // the error names it, and its temporary file is gone.
    std::filesystem::create_directory(out / "pano.hdr");
    expectCleanFailure(runRenderer({input(), "--er-hdr", "--output-prefix", out / "pano"}), "pano.hdr");
    EXPECT_EQ(filesIn(out.path()), (std::set<std::string>{"cut.hdr", "pano thumbnail.jpg"}));
}
