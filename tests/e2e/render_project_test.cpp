// Render jobs on synthetic captures made by tessara-make-capture from the
// bundled panoramas: outputs by name and size in LDR and HDR mode, the
// metadata the EXR output carries, the logo, the small-width naming, the
// upside-down turn, the width messages, and failures that leave no files.
#include <gtest/gtest.h>

#include <ImfInputFile.h>
#include <ImfStandardAttributes.h>
#include <ImfStringAttribute.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "E2eImages.h"
#include "RunProgram.h"
#include "image/Jpeg.h"
#include "image/OpenExr.h"
#include "image/Radiance.h"

namespace fs = std::filesystem;

namespace {

void writeText(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

// Mean of the 8-bit values of rows [y0, y1) of an RGB image.
double meanOfRows(const Image& rgb, int y0, int y1)
{
    double sum = 0;
    for (int y = y0; y < y1; ++y)
        for (int x = 0; x < rgb.width * 3; ++x)
            sum += rgb.row(y)[x];
    return sum / (double(y1 - y0) * rgb.width * 3);
}

// Captures are made once for all tests: small images (a tenth of the full
// size) keep every render to a few seconds.
class Capture : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dir_ = new TempDir;
        const std::string maker = binPath("tessara-make-capture");
        const std::string panoramas = std::string(TESSARA_SOURCE_DIR) + "/tests/data/panoramas/";
        const auto make = [&](std::vector<std::string> args) {
            const RunResult r = runProgram(args);
            if (r.status != 0)
                ADD_FAILURE() << "capture generation failed: " << r.err;
        };
        make({maker, panoramas + "courtyard.exr", *dir_ / "ldr", "--scale", "0.1", "--supersample", "1", "--tsp"});
        make({maker, panoramas + "city.exr", *dir_ / "hdr", "--hdr", "--scale", "0.1", "--supersample", "1",
              "--tsp"});
        // Two rings: 13 images, six slots.
        make({maker, panoramas + "courtyard.exr", *dir_ / "rings", "--layout", "tworing", "--scale", "0.05",
              "--supersample", "1"});
    }
    static void TearDownTestSuite() { delete dir_; }
    static std::string capture(const std::string& name) { return *dir_ / name; }

    TempDir out;
    static TempDir* dir_;
};
TempDir* Capture::dir_ = nullptr;

const char* const kFaces[] = {"r", "l", "u", "d", "b", "f"};

}  // namespace

TEST_F(Capture, LdrCaptureWritesTheEightBitOutputs)
{
    const RunResult r = runRenderer({capture("ldr/capture.pts"), "--er-width", "2400", "--er-jpg", "--cf-jpg",
                                     "--er-hdr", "--er-exr", "--cf-exr", "--output-prefix", out / "pano"});
    ASSERT_EQ(r.status, 0) << r.err;
    // JPEG sources render in LDR mode: the HDR switches do nothing.
    std::set<std::string> expected{"pano.jpg", "pano thumbnail.jpg"};
    for (const char* f : kFaces)
        expected.insert(std::string("pano_") + f + ".jpg");
    EXPECT_EQ(filesIn(out.path()), expected);
    EXPECT_EQ(jpegSize(out / "pano.jpg"), (Size{2400, 1200}));
    EXPECT_EQ(jpegSize(out / "pano thumbnail.jpg"), (Size{1000, 500}));
    for (const char* f : kFaces)
        EXPECT_EQ(jpegSize(out / (std::string("pano_") + f + ".jpg")), (Size{600, 600})) << f;

    // The listing: each of the six images with its 14 values.
    const std::regex listed("capture-0[0-5]\\.jpg( -?[0-9.e+-]+){14} ");
    int listedLines = 0;
    std::istringstream lines(r.err);
    for (std::string line; std::getline(lines, line);)
        listedLines += std::regex_match(line, listed);
    EXPECT_EQ(listedLines, 6) << r.err;
    // --cf-exr asks for tile-friendly faces even where it writes nothing.
    EXPECT_EQ(countLinesWith(r.err, "Adjusting output cubeface width from 600 to 600 = 300 * 2^1."), 1) << r.err;
    EXPECT_EQ(countLinesWith(r.err, "Adjusting output equirect width"), 0);
}

