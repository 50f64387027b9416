// The renderer as a user runs it: version and GL report without a display,
// usage errors, every output kind with its name and size from equirect
// images and from synthetic captures, the metadata the EXR output carries,
// the logo, the upside-down turn, the width messages, and failures that end
// with one "Error (" line, leave no partial file and no private X server.
#include <gtest/gtest.h>

#include <ImfInputFile.h>
#include <ImfStringAttribute.h>
#include <ImfTiledRgbaFile.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>

#include <sys/stat.h>
#include <unistd.h>

#include "app/Options.h"
#include "image/FormatText.h"
#include "image/Jpeg.h"
#include "image/OpenExr.h"
#include "image/Radiance.h"
#include "image/Rgbe.h"
#include "passes/CubeFaces.h"
#include "support/Support.h"

namespace fs = std::filesystem;
using namespace support;

namespace {

const char* const kFaces[] = {"r", "l", "u", "d", "b", "f"};

// The equirect JPEG of `prefix`, its thumbnail, six faces and the web viewers' files beside them.
std::set<std::string> jpegOutputs(const std::string& prefix)
{
    std::set<std::string> names{prefix + ".jpg", prefix + " thumbnail.jpg"};
    for (const char* f : kFaces)
        names.insert(prefix + "_" + f + ".jpg");
    for (const char* viewer :
         {"pannellum.json", "marzipano.js", "psv.js", "krpano.xml", "preview.jpg", "preview-strip.jpg"})
        names.insert(prefix + "_" + viewer);
    return names;
}

// A smooth RGBE panorama (about 0.02 to 40, no flat areas), or one colour
// everywhere (small files), written as a Radiance file.
Image writePanorama(const std::string& path, int width, int height, bool flat = false)
{
    Image img(width, height, 4);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const double lon = 2 * M_PI * (x + 0.5) / width, lat = M_PI * (y + 0.5) / height;
            const double base = flat ? 1.0 : std::exp2(6.0 * std::sin(lat) - 4.0);  // bright horizon
            floatToRgbe(float(base * (1.2 + std::cos(lon))), float(base * (1.2 + std::sin(2 * lon))),
                        float(base * (1.2 + std::cos(3 * lat))), img.pixel(x, y));
        }
    std::ofstream out(path, std::ios::binary);
    writeRadiance(out, img);
    return img;
}

std::array<int, 2> jpegSize(const std::string& path)
{
    std::array<int, 2> size{-1, -1};
    errorOf([&] {
        const Image img = readJpeg(path);
        size = {img.width(), img.height()};
    });
    return size;
}

std::set<std::string> filesIn(const std::string& dir)
{
    std::set<std::string> names;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(dir, ec))
        names.insert(entry.path().filename().string());
    return names;
}

void expectNoServerLeft() { EXPECT_TRUE(takeOrphansNamed("Xvfb").empty()) << "an Xvfb outlived the renderer"; }

// Small synthetic captures (a tenth of full size) of the bundled panoramas,
// made by the capture generator into `dir`.
bool makeCaptures(const std::string& dir)
{
    const std::string maker = binPath("tessara-make-capture"), source = sourcePath("data/panoramas/");
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{source + "courtyard.exr", dir + "/ldr", "--scale", "0.1", "--tsp"},
          {source + "city.exr", dir + "/hdr", "--hdr", "--scale", "0.1", "--tsp"},
          {source + "courtyard.exr", dir + "/rings", "--layout", "tworing", "--scale", "0.05"}}) {
        std::vector<std::string> full{maker};
        full.insert(full.end(), args.begin(), args.end());
        full.insert(full.end(), {"--supersample", "1"});
        const RunResult r = runProgram(full);
        if (r.status != 0) {
            std::fprintf(stderr, "capture generation failed: %s\n", r.err.c_str());
            return false;
        }
    }
    return true;
}

// Made once per CTest run (the e2e_captures fixture), else once per process.
std::string captures()
{
    static std::string dir;
    if (dir.empty()) {
        const char* shared = std::getenv("TESSARA_E2E_CAPTURES");
        if (shared && fs::exists(shared)) {
            dir = shared;
        } else {
            static TempDir own;
            EXPECT_TRUE(makeCaptures(own.path()));
            dir = own.path();
        }
    }
    return dir;
}

}  // namespace

