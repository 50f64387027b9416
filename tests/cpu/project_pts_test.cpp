// Import of pts stitching scripts.
#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>

#include "app/RenderPlan.h"
#include "project/PtsImport.h"
#include "support/Support.h"

namespace {

// Scripts live in one scratch folder for the whole binary.
std::string writeScript(const std::string& name, const std::string& text)
{
    static support::TempDir dir;
    support::writeFile(dir / name, text);
    return dir / name;
}

// What a real stitcher writes: a long header of option lines, per image its
// file, exposure and vignetting lines, the link line, image lines linking to
// it, control points of two types and the orientation line.
std::string realisticScript()
{
    std::string s =
        "# stitcher project file\n"
        "p f2 w8000 h4000 v360  k0 E0 R0 n\"TIFF_m c:LZW r:CROP\"\n"
        "m i0\n\n"
        "# image lines\n";
    for (int i = 0; i < 40; ++i)
        s += "#-option" + std::to_string(i) + " value " + std::to_string(i * 3) + "\n";
    s += "#-fileversion 1\n#-blender internal\n#-ldrfileversion 0\n";
    s += "#-imgfile 4000 6000 \"zenith 00.jpg\"\n"
         "#-exposureparams 0 0 0 -0.5\n"
         "#-libpano_vignettingparams Va1 Vb-0.06 Vc-0.08 Vd-0.08 Vx0 Vy0\n"
         "o w1 h1 y0 r-90 p0 v169.25 a-0.055 b-0.03 c-0.0085 f2 d-32 e113 g0 t0 Va1 Vb0 Vc0 Vd0 Vx0 Vy0  Vm5 n\"x\"\n"
         "o f2 y12.5 r-90 p90 v=0 a=0 b=0 c=0 d=0 e=0 g=0 t=0 Va=0 Vb=0\n";
    const char* yaws[] = {"0", "72", "144", "-144", "-72"};
    for (int i = 0; i < 5; ++i) {
        s += "#-imgfile 4000 6000 \"ring " + std::to_string(i + 1) + ".jpg\"\n";
        if (i != 2) s += "#-exposureparams 0 0 0 " + std::to_string(i) + ".25\n";
        if (i == 3) s += "#-libpano_vignettingparams Va1.5 Vb-0.1 Vc0 Vd0.02\n";
        s += std::string("o f2 y") + yaws[i] + " r-90 p0 v=0 a=0 b=0 c=0 d=0 e=0 g=0 t=0\n";
    }
    s += "\n# control points\n"
         "c n1 N2 x100.5 y200.25 X3000 Y1500.75 t0\n"
         "c n2 N3 x1 y2 X3 Y4 t1\n"
         "c n6 N12 x-1.5e-3 y2 X3. Y4 t0\n"
         "\n#orientation_abs_slot1 y-33.5 r1.25 p-2 t0.5\n"
         "# end\n";
    return s;
}

TEST(PtsImport, RealisticScriptFieldByField)
{
    const Project p = importPtsScript(writeScript("real.pts", realisticScript()));
    ASSERT_EQ(p.images.size(), 7u);
    // Per entry: yaw roll pitch fov a b c d e exposure va vb vc vd, then name and size.
    const float want[7][14] = {
        {12.5f, -90, 90, 169.25f, -0.055f, -0.03f, -0.0085f, -32, 113, -0.5f, 1, -0.06f, -0.08f, -0.08f},
        {0, -90, 0, 169.25f, -0.055f, -0.03f, -0.0085f, -32, 113, 0.25f, 1, -0.06f, -0.08f, -0.08f},
        {72, -90, 0, 169.25f, -0.055f, -0.03f, -0.0085f, -32, 113, 1.25f, 1, -0.06f, -0.08f, -0.08f},
        {144, -90, 0, 169.25f, -0.055f, -0.03f, -0.0085f, -32, 113, 1.25f, 1, -0.06f, -0.08f, -0.08f},  // no exposure line
        {-144, -90, 0, 169.25f, -0.055f, -0.03f, -0.0085f, -32, 113, 3.25f, 1.5f, -0.1f, 0, 0.02f},
        {-72, -90, 0, 169.25f, -0.055f, -0.03f, -0.0085f, -32, 113, 4.25f, 1.5f, -0.1f, 0, 0.02f},
        {-33.5f, 1.25f, -2, 0.5f, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // the orientation entry
    };
    for (int i = 0; i < 7; ++i) {
        const ImageEntry& e = p.images[size_t(i)];
        const float got[14] = {e.yaw, e.roll, e.pitch, e.fov, e.a, e.b, e.c, e.d, e.e, e.exposure, e.va, e.vb, e.vc, e.vd};
        for (int f = 0; f < 14; ++f)
            EXPECT_FLOAT_EQ(got[f], want[i][f]) << "entry " << i << " field " << f;
        EXPECT_EQ(e.width, i < 6 ? 4000 : 0) << i;
        EXPECT_EQ(e.height, i < 6 ? 6000 : 0) << i;
    }
    EXPECT_EQ(p.images[0].fileName, "zenith 00.jpg");
    EXPECT_EQ(p.images[3].fileName, "ring 3.jpg");
    EXPECT_TRUE(isOrientation(p.images[6]));

    // t1 points are dropped; image numbers lose 1.
    ASSERT_EQ(p.controlPoints.size(), 2u);
    const ControlPoint& a = p.controlPoints[0];
    EXPECT_EQ(std::vector<float>({float(a.image1), float(a.image2), a.x, a.y, a.x2, a.y2}),
              std::vector<float>({0, 1, 100.5f, 200.25f, 3000, 1500.75f}));
    EXPECT_EQ(p.controlPoints[1].image1, 5);
    EXPECT_EQ(p.controlPoints[1].image2, 11);
    EXPECT_FLOAT_EQ(p.controlPoints[1].x, -1.5e-3f);
}

TEST(PtsImport, LinkRule)
{
    const std::string s =
        "o w1 h1 y1 r2 p3 v4 a5 b6 c7 f0 d8 e9\n"
        "#-imgfile 10 20 \"a\"\n"
        "o f0 y10 r20 p30 v40 a50 b60 c70 d80 e90\n"
        "#orientation_abs_slot1 y-1 r-2 p-3 t-4\n"
        "o f0 y11 r21 p31 v41 a51 b61 c71 d81 e91\n"
        // =2 is the third entry appended so far (here the second image, the
        // orientation entry counting); =1 the orientation entry; =012 starts
        // with 0 and so means the link line.
        "o f2 y=2 r=1 p=012 v=0 a=00 b=0 c=2 d=1 e=0\n";
    const Project p = importPtsScript(writeScript("link.pts", s));
    ASSERT_EQ(p.images.size(), 4u);
    const ImageEntry& e = p.images[3];  // d = 0 is the orientation entry's
    EXPECT_EQ(std::vector<float>({e.yaw, e.roll, e.pitch, e.fov, e.a, e.b, e.c, e.d, e.e}),
              std::vector<float>({11, -2, 3, 4, 5, 6, 71, 0, 9}));
    // The link line is not an image; name and size are inherited.
    EXPECT_EQ(e.fileName, "a");
    EXPECT_EQ(e.height, 20);
}

TEST(PtsImport, LineFormsThatMatchAndThatDoNot)
{
    const std::string s =
        // A quote inside the name: everything up to the last quote.
        "#-imgfile 5 6 \"my \"best\" shot.jpg\" trailing\n"
        // Exposure lines whose first parameters are not 0 0 0 are ignored.
        "#-exposureparams 0 0 0 1.5\n"
        "#-exposureparams 1 0 0 7\n"
        "o f2 y1.5e-3 r-2 p3. v90 a0 b0 c0 d0 e0\n"
        // +2 and .5 are no numbers of the script: the lines are skipped.
        "o f2 y+2 r0 p0 v90 a0 b0 c0 d0 e0\n"
        "o f2 y.5 r0 p0 v90 a0 b0 c0 d0 e0\n"
        "c n1 N2 x1 y2 X3 Y4 t1\n"
        "c n100 N2 x1 y2 X3 Y4 t0\n";
    const Project p = importPtsScript(writeScript("forms.pts", s));
    ASSERT_EQ(p.images.size(), 1u);
    EXPECT_EQ(p.images[0].fileName, "my \"best\" shot.jpg");
    EXPECT_EQ(std::vector<float>({p.images[0].exposure, p.images[0].yaw, p.images[0].roll, p.images[0].pitch}),
              std::vector<float>({1.5f, 1.5e-3f, -2, 3}));
    EXPECT_TRUE(p.controlPoints.empty());

    const Project o = importPtsScript(writeScript("orient.pts", "# x\n#orientation_abs_slot1 y5 r6 p7 t8\n"));
    ASSERT_EQ(o.images.size(), 1u);  // an orientation line alone is a project
    EXPECT_EQ(std::vector<float>({o.images[0].yaw, o.images[0].roll, o.images[0].pitch, o.images[0].fov}),
              std::vector<float>({5, 6, 7, 8}));
}

// Every entry as the render job lists it, with its size, and the control points.
std::string summary(const Project& p)
{
    std::ostringstream s;
    printProjectListing(p, s);
    for (const ImageEntry& e : p.images)
        s << e.width << "x" << e.height << " ";
    for (const ControlPoint& c : p.controlPoints)
        s << "\n" << c.image1 << " " << c.image2 << " " << c.x << " " << c.y << " " << c.x2 << " " << c.y2;
    return s.str();
}

TEST(PtsImport, WindowsLineEndsAndLongCommentBlocks)
{
    const std::string lf = realisticScript();
    std::string crlf;
    for (char ch : lf)
        crlf += ch == '\n' ? std::string("\r\n") : std::string(1, ch);
    const std::string want = summary(importPtsScript(writeScript("lf.pts", lf)));
    EXPECT_EQ(summary(importPtsScript(writeScript("crlf.pts", crlf))), want);

    // Many option and comment lines before the images change nothing.
    std::string big;
    for (int i = 0; i < 5000; ++i)
        big += (i % 2 ? "#-option" : "# comment ") + std::to_string(i) + " some text that is not a pattern\r\n";
    EXPECT_EQ(summary(importPtsScript(writeScript("big.pts", big + crlf))), want);
}

std::string messageOf(const std::string& path)
{
    return support::errorOf([&] { importPtsScript(path); });
}

TEST(PtsImport, FailureMessages)
{
    const std::string missing = writeScript("x.pts", "") + ".missing";
    EXPECT_EQ(messageOf(missing), "Error opening project '" + missing + "'");

    const std::string empty = writeScript("empty.pts", "# nothing\no w1 h1 y0 r0 p0 v1 a0 b0 c0 f2 d0 e0\n");
    EXPECT_EQ(messageOf(empty), "failed to parse project '" + empty + "'");

    // Links point back only: an index past the images so far is rejected
    // with the line it was found on.
    const std::string past = writeScript("past.pts", "o f2 y0 r0 p0 v90 a0 b0 c0 d0 e0\n\no f2 y=1 r0 p0 v90 a0 b0 c0 d0 e0\n");
    EXPECT_EQ(messageOf(past), "line 3 of project '" + past +
                                   "' links to image 1 but only 1 images precede it: o f2 y=1 r0 p0 v90 a0 b0 c0 d0 e0");

    // The link and vignetting lines take no links: stof rejects "=0".
    const std::string linkEq = writeScript("linkeq.pts", "o w1 h1 y=0 r0 p0 v1 a0 b0 c0 f2 d0 e0\n");
    EXPECT_EQ(messageOf(linkEq), "stof");
    // Out of float range.
    EXPECT_THROW(importPtsScript(writeScript("range.pts", "o f2 y1e99 r0 p0 v90 a0 b0 c0 d0 e0\n")), std::out_of_range);
    EXPECT_THROW(importPtsScript(writeScript("range2.pts", "#-imgfile 99999999999 1 \"x\"\n")), std::out_of_range);
    EXPECT_THROW(importPtsScript(writeScript("range3.pts", "o f2 y=99999999999999999999999 r0 p0 v90 a0 b0 c0 d0 e0\n")),
                 std::out_of_range);
}

TEST(PtsImport, LongDigitRunsEndPromptly)
{
    // The number pattern once split a run of digits in every possible way
    // before giving up: 4000 digits after "o f2 y" took longer than anyone
    // waits. Now a line that cannot match fails at once, and one that
    // matches reads its number (here beyond float range).
    const std::string digits(4000, '7');
    const std::string unmatched = writeScript("digits.pts", "o f2 y" + digits + "\n");
    EXPECT_EQ(messageOf(unmatched), "failed to parse project '" + unmatched + "'");
    EXPECT_EQ(messageOf(writeScript("digits2.pts", "o f2 y" + digits + " r0 p0 v90 a0 b0 c0 d0 e0\n")), "stof");
}

TEST(PtsImport, HugeLinesEndCleanly)
{
    // A 1 MB line: skipped when it cannot match, rejected with its line
    // number when it could, never handed to the regex engine (whose
    // recursion would overflow the stack).
    const std::string good = "o f2 y1 r2 p3 v90 a0 b0 c0 d0 e0\n";
    const Project p = importPtsScript(writeScript("huge.pts", "# " + std::string(1 << 20, 'x') + "\n" + good));
    ASSERT_EQ(p.images.size(), 1u);
    EXPECT_FLOAT_EQ(p.images[0].pitch, 3);
    const std::string huge2 = writeScript("huge2.pts", good + "#-imgfile 1 2 \"" + std::string(1 << 20, 'x') + "\"\n");
    EXPECT_EQ(messageOf(huge2), "line 2 of project '" + huge2 + "' is longer than 4096 characters");
    // A line of exactly the limit is still matched (and must not overflow
    // the stack, also in sanitizer builds with their larger frames).
    const std::string name(4096 - std::string("#-imgfile 1 2 \"\"").size(), 'n');
    const Project q = importPtsScript(writeScript("limit.pts", "#-imgfile 1 2 \"" + name + "\"\r\n" + good));
    ASSERT_EQ(q.images.size(), 1u);
    EXPECT_EQ(q.images[0].fileName, name);
}

}  // namespace

// A four-shot script of a panorama head with a circular fisheye, written the
// way such scripts describe their images: "i" lines with the lens type, the
// crop and links to the first image. Every image keeps its own angles, crop
// and exposure; links copy the first image's values; the rig is no ring
// layout. A script with "o" image lines ignores its "i" lines, and the lens
// type numbers of "o" lines pick the ring layouts' lenses.
TEST(PtsImport, ImageLinesWithLensTypeAndCrop)
{
    std::string s = "p f2 w8000 h4000 v360 E0 R0 n\"TIFF\"\n";
    const int yaws[] = {0, 90, 180, -90};
    for (int i = 0; i < 4; ++i)
        s += "i w4000 h6000 f2 v" + std::string(i ? "=0" : "180") + " Ra0 Eev" + std::to_string(i) + ".5 r0 p10 y" +
             std::to_string(yaws[i]) + " TrX0 a0 b" + (i ? "=0" : "-0.01") + " c0 d1 e-2 g0 t0 Va1 Vb-0.2 Vc0 Vd0 " +
             "C200,3800," + std::to_string(1000 + i) + ",5000 S0,0,0,0 n\"img " + std::to_string(i + 1) + ".jpg\"\n";
    s += "v y1 p1 r1\n";
    const Project p = importPtsScript(writeScript("rig.pts", s));
    ASSERT_EQ(p.images.size(), 4u);
    EXPECT_EQ(p.layout, RigLayout::General);
    for (int i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        const ImageEntry& e = p.images[size_t(i)];
        EXPECT_EQ(e.fileName, "img " + std::to_string(i + 1) + ".jpg");
        EXPECT_EQ(std::make_tuple(e.width, e.height, e.projection), std::make_tuple(4000, 6000, Projection::CircularFisheye));
        EXPECT_EQ(std::make_tuple(e.crop.left, e.crop.right, e.crop.top, e.crop.bottom),
                  std::make_tuple(200, 3800, 1000 + i, 5000));
        EXPECT_EQ(std::make_tuple(e.yaw, e.pitch, e.roll, e.fov, e.b, e.d, e.e),
                  std::make_tuple(float(yaws[i]), 10.0f, 0.0f, 180.0f, -0.01f, 1.0f, -2.0f));
        EXPECT_EQ(std::make_tuple(e.exposure, e.va, e.vb), std::make_tuple(float(i) + 0.5f, 1.0f, -0.2f));
    }

    const Project mixed = importPtsScript(writeScript("mixed.pts", s + "o f0 y0 r0 p0 v90 a0 b0 c0 d0 e0\n"));
    ASSERT_EQ(mixed.images.size(), 1u);
    EXPECT_EQ(mixed.images[0].projection, Projection::Rectilinear);
    EXPECT_TRUE(mixed.images[0].crop.empty());
    EXPECT_NE(support::errorOf([&] { importPtsScript(writeScript("bad.pts", "i w10 h10 f2 v=3 n\"a.jpg\"\n")); }), "");
}

// The layout follows the count of source images and their lenses.
TEST(PtsImport, RigLayoutOfEntries)
{
    const auto project = [](int sources, Projection lens, bool orientation) {
        Project p;
        for (int i = 0; i < sources; ++i) {
            p.images.emplace_back();
            p.images.back().projection = lens;
        }
        if (orientation) {
            p.images.emplace_back();
            p.images.back().fileName = kOrientationName;
        }
        return rigLayoutOf(p);
    };
    EXPECT_EQ(project(6, Projection::CircularFisheye, true), RigLayout::FisheyeRing);
    EXPECT_EQ(project(6, Projection::FullFrameFisheye, false), RigLayout::FisheyeRing);
    EXPECT_EQ(project(13, Projection::Rectilinear, true), RigLayout::TwoRings);
    EXPECT_EQ(project(6, Projection::Rectilinear, true), RigLayout::General);
    EXPECT_EQ(project(13, Projection::CircularFisheye, false), RigLayout::General);
    EXPECT_EQ(project(4, Projection::CircularFisheye, true), RigLayout::General);
    EXPECT_EQ(project(8, Projection::Rectilinear, false), RigLayout::General);
}
