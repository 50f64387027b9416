// Decisions of the render job made before any GPU work: input kind, mode,
// slots, widths and their messages, the upside-down rule and the half turn.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "image/PathUtil.h"
#include "app/RenderPlan.h"
#include "project/LensModel.h"
#include "support/Support.h"

namespace {
Project projectOf(int images, bool withOrientation, const std::string& ext = ".jpg", int w = 6000, int h = 4000)
{
    Project p;
    for (int i = 0; i < images; ++i) {
        p.images.emplace_back();
        p.images.back().fileName = "img" + std::to_string(i) + ext;
        p.images.back().width = w;
        p.images.back().height = h;
    }
    if (withOrientation) {
        p.images.emplace_back();
        p.images.back().fileName = "orientation:";
    }
    return p;
}
}  // namespace

TEST(PathUtil, ExtensionAndSeparatorTests)
{
    const struct { const char* path; const char* list; bool match; } cases[] = {
        {"pano.hdr", "hdr exr", true},   {"dir/pano.EXR", "hdr exr", true},  {"pano.tsp", "hdr exr", false},
        {"pano.dr", "hdr exr", true},    {"pano.r e", "hdr exr", true},  // a plain substring search
        {"pano", "hdr exr", false},      {"pano.", "hdr exr", false},    {"dir.hdr/pano", "hdr exr", false},
        {"", "hdr exr", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(hasExtensionIn(c.path, c.list), c.match) << c.path;
    // The loader's rule reads the text after the last dot of the whole path.
    const struct { const char* path; const char* extension; const char* afterDot; } names[] = {
        {"dir/pano.HDR", "hdr", "hdr"}, {"dir/.jpg", "", "jpg"}, {"a.b/c", "", "b/c"}, {"pano", "", ""},
    };
    for (const auto& n : names) {
        EXPECT_EQ(lowerExtension(n.path), n.extension) << n.path;
        EXPECT_EQ(lowerTextAfterLastDot(n.path), n.afterDot) << n.path;
    }
    EXPECT_TRUE(endsWithSeparator("out/"));
    EXPECT_TRUE(endsWithSeparator("out\\"));
    EXPECT_FALSE(endsWithSeparator("out/pano"));
    EXPECT_FALSE(endsWithSeparator(""));
}

TEST(RenderPlan, ListingModeAndSlots)
{
    Project p = projectOf(1, true);
    ImageEntry& e = p.images[0];
    e.yaw = 72.5f, e.roll = -0.25f, e.pitch = 1e-7f, e.fov = 180, e.a = 0.1f, e.vd = 123456789.0f;
    p.images[1].fov = 91;
    std::ostringstream log;
    printProjectListing(p, log);
    EXPECT_EQ(log.str(), "img0.jpg 72.5 -0.25 1e-07 180 0.1 0 0 0 0 0 0 0 0 1.23457e+08 \n"
                         "orientation: 0 0 0 91 0 0 0 0 0 0 0 0 0 0 \n");

    // The first entry's extension decides the mode.
    EXPECT_TRUE(isHdrProject(projectOf(6, false, ".HDR")));
    EXPECT_FALSE(isHdrProject(projectOf(6, true, ".exr")));
    EXPECT_FALSE(isHdrProject(Project()));
    Project mixed = projectOf(2, false, ".jpg");
    mixed.images[1].fileName = "b.hdr";
    EXPECT_FALSE(isHdrProject(mixed));

    const int slots[][3] = {{5, 1, 5}, {6, 1, 5}, {7, 1, 6}, {6, 0, 5}, {8, 0, 6}};  // images, orientation, slots
    for (const auto& s : slots)
        EXPECT_EQ(slotCountOf(projectOf(s[0], s[1] != 0)), s[2]) << s[0] << "+" << s[1];
}

TEST(RenderPlan, UpsideDownRule)
{
    Project p = projectOf(6, true);
    ImageEntry& o = p.images.back();
    o.roll = 2.0f;
    o.fov = 90.0f;  // not above 90
    EXPECT_FALSE(applyUpsideDownRule(p));
    EXPECT_EQ(o.roll, 2.0f);
    o.fov = 170.0f;
    EXPECT_TRUE(applyUpsideDownRule(p));
    EXPECT_EQ(o.roll, -2.0f);
    EXPECT_TRUE(std::signbit(o.pitch));  // the sign flips, also for zero

    // Only a trailing orientation entry is looked at.
    Project notLast = projectOf(6, true);
    notLast.images.back().fov = 170.0f;
    notLast.images.push_back(notLast.images[0]);
    EXPECT_FALSE(applyUpsideDownRule(notLast));
    EXPECT_FALSE(std::signbit(notLast.images[6].pitch));
    Project empty;
    EXPECT_FALSE(applyUpsideDownRule(empty));
}

TEST(RenderPlan, Widths)
{
    const struct { int w, h, five, six; } rows[] = {
        {1, 29999999, 14140, 21000}, {6000, 5000, 17500, 24600}, {1, 49999999, 17500, 24600},
        {10000, 5000, 20000, 31800},
        {50000, 50000, 14140, 21000},  // the 32-bit product wraps to a negative count
    };
    for (const auto& r : rows) {
        EXPECT_EQ(defaultEquirectWidth(projectOf(6, true, ".jpg", r.w, r.h), 5), r.five) << r.w << "x" << r.h;
        EXPECT_EQ(defaultEquirectWidth(projectOf(6, true, ".jpg", r.w, r.h), 6), r.six) << r.w << "x" << r.h;
    }

    const struct { int in, slots, out; const char* line; } equirect[] = {
        {10000, 6, 9984, "Adjusting output equirect width by -16 pixels -> outW = 9984.\n"},
        {2400, 5, 2400, ""},
        {2400, 6, 2400, ""},
        {-30, 5, -20, "Adjusting output equirect width by 10 pixels -> outW = -20.\n"},  // C remainder sign
    };
    for (const auto& r : equirect) {
        std::ostringstream log;
        EXPECT_EQ(adjustEquirectWidth(r.in, r.slots, log), r.out) << r.in;
        EXPECT_EQ(log.str(), r.line);
    }

    const struct { int in, out; const char* line; } cube[] = {
        {5250, 5264, "Adjusting output cubeface width from 5250 to 5264 = 329 * 2^4.\n"},
        {3535, 3536, "Adjusting output cubeface width from 3535 to 3536 = 442 * 2^3.\n"},
        {511, 511, "Adjusting output cubeface width from 511 to 511 = 511 * 2^0.\n"},  // printed anyway
        {512, 512, "Adjusting output cubeface width from 512 to 512 = 256 * 2^1.\n"},
        {100, 100, "Adjusting output cubeface width from 100 to 100 = 100 * 2^0.\n"},
    };
    for (const auto& r : cube) {
        std::ostringstream log;
        EXPECT_EQ(roundCubeFaceWidth(r.in, log), r.out);
        EXPECT_EQ(log.str(), r.line);
    }
    std::ostringstream log;
    for (int bad : {0, -512, 2147483647})
        EXPECT_THROW(roundCubeFaceWidth(bad, log), std::runtime_error) << bad;

    // 2:1 and a multiple of 20 wide.
    for (const auto& s : {std::array<int, 3>{8000, 4000, 1}, {20, 10, 1}, {8001, 4000, 0}, {8010, 4005, 0}, {4000, 4000, 0},
                          {0, 0, 0}})
        EXPECT_EQ(isRenderedEquirectSize(s[0], s[1]), s[2] != 0) << s[0] << "x" << s[1];
}

// Any other rig: the panorama's pixels per degree within one width step of
// the sharpest source's at its centre (one of two 4000-wide frames at
// 24 px/degree; fisheye and rectilinear lenses alike), the width a multiple
// of the step; the plan takes the layout and its width.
TEST(RenderPlan, RigWidthFollowsTheSharpestSource)
{
    for (const Projection lens : {Projection::CircularFisheye, Projection::Rectilinear}) {
        Project p = projectOf(2, false, ".jpg", 4000, 3000);
        p.images[0].fov = 200, p.images[1].fov = 100;
        for (ImageEntry& e : p.images)
            e.projection = lens;
        const double focal = lens == Projection::Rectilinear ? 2000 / std::tan(toRadians(50)) : 4000 / toRadians(100);
        const int32_t width = rigEquirectWidth(p, 5);
        EXPECT_EQ(width % 20, 0);
        EXPECT_NEAR(width / 360.0, toRadians(focal), 20 / 360.0) << width;

        p.layout = rigLayoutOf(p);
        RenderPlan plan = planInput(JobOptions{});
        std::ostringstream log;
        planProject(plan, p, log);
        EXPECT_EQ(std::make_tuple(plan.layout, plan.width, plan.height),
                  std::make_tuple(RigLayout::General, width, width / 2));
    }
}

TEST(RenderPlan, ReversePixelsTurnsByHalfATurn)
{
    for (int bpp : {3, 4})
        for (int n : {5, 8}) {  // pixel i moves to n-1-i with its bytes in order
            std::vector<uint8_t> pixels(size_t(n * bpp)), want(pixels.size());
            for (size_t i = 0; i < pixels.size(); ++i)
                pixels[i] = uint8_t(i), want[(size_t(n) - 1 - i / bpp) * bpp + i % bpp] = uint8_t(i);
            reversePixels(pixels.data(), n, bpp);
            EXPECT_EQ(pixels, want) << bpp << " bytes, " << n << " pixels";
        }
}

TEST(RenderPlan, OutputFilesInTheOrderWritten)
{
    const auto withFaces = [](std::vector<std::string> files, const std::string& prefix,
                              const std::string& extension = ".jpg") {
        for (const char* letter : {"r", "l", "u", "d", "b", "f"})
            files.push_back(prefix + "_" + letter + extension);
        files.push_back(prefix + "_preview-strip.jpg");
        files.push_back(prefix + "_preview.jpg");
        for (const char* viewer : {"pannellum.json", "marzipano.js", "psv.js", "krpano.xml"})
            files.push_back(prefix + "_" + viewer);
        return files;
    };
    const struct {
        std::vector<std::string> args;
        std::string sourceExt;
        std::vector<std::string> files;
    } rows[] = {
        // LDR: the HDR-only outputs are not written.
        {{"r", "in.pts", "--er-width", "2400", "--er-jpg", "--cf-jpg", "--er-exr", "--cf-exr"}, ".jpg",
         withFaces({"in thumbnail.jpg", "in.jpg"}, "in")},
        // WebP faces; the previews stay JPEG.
        {{"r", "in.pts", "--er-width", "2400", "--cf-jpg", "--tile-format", "webp", "--tile-quality", "70"}, ".jpg",
         withFaces({"in thumbnail.jpg"}, "in", ".webp")},
        // HDR, no thumbnail below 2000; the cube map replaces the equirect EXR; a
        // panorama up to 1000 wide takes the thumbnail's name.
        {{"r", "a/in.tsp", "--er-width", "900", "--er-hdr", "--er-exr", "--cf-exr", "--er-jpg"}, ".hdr",
         {"a/in.hdr", "a/in.exr", "a/in thumbnail.jpg"}},
        {{"r", "in.tsp", "--er-width", "2400", "--output-prefix", "o", "--cf-exr"}, ".hdr",
         {"o thumbnail.jpg", "o.exr"}},
    };
    for (const auto& row : rows) {
        JobOptions options;
        ASSERT_EQ(support::parseArgs(row.args, options), ParseAction::RunJob);
        RenderPlan plan = planInput(options);
        Project project = projectOf(8, false, row.sourceExt);
        std::ostringstream log;
        planProject(plan, project, log);
        planSteps(plan);
        EXPECT_EQ(plan.outputFiles(), row.files) << row.args[1];
    }
}

TEST(RenderPlan, StepsInTheOrderTheyRun)
{
    using K = StepKind;
    const struct {
        std::vector<std::string> args;
        std::string sourceExt;  // of a project's images (upside down); empty: a 2400 x 1200 image input
        std::vector<K> kinds;
    } rows[] = {
        // The face width line is printed once the panorama exists.
        {{"r", "in.pts", "--er-width", "2400", "--er-hdr", "--er-exr", "--cf-exr", "--er-jpg", "--cf-jpg", "--logo", "l"},
         ".hdr",
         {K::Stitch, K::Note, K::Logo, K::UpsideDown, K::Thumbnail, K::EquirectRadiance, K::EquirectExr,
          K::CubeMapExr, K::Tonemap, K::EquirectJpeg, K::CubeFacesJpeg}},
        // LDR is 8-bit already and skips the HDR outputs; HDR without 8-bit outputs is never tone-mapped.
        {{"r", "in.pts", "--er-width", "1200", "--er-jpg", "--er-hdr"}, ".jpg", {K::Stitch, K::UpsideDown, K::EquirectJpeg}},
        {{"r", "in.exr", "--er-exr", "--output-prefix", "t/"}, "", {K::ReadImage, K::Note, K::EquirectExr}},
    };
    for (const auto& row : rows) {
        JobOptions options;
        ASSERT_EQ(support::parseArgs(row.args, options), ParseAction::RunJob);
        RenderPlan plan = planInput(options);
        std::ostringstream log;
        if (row.sourceExt.empty()) {
            planImageInput(plan, 2400, 1200);
        } else {
            Project project = projectOf(6, true, row.sourceExt);
            project.images.back().fov = 180.0f;
            planProject(plan, project, log);
        }
        planSteps(plan);
        std::vector<K> kinds;
        for (const PlanStep& step : plan.steps)
            kinds.push_back(step.kind);
        EXPECT_EQ(kinds, row.kinds) << row.args[1] << " " << row.args[2];
        EXPECT_EQ(plan.steps[1].text, kinds[1] == K::Note ? "Adjusting output cubeface width from 600 to 600 = 300 * 2^1.\n" : "");
        EXPECT_EQ(log.str(), "");  // nothing printed while planning these widths
    }
}

TEST(RenderPlan, TilePyramidAndImageInputs)
{
    JobOptions options;
    options.inputPath = "pano.exr";
    options.outputPrefix = "t\\";
    options.writeCfJpg = true;
    RenderPlan plan = planInput(options);
    EXPECT_EQ(plan.input, InputKind::ExrImage);
    EXPECT_TRUE(plan.projectPath.empty());
    planImageInput(plan, 4400, 2200);
    planSteps(plan);
    // 1100-pixel faces in tiles of 275: levels 2, 1 and 0 with 16, 4 and 1 tiles.
    EXPECT_EQ(plan.cubeFaceWidth, 1100);
    // Then the two previews, Pannellum's six preview faces, the web viewer
    // files and a link for Pannellum to each tile.
    ASSERT_EQ(plan.outputFiles().size(), 6u * 21u + 2u + 6u + 5u + 6u * 21u);
    EXPECT_EQ(plan.outputFiles().front(), "t/2_r_00_00.jpg");
    EXPECT_EQ(plan.outputFiles()[15], "t/2_r_03_03.jpg");
    EXPECT_EQ(plan.outputFiles()[20], "t/0_r_00_00.jpg");
    EXPECT_EQ(plan.outputFiles()[6 * 21 - 1], "t/0_f_00_00.jpg");
    EXPECT_EQ(plan.outputFiles()[6 * 21], "t/preview-strip.jpg");
    EXPECT_EQ(plan.outputFiles()[6 * 21 + 2], "t/pannellum/1_r_0_0.jpg");
    EXPECT_EQ(plan.outputFiles()[6 * 21 + 12], "t/index.html");
    EXPECT_EQ(plan.outputFiles()[6 * 21 + 13], "t/pannellum/2_r_0_0.jpg");
    EXPECT_EQ(plan.outputFiles().back(), "t/pannellum/4_f_3_3.jpg");

    // A size this program does not render is only tone-mapped.
    RenderPlan odd = planInput(options);
    planImageInput(odd, 4400, 2000);
    planSteps(odd);
    EXPECT_TRUE(odd.tonemapOnly);
    EXPECT_EQ(odd.outputFiles(), std::vector<std::string>{"t\\.jpg"});
    ASSERT_EQ(odd.steps.size(), 4u);  // read, notice, tone map, JPEG
    EXPECT_EQ(odd.steps[1].text, "can only reproject equirect hdr images that have been rendered with this tool "
                                 "(unsupported image dimensions 4400x2000) -> tonemapping only\n");
}