TEST(CommandLine, VersionUsageAndTopLevelFailures)
{
    const RunResult version = runRenderer({"in.tsp", "-v", "--bogus"});  // later options are never read
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "version: 21.01.5008\n");
    const RunResult gl = runRenderer({"-V"}, {"USE_GL_CORE="});  // the core profile request gives a context too
    EXPECT_EQ(gl.status, 0) << gl.err;
    EXPECT_TRUE(std::regex_search(gl.out, std::regex("^version: 21.01.5008\nGL_VENDOR:      .+\nGL_RENDERER:    .+\n"
                                                     "GL_VERSION:     [1-9]\\.[0-9].*\nGLSL Version:   .+\n"
                                                     "GL_MAX_TEXTURE_SIZE: [1-9][0-9]+\n([^\n]*\n)*(No memory info available\\.|"
                                                     "Available mem \\(MB\\): -?\\d+|  Render buffer: -?\\d+ / -?\\d+)\n$")))
        << gl.out;

    // Help and version of both programs: standard output, status 0.
    const std::string render = binPath("tessara-render"), batch = binPath("tessara-batch");
    const struct { std::vector<std::string> args; std::string out; } answers[] = {
        {{render, "--help"}, helpText(render)},
        {{render, "x.tsp", "-h", "--bogus"}, helpText(render)},
        {{render, "--version"}, "version: 21.01.5008\n"},
        {{batch, "--force", "-h"}, "Usage: tessara-batch MANIFEST "},
        {{batch, "--version"}, "version: 21.01.5008\n"},
    };
    for (const auto& a : answers) {
        const RunResult r = runProgram(a.args);
        EXPECT_EQ(r.status, 0) << a.args.back();
        EXPECT_EQ(r.out.substr(0, a.out.size()), a.out);
        EXPECT_EQ(r.err, "") << a.args.back();
    }

    // Usage errors go to standard output with the program's path.
    const RunResult unknown = runRenderer({"x.tsp", "--bogus"});
    EXPECT_EQ(unknown.status, 255);
    EXPECT_EQ(unknown.out.rfind("Error: unknown option '--bogus'\nUsage: " + binPath("tessara-render") + " <pts/", 0), 0u)
        << unknown.out;
    EXPECT_EQ(unknown.err, "");
    // Other failures of the options end with the failure line.
    const RunResult bad = runRenderer({"x.tsp", "--er-width", "k8"});
    EXPECT_EQ(bad.status, 255);
    EXPECT_EQ(bad.err, "Error (St16invalid_argument): stoi\n");
    expectNoServerLeft();
}

TEST(CommandLine, InputsThatCannotBeReadAndQtWarnings)
{
    TempDir dir;
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    fs::create_symlink("nothing", dir / "link");
    writeFile(dir / "locked.pts", "");
    fs::permissions(dir / "locked.pts", fs::perms::none);
    const struct { std::string path, what; } inputs[] = {
        {dir.path(), "is a folder"},
        {dir / "missing.tsp", "does not exist"},
        {dir / "fifo", "is not a regular file"},
        {dir / "link", "is a link to a file that does not exist"},
        {dir / "locked.pts", geteuid() == 0 ? "" : "cannot be read: Permission denied"},  // root reads anything
    };
    for (const auto& input : inputs)
        if (!input.what.empty())
            expectCleanFailure(runRenderer({input.path, "--er-jpg"}),
                               "Error (St13runtime_error): '" + input.path + "' " + input.what +
                                   "; expected a pts or tsp project or an equirect image");

    // Qt's notice about a missing XDG_RUNTIME_DIR is dropped; its other warnings are not.
    fs::permissions(dir.path(), fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec);
    const RunResult wrong = runRenderer({"-V"}, {"XDG_RUNTIME_DIR=" + dir.path()});
    EXPECT_EQ(wrong.status, 0);
    EXPECT_EQ(countLinesWith(wrong.err, "QStandardPaths: wrong permissions on runtime directory " + dir.path()), 1)
        << wrong.err;
}