TEST_F(Capture, TspDocumentAsInput)
{
    // A document names camera raw files (<stem>-<slot, two digits>-<ev>.cr2), whose
    // embedded JPEG preview dcraw extracts. A stand-in dcraw that prints the
    // file itself lets our JPEG sources pose as those raw files.
    fs::create_directory(out / "tsp");
    fs::copy_file(capture("ldr/capture.tsp"), out / "tsp/capture.tsp");
    for (int slot = 0; slot < 6; ++slot)
        fs::copy_file(capture("ldr/capture-0" + std::to_string(slot) + ".jpg"),
                      out / ("tsp/capture-0" + std::to_string(slot) + "-0.cr2"));
    fs::create_directory(out / "tools");
    writeText(out / "tools/dcraw", "#!/bin/sh\n# dcraw -e -c FILE: the preview of FILE on standard output\nexec cat \"$3\"\n");
    fs::permissions(out / "tools/dcraw", fs::perms::owner_all);
    const char* path = std::getenv("PATH");
    const RunResult r = runRenderer({out / "tsp/capture.tsp", "--er-width", "1210", "--er-jpg"},
                                    {"PATH=" + (out / "tools") + ":" + (path ? path : "/usr/bin:/bin")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(countLinesWith(r.err, "capture-00-0.cr2 "), 1) << r.err;
    // Six slot entries: five slots, so widths are multiples of 20.
    EXPECT_EQ(countLinesWith(r.err, "Adjusting output equirect width by -10 pixels -> outW = 1200."), 1) << r.err;
    EXPECT_EQ(jpegSize(out / "tsp/capture.jpg"), (Size{1200, 600}));
    // Below 2000 no thumbnail.
    EXPECT_FALSE(fs::exists(out / "tsp/capture thumbnail.jpg"));
}

TEST_F(Capture, SmallWidthWithLogo)
{
    // A yellow logo: the nadir band of the output turns yellow.
    Image logo(256, 256, 3);
    for (int64_t i = 0; i < 256 * 256; ++i) {
        logo.data[i * 3] = 230;
        logo.data[i * 3 + 1] = 200;
        logo.data[i * 3 + 2] = 30;
    }
    writeJpeg(logo, out / "logo.jpg");
    const RunResult plain = runRenderer({capture("ldr/capture.pts"), "--er-width", "1000", "--er-jpg",
                                         "--output-prefix", out / "plain"});
    const RunResult withLogo = runRenderer({capture("ldr/capture.pts"), "--er-width", "1000", "--er-jpg", "--logo",
                                            out / "logo.jpg", "--output-prefix", out / "logo"});
    ASSERT_EQ(plain.status, 0) << plain.err;
    ASSERT_EQ(withLogo.status, 0) << withLogo.err;
    // 1000 wide: the panorama takes the thumbnail's name, and no thumbnail is made.
    EXPECT_EQ(filesIn(out.path()), (std::set<std::string>{"logo.jpg", "plain thumbnail.jpg", "logo thumbnail.jpg"}));
    const Image a = readJpeg(out / "plain thumbnail.jpg");
    const Image b = readJpeg(out / "logo thumbnail.jpg");
    ASSERT_EQ(b.width, 1000);
    ASSERT_EQ(b.height, 500);
    // The lowest 20 rows lie inside the 18-degree nadir patch (25 rows): no
    // source image reaches down there, so they are dark without a logo and
    // close to the logo's mean value (153) with it. The top rows are untouched.
    EXPECT_LT(meanOfRows(a, 480, 500), 20.0);
    EXPECT_GT(meanOfRows(b, 480, 500), 120.0);
    EXPECT_NEAR(meanOfRows(a, 0, 400), meanOfRows(b, 0, 400), 0.5);
}

TEST_F(Capture, HdrCaptureExrCarriesThumbnailAndProject)
{
    const RunResult r = runRenderer({capture("hdr/capture.pts"), "--er-width", "2400", "--er-hdr", "--er-exr",
                                     "--exr-compression", "zip", "--output-prefix", out / "pano"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(filesIn(out.path()), (std::set<std::string>{"pano.hdr", "pano.exr", "pano thumbnail.jpg"}));
    EXPECT_EQ(jpegSize(out / "pano thumbnail.jpg"), (Size{1000, 500}));
    const Image hdr = readRadiance(out / "pano.hdr");
    EXPECT_EQ(hdr.width, 2400);
    EXPECT_EQ(hdr.height, 1200);

    registerExrAttributeTypes();
    {
        Imf::InputFile file((out / "pano.exr").c_str());
        const Imf::Header& h = file.header();
        EXPECT_EQ(h.dataWindow().max.x, 2399);
        EXPECT_EQ(h.dataWindow().max.y, 1199);
        // A pts input quotes the .tsp document beside it.
        const auto* meta = h.findTypedAttribute<Imf::StringAttribute>("tessaraMetaData");
        ASSERT_NE(meta, nullptr);
        EXPECT_EQ(meta->value(), readFile(capture("hdr/capture.tsp")));
        const auto* preview = h.findTypedAttribute<TessaraBinaryAttribute>("tessaraJpegPreview");
        ASSERT_NE(preview, nullptr);
        EXPECT_EQ(preview->value(), readFile(out / "pano thumbnail.jpg"));
    }
    // The EXR holds the same panorama as the .hdr (see ImageInput for the bounds).
    const RelativeError e = compareRgbe(hdr, readExr(out / "pano.exr"));
    EXPECT_LT(e.max, 1.0 / 64);
    EXPECT_LT(e.mean, 1.0 / 512);

    // Our .hdr output renders again.
    const RunResult again = runRenderer({out / "pano.hdr", "--er-jpg", "--output-prefix", out / "again"});
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(jpegSize(out / "again.jpg"), (Size{2400, 1200}));
}

TEST_F(Capture, UpsideDownCaptureIsTurned)
{
    // The same capture with an orientation line, once level and once with a
    // fourth value above 90; roll and pitch are 0, so negating them changes
    // nothing and the second panorama is exactly the first turned by 180 degrees.
    const std::string pts = readFile(capture("hdr/capture.pts"));
    writeText(capture("hdr/level.pts"), pts + "#orientation_abs_slot1 y0 r0 p0 t0\n");
    writeText(capture("hdr/flipped.pts"), pts + "#orientation_abs_slot1 y0 r0 p0 t180\n");
    const RunResult level = runRenderer({capture("hdr/level.pts"), "--er-width", "1200", "--er-hdr",
                                         "--output-prefix", out / "level"});
    const RunResult flipped = runRenderer({capture("hdr/flipped.pts"), "--er-width", "1200", "--er-hdr",
                                           "--output-prefix", out / "flipped"});
    ASSERT_EQ(level.status, 0) << level.err;
    ASSERT_EQ(flipped.status, 0) << flipped.err;
    EXPECT_EQ(countLinesWith(level.err, " upside_down: "), 0);
    EXPECT_EQ(countLinesWith(flipped.err, " upside_down: "), 1) << flipped.err;
    const Image a = readRadiance(out / "level.hdr");
    const Image b = readRadiance(out / "flipped.hdr");
    ASSERT_EQ(a.width, 1200);
    ASSERT_EQ(b.width, 1200);
    int mismatches = 0;
    for (int y = 0; y < a.height && mismatches < 10; ++y)
        for (int x = 0; x < a.width && mismatches < 10; ++x)
            if (std::memcmp(a.pixel(x, y), b.pixel(a.width - 1 - x, a.height - 1 - y), 4) != 0)
                ++mismatches;
    EXPECT_EQ(mismatches, 0);
}

TEST_F(Capture, SixSlotWidthAdjustmentAndMissingSource)
{
    // The two-ring script alone, without its images: the width is adjusted
    // before the first source image is opened, which then fails.
    fs::create_directory(out / "rings");
    fs::copy_file(capture("rings/capture.pts"), out / "rings/capture.pts");
    const RunResult r = runRenderer({out / "rings/capture.pts", "--er-width", "10000", "--er-jpg"});
    EXPECT_EQ(countLinesWith(r.err, "Adjusting output equirect width by -16 pixels -> outW = 9984."), 1) << r.err;
    expectCleanFailure(r, "capture-00.jpg");
    EXPECT_EQ(filesIn(out / "rings"), (std::set<std::string>{"capture.pts"}));
}

TEST_F(Capture, CorruptProjectsFailCleanly)
{
    // A document that is not JSON, one with a key missing, and a pts script
    // without any image line.
    writeText(out / "broken.tsp", "{\"slots\": {\"0\": ");
    expectCleanFailure(runRenderer({out / "broken.tsp", "--er-jpg"}), "broken.tsp");
    writeText(out / "empty.tsp", "{}");
    expectCleanFailure(runRenderer({out / "empty.tsp", "--er-jpg"}), "");
    writeText(out / "empty.pts", "# nothing here\np f2 w8000 h4000 v360\n");
    expectCleanFailure(runRenderer({out / "empty.pts", "--er-jpg"}), "empty.pts");
    expectCleanFailure(runRenderer({out / "missing.pts", "--er-jpg"}), "missing.pts");
    EXPECT_EQ(filesIn(out.path()), (std::set<std::string>{"broken.tsp", "empty.tsp", "empty.pts"}));
}

TEST_F(Capture, FailedOutputLeavesNoPartialFile)
{
    // The EXR output cannot be put in place: the .hdr and the thumbnail before
    // it are complete, and no temporary file is left.
    fs::create_directory(out / "pano.exr");
    const RunResult r = runRenderer({capture("hdr/capture.pts"), "--er-width", "2000", "--er-hdr", "--er-exr",
                                     "--output-prefix", out / "pano"});
    expectCleanFailure(r, "pano.exr");
    EXPECT_EQ(filesIn(out.path()), (std::set<std::string>{"pano.hdr", "pano thumbnail.jpg"}));
    EXPECT_EQ(readRadiance(out / "pano.hdr").width, 2000);

    // An output directory that does not exist fails at the first file.
    expectCleanFailure(runRenderer({capture("ldr/capture.pts"), "--er-width", "2000", "--er-jpg", "--output-prefix",
                                    out / "no/such/dir/pano"}),
                       "no/such/dir/pano");
}
