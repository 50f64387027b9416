// Import of pts stitching scripts.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>

#include "project/PtsImport.h"

namespace {

std::string tempPath(const std::string& name)
{
    return ::testing::TempDir() + "pts_test_" + std::to_string(::getpid()) + "_" + name;
}

std::string writeFile(const std::string& name, const std::string& text)
{
    const std::string path = tempPath(name);
    std::ofstream(path, std::ios::binary) << text;
    return path;
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
    const Project p = importPtsScript(writeFile("real.pts", realisticScript()));
    ASSERT_EQ(p.images.size(), 7u);

    const ImageEntry& z = p.images[0];
    EXPECT_EQ(z.fileName, "zenith 00.jpg");
    EXPECT_EQ(z.width, 4000);
    EXPECT_EQ(z.height, 6000);
    EXPECT_FLOAT_EQ(z.yaw, 12.5f);
    EXPECT_FLOAT_EQ(z.roll, -90);
    EXPECT_FLOAT_EQ(z.pitch, 90);
    // "=0" fields come from the link line.
    EXPECT_FLOAT_EQ(z.fov, 169.25f);
    EXPECT_FLOAT_EQ(z.a, -0.055f);
    EXPECT_FLOAT_EQ(z.b, -0.03f);
    EXPECT_FLOAT_EQ(z.c, -0.0085f);
    EXPECT_FLOAT_EQ(z.d, -32);
    EXPECT_FLOAT_EQ(z.e, 113);
    EXPECT_FLOAT_EQ(z.exposure, -0.5f);
    EXPECT_FLOAT_EQ(z.va, 1);
    EXPECT_FLOAT_EQ(z.vb, -0.06f);
    EXPECT_FLOAT_EQ(z.vc, -0.08f);
    EXPECT_FLOAT_EQ(z.vd, -0.08f);

    const float yaws[] = {0, 72, 144, -144, -72};
    for (int i = 1; i <= 5; ++i) {
        const ImageEntry& r = p.images[i];
        EXPECT_EQ(r.fileName, "ring " + std::to_string(i) + ".jpg");
        EXPECT_FLOAT_EQ(r.yaw, yaws[i - 1]);
        EXPECT_FLOAT_EQ(r.pitch, 0);
        EXPECT_FLOAT_EQ(r.roll, -90);
        EXPECT_FLOAT_EQ(r.fov, 169.25f);
        EXPECT_FLOAT_EQ(r.e, 113);
    }
    // Image 3 has no exposure line: it keeps image 2's value.
    EXPECT_FLOAT_EQ(p.images[1].exposure, 0.25f);
    EXPECT_FLOAT_EQ(p.images[2].exposure, 1.25f);
    EXPECT_FLOAT_EQ(p.images[3].exposure, 1.25f);
    EXPECT_FLOAT_EQ(p.images[4].exposure, 3.25f);
    // Vignetting changes from image 4 on and stays.
    EXPECT_FLOAT_EQ(p.images[3].vb, -0.06f);
    EXPECT_FLOAT_EQ(p.images[4].va, 1.5f);
    EXPECT_FLOAT_EQ(p.images[4].vb, -0.1f);
    EXPECT_FLOAT_EQ(p.images[5].vd, 0.02f);

    const ImageEntry& o = p.images[6];
    EXPECT_TRUE(isOrientation(o));
    EXPECT_EQ(o.width, 0);
    EXPECT_FLOAT_EQ(o.yaw, -33.5f);
    EXPECT_FLOAT_EQ(o.roll, 1.25f);
    EXPECT_FLOAT_EQ(o.pitch, -2);
    EXPECT_FLOAT_EQ(o.fov, 0.5f);
    EXPECT_FLOAT_EQ(o.a, 0);
    EXPECT_FLOAT_EQ(o.exposure, 0);
    EXPECT_FLOAT_EQ(o.va, 0);

    // t1 points are dropped; image numbers lose 1.
    ASSERT_EQ(p.controlPoints.size(), 2u);
    EXPECT_EQ(p.controlPoints[0].image1, 0);
    EXPECT_EQ(p.controlPoints[0].image2, 1);
    EXPECT_FLOAT_EQ(p.controlPoints[0].x, 100.5f);
    EXPECT_FLOAT_EQ(p.controlPoints[0].y, 200.25f);
    EXPECT_FLOAT_EQ(p.controlPoints[0].x2, 3000);
    EXPECT_FLOAT_EQ(p.controlPoints[0].y2, 1500.75f);
    EXPECT_EQ(p.controlPoints[1].image1, 5);
    EXPECT_EQ(p.controlPoints[1].image2, 11);
    EXPECT_FLOAT_EQ(p.controlPoints[1].x, -1.5e-3f);
    EXPECT_FLOAT_EQ(p.controlPoints[1].x2, 3);
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
    const Project p = importPtsScript(writeFile("link.pts", s));
    ASSERT_EQ(p.images.size(), 4u);
    const ImageEntry& e = p.images[3];
    EXPECT_FLOAT_EQ(e.yaw, 11);
    EXPECT_FLOAT_EQ(e.roll, -2);
    EXPECT_FLOAT_EQ(e.pitch, 3);
    EXPECT_FLOAT_EQ(e.fov, 4);
    EXPECT_FLOAT_EQ(e.a, 5);
    EXPECT_FLOAT_EQ(e.b, 6);
    EXPECT_FLOAT_EQ(e.c, 71);
    EXPECT_FLOAT_EQ(e.d, 0);  // the orientation entry's d
    EXPECT_FLOAT_EQ(e.e, 9);
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
    const Project p = importPtsScript(writeFile("forms.pts", s));
    ASSERT_EQ(p.images.size(), 1u);
    EXPECT_EQ(p.images[0].fileName, "my \"best\" shot.jpg");
    EXPECT_FLOAT_EQ(p.images[0].exposure, 1.5f);
    EXPECT_FLOAT_EQ(p.images[0].yaw, 1.5e-3f);
    EXPECT_FLOAT_EQ(p.images[0].roll, -2);
    EXPECT_FLOAT_EQ(p.images[0].pitch, 3);
    EXPECT_TRUE(p.controlPoints.empty());
}

TEST(PtsImport, OrientationAloneIsAProject)
{
    const Project p = importPtsScript(writeFile("orient.pts", "# x\n#orientation_abs_slot1 y5 r6 p7 t8\n"));
    ASSERT_EQ(p.images.size(), 1u);
    EXPECT_TRUE(isOrientation(p.images[0]));
    EXPECT_FLOAT_EQ(p.images[0].yaw, 5);
    EXPECT_FLOAT_EQ(p.images[0].roll, 6);
    EXPECT_FLOAT_EQ(p.images[0].pitch, 7);
    EXPECT_FLOAT_EQ(p.images[0].fov, 8);
}

void expectSameProject(const Project& a, const Project& b)
{
    ASSERT_EQ(a.images.size(), b.images.size());
    for (size_t i = 0; i < a.images.size(); ++i) {
        EXPECT_EQ(a.images[i].fileName, b.images[i].fileName);
        EXPECT_EQ(a.images[i].width, b.images[i].width);
        EXPECT_EQ(a.images[i].exposure, b.images[i].exposure);
        EXPECT_EQ(a.images[i].vd, b.images[i].vd);
        for (int f = 1; f <= 9; ++f)
            EXPECT_EQ(a.images[i].linkField(f), b.images[i].linkField(f));
    }
    ASSERT_EQ(a.controlPoints.size(), b.controlPoints.size());
    for (size_t i = 0; i < a.controlPoints.size(); ++i)
        EXPECT_EQ(a.controlPoints[i].y2, b.controlPoints[i].y2);
}

TEST(PtsImport, WindowsLineEndsAndLongCommentBlocks)
{
    const std::string lf = realisticScript();
    std::string crlf;
    for (char ch : lf)
        crlf += ch == '\n' ? std::string("\r\n") : std::string(1, ch);
    const Project want = importPtsScript(writeFile("lf.pts", lf));
    expectSameProject(importPtsScript(writeFile("crlf.pts", crlf)), want);

    // 50000 option and comment lines before the images: same result, fast.
    std::string big;
    for (int i = 0; i < 50000; ++i)
        big += (i % 2 ? "#-option" : "# comment ") + std::to_string(i) + " some text that is not a pattern\r\n";
    const std::string path = writeFile("big.pts", big + crlf);
    const auto t0 = std::chrono::steady_clock::now();
    expectSameProject(importPtsScript(path), want);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    // Lines that cannot match never reach the regular expressions; 2 s is
    // two orders of magnitude above a release build and leaves room for
    // sanitizer builds on a busy machine.
    EXPECT_LT(seconds, 2.0);
}

std::string messageOf(const std::string& path)
{
    try {
        importPtsScript(path);
    } catch (const std::exception& e) {
        return e.what();
    }
    return "(no exception)";
}

TEST(PtsImport, FailureMessages)
{
    const std::string missing = tempPath("does-not-exist.pts");
    EXPECT_EQ(messageOf(missing), "Error opening project '" + missing + "'");

    const std::string empty = writeFile("empty.pts", "# nothing\no w1 h1 y0 r0 p0 v1 a0 b0 c0 f2 d0 e0\n");
    EXPECT_EQ(messageOf(empty), "failed to parse project '" + empty + "'");

    // Links point back only: an index past the images so far is rejected
    // with the line it was found on.
    const std::string past = writeFile("past.pts", "o f2 y0 r0 p0 v90 a0 b0 c0 d0 e0\n\no f2 y=1 r0 p0 v90 a0 b0 c0 d0 e0\n");
    EXPECT_EQ(messageOf(past), "line 3 of project '" + past +
                                   "' links to image 1 but only 1 images precede it: o f2 y=1 r0 p0 v90 a0 b0 c0 d0 e0");
    EXPECT_THROW(importPtsScript(past), std::runtime_error);

    // The link and vignetting lines take no links: stof rejects "=0".
    const std::string linkEq = writeFile("linkeq.pts", "o w1 h1 y=0 r0 p0 v1 a0 b0 c0 f2 d0 e0\n");
    EXPECT_THROW(importPtsScript(linkEq), std::invalid_argument);
    EXPECT_EQ(messageOf(linkEq), "stof");
    // Out of float range.
    EXPECT_THROW(importPtsScript(writeFile("range.pts", "o f2 y1e99 r0 p0 v90 a0 b0 c0 d0 e0\n")), std::out_of_range);
    EXPECT_THROW(importPtsScript(writeFile("range2.pts", "#-imgfile 99999999999 1 \"x\"\n")), std::out_of_range);
    EXPECT_THROW(importPtsScript(writeFile("range3.pts", "o f2 y=99999999999999999999999 r0 p0 v90 a0 b0 c0 d0 e0\n")),
                 std::out_of_range);
}

TEST(PtsImport, HugeLinesEndCleanly)
{
    // A 100 MB line: skipped when it cannot match, rejected with its line
    // number when it could, never handed to the regex engine (whose
    // recursion would overflow the stack).
    const std::string good = "o f2 y1 r2 p3 v90 a0 b0 c0 d0 e0\n";
    {
        std::ofstream out(tempPath("huge.pts"), std::ios::binary);
        out << "# " << std::string(100 << 20, 'x') << "\n" << good;
    }
    const Project p = importPtsScript(tempPath("huge.pts"));
    ASSERT_EQ(p.images.size(), 1u);
    EXPECT_FLOAT_EQ(p.images[0].pitch, 3);

    {
        std::ofstream out(tempPath("huge2.pts"), std::ios::binary);
        out << good << "#-imgfile 1 2 \"" << std::string(100 << 20, 'x') << "\"\n";
    }
    EXPECT_EQ(messageOf(tempPath("huge2.pts")),
              "line 2 of project '" + tempPath("huge2.pts") + "' is longer than 4096 characters");
    // A line of exactly the limit is still matched (and must not overflow
    // the stack, also in sanitizer builds with their larger frames).
    const std::string name(4096 - std::string("#-imgfile 1 2 \"\"").size(), 'n');
    const Project q = importPtsScript(writeFile("limit.pts", "#-imgfile 1 2 \"" + name + "\"\r\n" + good));
    ASSERT_EQ(q.images.size(), 1u);
    EXPECT_EQ(q.images[0].fileName, name);
    std::remove(tempPath("huge.pts").c_str());
    std::remove(tempPath("huge2.pts").c_str());
}

TEST(PtsImport, DamagedScriptsFailCleanly)
{
    // Overwrite a sliding window of a good script with random bytes (line
    // ends and NULs included): the import either succeeds or throws, never
    // crashes or hangs.
    const std::string good = realisticScript();
    std::mt19937 rng(1234);
    std::uniform_int_distribution<int> byte(0, 255);
    const std::string path = tempPath("damaged.pts");
    int failures = 0, runs = 0;
    for (size_t at = 0; at < good.size(); at += 37) {
        std::string bad = good;
        for (size_t i = at; i < std::min(bad.size(), at + 24); ++i)
            bad[i] = char(byte(rng));
        std::ofstream(path, std::ios::binary) << bad;
        ++runs;
        try {
            importPtsScript(path);
        } catch (const std::exception&) {
            ++failures;
        }
    }
    // Pure junk: no line matches.
    std::string junk(1 << 16, '\0');
    for (char& ch : junk)
        ch = char(byte(rng));
    const std::string junkPath = writeFile("junk.pts", junk);
    EXPECT_EQ(messageOf(junkPath), "failed to parse project '" + junkPath + "'");
    EXPECT_GT(runs, 50);
    std::printf("damaged scripts: %d runs, %d clean exceptions\n", runs, failures);
}

}  // namespace