TEST(ImageInput, EveryOutputKindFromAnEquirectImage)
{
    TempDir dir;
    const Image panorama = writePanorama(dir / "in.hdr", 2400, 1200);
    // The prefix's folders are made; Qt says nothing about its runtime folder.
    const RunResult r = runRenderer({dir / "in.hdr", "--er-hdr", "--er-jpg", "--cf-jpg", "--er-exr",
                                     "--exr-compression", "zip", "--er-width", "1000", "--output-prefix",
                                     dir / "new/out/pano"},
                                    {"XDG_RUNTIME_DIR="});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(countLinesWith(r.err, "QStandardPaths"), 0) << r.err;
    for (const char* stage : {" read hdr/exr: ", " save (equirect HDR): ", " save (equirect JPG): ", " thumbnail: "})
        EXPECT_EQ(countLinesWith(r.err, stage), 1) << stage << "\n" << r.err;
    std::set<std::string> expected = jpegOutputs("pano");
    expected.insert({"pano.hdr", "pano.exr"});
    EXPECT_EQ(filesIn(dir / "new/out"), expected);
    // The width option does not apply to an image; nothing touches its pixels.
    const Image hdr = readRadiance(dir / "new/out/pano.hdr");
    ASSERT_EQ(hdr.width(), 2400);
    EXPECT_EQ(std::memcmp(hdr.data(), panorama.data(), hdr.byteSize()), 0);
    EXPECT_EQ(jpegSize(dir / "new/out/pano.jpg"), (std::array<int, 2>{2400, 1200}));
    EXPECT_EQ(jpegSize(dir / "new/out/pano thumbnail.jpg"), (std::array<int, 2>{1000, 500}));
    for (const char* f : kFaces)
        EXPECT_EQ(jpegSize(dir / (std::string("new/out/pano_") + f + ".jpg")), (std::array<int, 2>{600, 600})) << f;

    registerExrAttributeTypes();
    {
        const Imf::Header h = Imf::InputFile((dir / "new/out/pano.exr").c_str()).header();
        EXPECT_EQ(h.compression(), Imf::ZIPS_COMPRESSION);
        EXPECT_EQ(h.typedAttribute<TessaraBinaryAttribute>("tessaraJpegPreview").value(),
                  readFile(dir / "new/out/pano thumbnail.jpg"));
        EXPECT_TRUE(h.find("tessaraMetaData") == h.end());  // no project to quote
    }
    // RGBE fits into half here: the EXR holds the panorama up to the way back
    // to RGBE, under 1/128 relative; the mean far below.
    const Image exr = readExr(dir / "new/out/pano.exr");
    const auto e = rgbeError(panorama, exr);
    EXPECT_LT(e.first, 1.0 / 64);
    EXPECT_LT(e.second, 1.0 / 512);
    // Our own .exr is an input again, and its .hdr carries it on unchanged.
    ASSERT_EQ(runRenderer({dir / "new/out/pano.exr", "--er-hdr", "--output-prefix", dir / "again"}).status, 0);
    EXPECT_EQ(rgbeError(exr, readRadiance(dir / "again.hdr")).first, 0.0);

    // Cube faces as a tiled EXR; the width message is printed though nothing changes.
    const RunResult cube = runRenderer({dir / "in.hdr", "--cf-exr", "--cf-width", "500", "--output-prefix", dir / "cube"});
    ASSERT_EQ(cube.status, 0) << cube.err;
    EXPECT_EQ(countLinesWith(cube.err, "Adjusting output cubeface width from 500 to 500 = 500 * 2^0."), 1) << cube.err;
    EXPECT_EQ(Imf::TiledRgbaInputFile((dir / "cube.exr").c_str()).dataWindow().max.y, 6 * 500 - 1);  // six faces

    // A folder prefix always rounds the face width and gets no thumbnail:
    // 1000 splits into 500-pixel tiles, 2 x 2 on level 1.
    const RunResult tiles = runRenderer({dir / "in.hdr", "--cf-jpg", "--cf-width", "1000", "--output-prefix", dir / "tiles/"});
    ASSERT_EQ(tiles.status, 0) << tiles.err;
    EXPECT_EQ(countLinesWith(tiles.err, "Adjusting output cubeface width from 1000 to 1000 = 500 * 2^1."), 1);
    // And two previews, the viewers' files with index.html and Pannellum's folder of links.
    EXPECT_EQ(filesIn(dir / "tiles").size(), 30u + 2 + 5 + 1);
    EXPECT_EQ(jpegSize(dir / "tiles/1_d_01_01.jpg"), (std::array<int, 2>{500, 500}));
    EXPECT_EQ(jpegSize(dir / "tiles/preview-strip.jpg"), (std::array<int, 2>{6 * 250, 250}));
    EXPECT_TRUE(fs::is_symlink(dir / "tiles/pannellum/3_d_1_1.jpg"));
    EXPECT_TRUE(fs::equivalent(dir / "tiles/pannellum/3_d_1_1.jpg", dir / "tiles/1_d_01_01.jpg"));
    EXPECT_EQ(jpegSize(dir / "tiles/pannellum/1_d_0_0.jpg"), (std::array<int, 2>{250, 250}));
    expectNoServerLeft();
}

TEST(ImageInput, SmallAndUnsupportedSizesAndFailures)
{
    TempDir dir;
    // Below 2000 wide the panorama itself takes the thumbnail's name.
    writePanorama(dir / "small.hdr", 1000, 500);
    ASSERT_EQ(runRenderer({dir / "small.hdr", "--er-jpg"}).status, 0);
    EXPECT_EQ(jpegSize(dir / "small thumbnail.jpg"), (std::array<int, 2>{1000, 500}));
    EXPECT_FALSE(fs::exists(dir / "small.jpg"));

    // A size this program does not render is only tone mapped.
    writePanorama(dir / "odd.hdr", 2010, 1005, true);
    const RunResult odd = runRenderer({dir / "odd.hdr", "--er-hdr", "--er-exr", "--er-jpg", "--cf-jpg"});
    EXPECT_EQ(odd.status, 255);
    EXPECT_EQ(countLinesWith(odd.err, "can only reproject equirect hdr images that have been rendered with this tool "
                                      "(unsupported image dimensions 2010x1005) -> tonemapping only"), 1) << odd.err;
    EXPECT_EQ(countLinesWith(odd.err, "Error ("), 0);
    EXPECT_EQ(jpegSize(dir / "odd.jpg"), (std::array<int, 2>{2010, 1005}));

    const std::string bytes = readFile(dir / "small.hdr");
    writeFile(dir / "cut.hdr", bytes.substr(0, bytes.size() / 2));
    expectCleanFailure(runRenderer({dir / "cut.hdr", "--er-jpg"}), "cut.hdr");
    expectCleanFailure(runRenderer({dir / "missing.exr", "--er-jpg"}), "missing.exr");
    // An output folder that cannot be made fails before the panorama is read.
    expectCleanFailure(runRenderer({dir / "small.hdr", "--er-jpg", "--output-prefix", dir / "odd.hdr/x/pano"}),
                       "Failed to create folder '" + dir / "odd.hdr/x" + "': Not a directory");
    // The Radiance output cannot be put in place: the error names it, no temporary file is left.
    fs::create_directory(dir / "pano.hdr");
    expectCleanFailure(runRenderer({dir / "small.hdr", "--er-hdr", "--output-prefix", dir / "pano"}), "pano.hdr");
    EXPECT_EQ(filesIn(dir.path()), (std::set<std::string>{"small.hdr", "small thumbnail.jpg", "odd.hdr", "odd.jpg",
                                                          "cut.hdr", "pano.hdr"}));
}

// Render jobs on the synthetic captures.
TEST(Capture, LdrCaptureWritesTheEightBitOutputs)
{
    TempDir out;
    const RunResult r = runRenderer({captures() + "/ldr/capture.pts", "--er-width", "2400", "--er-jpg", "--cf-jpg",
                                     "--er-hdr", "--er-exr", "--cf-exr", "--output-prefix", out / "pano"});
    ASSERT_EQ(r.status, 0) << r.err;
    // JPEG sources render in LDR mode: the HDR switches do nothing.
    EXPECT_EQ(filesIn(out.path()), jpegOutputs("pano"));
    EXPECT_EQ(jpegSize(out / "pano.jpg"), (std::array<int, 2>{2400, 1200}));
    EXPECT_EQ(jpegSize(out / "pano_u.jpg"), (std::array<int, 2>{600, 600}));
    // The listing: each of the six images with its 14 values.
    EXPECT_EQ(countMatches(r.err, "capture-0[0-5]\\.jpg( -?[0-9.e+-]+){14} \n"), 6) << r.err;
    // --cf-exr asks for tile-friendly faces even where it writes nothing.
    EXPECT_EQ(countLinesWith(r.err, "Adjusting output cubeface width from 600 to 600 = 300 * 2^1."), 1) << r.err;
    EXPECT_EQ(countLinesWith(r.err, "Adjusting output equirect width"), 0);

    // A document as input names camera raw files (<stem>-<slot>-<ev>.cr2)
    // whose preview dcraw extracts; a stand-in dcraw lets the JPEG sources pose
    // as them. Five slots: widths are multiples of 20; below 2000 no
    // thumbnail.
    fs::create_directories(out / "tsp/tools");
    fs::copy_file(captures() + "/ldr/capture.tsp", out / "tsp/capture.tsp");
    for (int slot = 0; slot < 6; ++slot)
        fs::copy_file(captures() + "/ldr/capture-0" + std::to_string(slot) + ".jpg",
                      out / ("tsp/capture-0" + std::to_string(slot) + "-0.cr2"));
    writeFile(out / "tsp/tools/dcraw", "#!/bin/sh\nexec cat \"$3\"\n");
    fs::permissions(out / "tsp/tools/dcraw", fs::perms::owner_all);
    const RunResult tsp = runRenderer({out / "tsp/capture.tsp", "--er-width", "1210", "--er-jpg"},
                                      {"PATH=" + (out / "tsp/tools") + ":" + std::getenv("PATH")});
    ASSERT_EQ(tsp.status, 0) << tsp.err;
    EXPECT_EQ(countLinesWith(tsp.err, "capture-00-0.cr2 "), 1) << tsp.err;
    EXPECT_EQ(countLinesWith(tsp.err, "Adjusting output equirect width by -10 pixels -> outW = 1200."), 1) << tsp.err;
    EXPECT_EQ(jpegSize(out / "tsp/capture.jpg"), (std::array<int, 2>{1200, 600}));
    EXPECT_FALSE(fs::exists(out / "tsp/capture thumbnail.jpg"));
}

// The lowest 20 rows lie inside the 18-degree patch (25 rows) that no source
// reaches (black) and show the yellow logo instead.
TEST(Capture, LogoCoversTheNadir)
{
    TempDir out;
    Image logo(256, 256, 3);
    for (int64_t i = 0; i < 256 * 256 * 3; ++i)
        logo.data()[i] = uint8_t(i % 3 == 0 ? 230 : i % 3 == 1 ? 200 : 30);
    writeJpeg(logo, out / "logo.jpg");
    ASSERT_EQ(runRenderer({captures() + "/ldr/capture.pts", "--er-width", "1000", "--er-jpg", "--logo", out / "logo.jpg",
                           "--output-prefix", out / "logo"}).status, 0);
    const Image pano = readJpeg(out / "logo thumbnail.jpg");
    ASSERT_EQ(pano.height(), 500);
    double red = 0, blue = 0;
    for (int y = 480; y < 500; ++y)
        for (int x = 0; x < pano.width(); ++x)
            red += pano.pixel(x, y)[0] / (20.0 * pano.width()), blue += pano.pixel(x, y)[2] / (20.0 * pano.width());
    EXPECT_GT(red, 180.0);
    EXPECT_LT(blue, 80.0);
}

TEST(Capture, HdrCaptureExrCarriesThumbnailAndProject)
{
    TempDir out;
    const std::string hdrCapture = captures() + "/hdr/capture.pts";
    const RunResult r = runRenderer({hdrCapture, "--er-width", "2400", "--er-hdr", "--er-exr", "--exr-compression", "zip",
                                     "--output-prefix", out / "pano"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(filesIn(out.path()), (std::set<std::string>{"pano.hdr", "pano.exr", "pano thumbnail.jpg"}));
    const Image hdr = readRadiance(out / "pano.hdr");
    EXPECT_EQ(hdr.width(), 2400);
    registerExrAttributeTypes();  // a pts input quotes the .tsp document beside it
    EXPECT_EQ(Imf::InputFile((out / "pano.exr").c_str()).header().typedAttribute<Imf::StringAttribute>("tessaraMetaData").value(),
              readFile(captures() + "/hdr/capture.tsp"));
    const auto e = rgbeError(hdr, readExr(out / "pano.exr"));
    EXPECT_LT(e.first, 1.0 / 64);
    EXPECT_LT(e.second, 1.0 / 512);

    // With an orientation line whose fourth value is above 90 (roll and pitch
    // 0, so negating them changes nothing) the panorama is the level one
    // turned by 180 degrees.
    const std::string pts = readFile(hdrCapture), dir = captures() + "/hdr/";
    writeFile(dir + "level.pts", pts + "#orientation_abs_slot1 y0 r0 p0 t0\n");
    writeFile(dir + "flipped.pts", pts + "#orientation_abs_slot1 y0 r0 p0 t180\n");
    const RunResult level = runRenderer({dir + "level.pts", "--er-width", "1200", "--er-hdr", "--output-prefix", out / "level"});
    const RunResult flipped =
        runRenderer({dir + "flipped.pts", "--er-width", "1200", "--er-hdr", "--output-prefix", out / "flipped"});
    ASSERT_EQ(level.status, 0) << level.err;
    ASSERT_EQ(flipped.status, 0) << flipped.err;
    EXPECT_EQ(countLinesWith(level.err, " upside_down: "), 0);
    EXPECT_EQ(countLinesWith(flipped.err, " upside_down: "), 1) << flipped.err;
    const Image a = readRadiance(out / "level.hdr"), b = readRadiance(out / "flipped.hdr");
    ASSERT_EQ(b.width(), 1200);
    int mismatches = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x)
            mismatches += std::memcmp(a.pixel(x, y), b.pixel(a.width() - 1 - x, a.height() - 1 - y), 4) != 0;
    EXPECT_EQ(mismatches, 0);
}

TEST(Capture, FailuresLeaveNoPartialFile)
{
    TempDir out;
    // The two-ring script without its images: the six-slot width is adjusted
    // before the first source image is opened, which then fails.
    fs::copy_file(captures() + "/rings/capture.pts", out / "rings.pts");
    const RunResult rings = runRenderer({out / "rings.pts", "--er-width", "10000", "--er-jpg"});
    EXPECT_EQ(countLinesWith(rings.err, "Adjusting output equirect width by -16 pixels -> outW = 9984."), 1) << rings.err;
    expectCleanFailure(rings, "capture-00.jpg");

    // A document that is not JSON, one with keys missing, a script without images, no file.
    writeFile(out / "broken.tsp", "{\"slots\": {\"0\": ");
    expectCleanFailure(runRenderer({out / "broken.tsp", "--er-jpg"}), "broken.tsp");
    writeFile(out / "empty.tsp", "{}");
    expectCleanFailure(runRenderer({out / "empty.tsp", "--er-jpg"}), "");
    writeFile(out / "empty.pts", "# nothing here\np f2 w8000 h4000 v360\n");
    expectCleanFailure(runRenderer({out / "empty.pts", "--er-jpg"}), "empty.pts");
    expectCleanFailure(runRenderer({out / "missing.pts", "--er-jpg"}), "missing.pts");

    // Options that cannot succeed fail before the first source is loaded and
    // before anything is written, with the error of the step they would fail in.
    const std::vector<std::pair<std::vector<std::string>, std::string>> impossible = {
        {{"--cf-jpg", "--cf-width", "-1"}, "Invalid cube face width -1"},
        {{"--cf-jpg", "--cf-width", "99999999"}, "Maximum texture size of GPU is too small (99999999x99999999"},
        {{"--logo", out / "no-logo.jpg"}, "no-logo.jpg"},
    };
    for (const auto& [options, message] : impossible) {
        std::vector<std::string> args = {captures() + "/ldr/capture.pts", "--er-width", "1000", "--er-jpg",
                                         "--output-prefix", out / "early"};
        args.insert(args.end(), options.begin(), options.end());
        const RunResult r = runRenderer(args);
        expectCleanFailure(r, message);
        EXPECT_EQ(countLinesWith(r.err, "load (temp)"), 0) << r.err;
    }

    // The EXR output cannot be put in place: the .hdr and thumbnail before it
    // are complete, and no temporary file is left.
    fs::create_directory(out / "pano.exr");
    expectCleanFailure(runRenderer({captures() + "/hdr/capture.pts", "--er-width", "2000", "--er-hdr", "--er-exr",
                                    "--output-prefix", out / "pano"}), "pano.exr");
    EXPECT_EQ(readRadiance(out / "pano.hdr").width(), 2000);
    EXPECT_EQ(filesIn(out.path()), (std::set<std::string>{"rings.pts", "broken.tsp", "empty.tsp", "empty.pts", "pano.exr",
                                                         "pano.hdr", "pano thumbnail.jpg"}));
}

int main(int argc, char** argv)
{
    // --make-captures DIR: the fixture that makes the captures for a CTest run.
    if (argc == 3 && std::string(argv[1]) == "--make-captures") {
        fs::remove_all(argv[2]);
        const std::string partial = std::string(argv[2]) + ".partial";
        fs::remove_all(partial);
        fs::create_directories(partial);
        if (!makeCaptures(partial))
            return 1;
        fs::rename(partial, argv[2]);
        return 0;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

namespace {

// A smooth colour field, continuous across the panorama's seam: R, G, B in
// 0..1 at longitude lon and latitude lat (radians).
std::array<double, 3> smoothField(double lon, double lat)
{
    return {0.5 + 0.35 * std::cos(lon) * std::cos(lat), 0.5 + 0.35 * std::sin(2 * lon) * std::cos(lat),
            0.5 + 0.4 * std::sin(lat)};
}

// Largest and mean difference between the JPEG faces of `prefix` and the
// panorama `source` (float RGB in 0..255, w x h, rows top first) sampled
// bilinearly where each face pixel looks (cubeFaceDirection); face pixels
// whose source point lies within 8 pixels (a JPEG block's ringing) of the border of `mask` (a
// rectangle of the panorama, empty for none) are left out.
std::pair<double, double> facesAgainst(const std::string& prefix, const std::vector<float>& source, int w, int h,
                                       std::array<int, 4> mask = {0, 0, 0, 0})
{
    double worst = 0, sum = 0;
    int64_t count = 0;
    for (int f = 0; f < 6; ++f) {
        const Image face = readJpeg(prefix + "_" + kCubeFaces[f].letter + ".jpg");
        const int s = face.width();
        for (int j = 0; j < s; ++j)
            for (int i = 0; i < s; ++i) {
                const std::array<double, 3> d = cubeFaceDirection(f, i, j, s);
                const double lon = std::atan2(d[0], d[2]), lat = std::atan2(d[1], std::hypot(d[0], d[2]));
                const double x = lon * w / (2 * M_PI) + 0.5 * (w - 1), y = 0.5 * (h - 1) - lat * h / M_PI;
                const auto near = [](double v, int edge) { return std::fabs(v - (edge - 0.5)) < 8; };
                if (mask[2] > 0 && (near(x, mask[0]) || near(x, mask[0] + mask[2]) || near(y, mask[1]) ||
                                    near(y, mask[1] + mask[3])))
                    continue;
                const int x0 = int(std::floor(x)), y0 = std::clamp(int(std::floor(y)), 0, h - 1);
                const int y1 = std::min(y0 + 1, h - 1);
                const double tx = x - std::floor(x), ty = std::clamp(y - y0, 0.0, 1.0);
                for (int c = 0; c < 3; ++c) {
                    const auto at = [&](int px, int py) { return source[(size_t(py) * w + (px + w) % w) * 3 + c]; };
                    const double want = (at(x0, y0) * (1 - tx) + at(x0 + 1, y0) * tx) * (1 - ty) +
                                        (at(x0, y1) * (1 - tx) + at(x0 + 1, y1) * tx) * ty;
                    const double diff = std::fabs(want - face.pixel(i, j)[c]);
                    worst = std::max(worst, diff);
                    sum += diff;
                    ++count;
                }
            }
    }
    return {worst, sum / double(count)};
}

}  // namespace

// JPEG, 16-bit PNG and partial (XMP-placed) panoramas of sizes this program
// never renders go to faces that show the picture as it is: no tone curve,
// no detour through RGBE. A float TIFF is HDR and gives the faces of the
// same panorama as a .hdr file, byte for byte.
TEST(PictureInput, FacesShowThePicture)
{
    TempDir dir;
    const int w = 648, h = 324;  // not a size this program renders (not a multiple of 20)
    std::vector<float> field(size_t(w) * h * 3);
    Image rgb(w, h, 3);
    std::vector<float> png16(field.size());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const auto v = smoothField(2 * M_PI * (x + 0.5) / w - M_PI, M_PI / 2 - M_PI * (y + 0.5) / h);
            for (int c = 0; c < 3; ++c) {
                png16[(size_t(y) * w + x) * 3 + c] = float(std::lround(65535 * v[c]));
                rgb.pixel(x, y)[c] = uint8_t(std::lround(255 * v[c]));
            }
        }
    const auto asFloat = [](const Image& img) { return std::vector<float>(img.data(), img.data() + img.byteSize()); };
    const auto render = [&](const std::string& input, const std::string& prefix, const char* more = "--cf-jpg") {
        const RunResult r = runRenderer({dir / input, "--cf-jpg", more, "--output-prefix", dir / prefix});
        EXPECT_EQ(r.status, 0) << input << ": " << r.err;
    };

    // Thresholds: quality-90 JPEG of a smooth field, once for the input and
    // once for the faces, and the GPU's 8-bit filtering: about 1 on average,
    // a few at most; a misplaced or tone-mapped face is tens off.
    writeJpeg(rgb, dir / "pano.jpg");
    render("pano.jpg", "jpg");
    auto e = facesAgainst(dir / "jpg", asFloat(readJpeg(dir / "pano.jpg")), w, h);
    EXPECT_LT(e.first, 12);
    EXPECT_LT(e.second, 1.5);
    // Faces alone decode the JPEG straight into their texture; with the
    // equirect JPEG too it is held in memory first. The faces are the same.
    render("pano.jpg", "jpg-er", "--er-jpg");
    for (const char* f : kFaces)
        EXPECT_EQ(readFile(dir / (std::string("jpg-er_") + f + ".jpg")), readFile(dir / (std::string("jpg_") + f + ".jpg")))
            << f;

    writePngFile(dir / "pano16.png", w, h, 3, 16, png16);
    render("pano16.png", "png");
    std::vector<float> exact(png16);
    for (float& v : exact)
        v /= 257.0f;
    e = facesAgainst(dir / "png", exact, w, h);
    EXPECT_LT(e.first, 12);
    EXPECT_LT(e.second, 1.5);

    // The middle quarter of the panorama, placed by its XMP; black around it.
    const std::array<int, 4> crop = {w / 4, h / 4, w / 2, h / 2};
    const Image decoded = readJpeg(dir / "pano.jpg");
    Image part(crop[2], crop[3], 3);
    std::vector<float> placed(field.size(), 0.0f);
    for (int y = 0; y < crop[3]; ++y)
        for (int x = 0; x < crop[2]; ++x)
            for (int c = 0; c < 3; ++c) {
                part.pixel(x, y)[c] = decoded.pixel(crop[0] + x, crop[1] + y)[c];
                placed[(size_t(crop[1] + y) * w + crop[0] + x) * 3 + c] = decoded.pixel(crop[0] + x, crop[1] + y)[c];
            }
    const std::string xmp = formatText("<rdf:Description GPano:FullPanoWidthPixels=\"%d\" GPano:FullPanoHeightPixels="
                                       "\"%d\" GPano:CroppedAreaLeftPixels=\"%d\" GPano:CroppedAreaTopPixels=\"%d\"/>",
                                       w, h, crop[0], crop[1]);
    writeJpeg(part, dir / "part.jpg", {{0xE1, std::string("http://ns.adobe.com/xap/1.0/", 29) + xmp}});
    render("part.jpg", "part");
    e = facesAgainst(dir / "part", placed, w, h, crop);
    EXPECT_LT(e.first, 12);
    EXPECT_LT(e.second, 1.5);

    // Float samples that RGBE holds exactly: the TIFF's panorama is the .hdr's.
    const Image rgbe = writePanorama(dir / "pano.hdr", 640, 320);
    std::vector<float> floats(size_t(640) * 320 * 3);
    for (int i = 0; i < 640 * 320; ++i)
        rgbeToFloat(rgbe.data() + 4 * i, &floats[3 * size_t(i)]);
    writeTiffFile(dir / "pano.tif", 640, 320, {3, 32, 0, 1, 16}, floats);
    render("pano.hdr", "hdr");
    render("pano.tif", "tif");
    for (const char* f : kFaces)
        EXPECT_EQ(readFile(dir / (std::string("tif_") + f + ".jpg")), readFile(dir / (std::string("hdr_") + f + ".jpg")))
            << f;

    // Neither 2:1 nor placed by XMP; named as a picture but none.
    writeJpeg(part.view().subView(0, 0, 100, 100), dir / "square.jpg");
    expectCleanFailure(runRenderer({dir / "square.jpg", "--cf-jpg"}),
                       "is 100x100 pixels: expected a 2:1 equirectangular panorama");
    writeFile(dir / "text.png", "hello");
    expectCleanFailure(runRenderer({dir / "text.png", "--cf-jpg"}), "is neither a project nor a readable image");
}
