// Cube faces against the real driver: JPEG faces against the panorama under
// the web-viewer convention, continuity across face edges, the tiled mipmapped
// EXR cube map, and the tile pyramid's files.
#include <gtest/gtest.h>

#include <ImfEnvmap.h>
#include <ImfStandardAttributes.h>
#include <ImfTiledRgbaFile.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <vector>

#include "finish_helpers.h"
#include "image/Jpeg.h"
#include "image/OpenExr.h"
#include "passes/CubeFaces.h"
#include "passes/Tonemap.h"

namespace fs = std::filesystem;

namespace {
using Vec = std::array<double, 3>;

double dot(const Vec& a, const Vec& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// Inverse of cubeFaceDirection: the face and pixel position a direction falls on.
struct FacePoint {
    int face;
    double i, j;
};
FacePoint locate(const Vec& d, int s)
{
    int best = 0;
    double bestDot = -2;
    Vec fwd[6];
    for (int f = 0; f < 6; ++f) {
        fwd[f] = cubeFaceDirection(f, (s - 1) / 2.0, (s - 1) / 2.0, s);
        if (dot(d, fwd[f]) > bestDot)
            bestDot = dot(d, fwd[f]), best = f;
    }
    // Right and up of the face from its edge midpoints (fwd + right and fwd + up).
    const Vec r = cubeFaceDirection(best, s - 0.5, (s - 1) / 2.0, s);
    const Vec u = cubeFaceDirection(best, (s - 1) / 2.0, -0.5, s);
    Vec right, up;
    for (int k = 0; k < 3; ++k)
        right[k] = r[k] * std::sqrt(2.0) - fwd[best][k], up[k] = u[k] * std::sqrt(2.0) - fwd[best][k];
    const double a = dot(d, right) / bestDot, b = -dot(d, up) / bestDot;
    return {best, (a + 1) * s / 2 - 0.5, (b + 1) * s / 2 - 0.5};
}

std::string facePath(const std::string& prefix, int f)
{
    return prefix + "_" + kCubeFaces[f].letter + ".jpg";
}

}  // namespace

TEST(FinishCubeFacesGL, JpegFacesShowThePanoramaInWebViewerOrientation)
{
    // Every face pixel's colour encodes the direction it shows: comparing it
    // with the direction of the web-viewer convention (checked against the
    // face table on the CPU) catches any turned, mirrored or swapped face.
    const Image pano = directionPanorama(1024, 512, false);
    const std::string prefix = finishTempDir("cube_web") + "/pano";
    const int s = 128;
    writeCubeFacesJpeg(pano, s, prefix);
    for (int f = 0; f < 6; ++f) {
        const Image face = readJpeg(facePath(prefix, f));
        ASSERT_EQ(face.width, s);
        ASSERT_EQ(face.height, s);
        double sum = 0, worst = 0;
        for (int j = 0; j < s; ++j)
            for (int i = 0; i < s; ++i) {
                const Vec expect = directionColour(cubeFaceDirection(f, i, j, s));
                for (int k = 0; k < 3; ++k) {
                    const double d = std::fabs(face.pixel(i, j)[k] - expect[k]);
                    sum += d;
                    worst = std::max(worst, d);
                }
            }
        // Byte rounding of the panorama (0.5) plus quality-90 JPEG of a smooth
        // field (about 1, a few at most with 4:2:0 chroma); a wrong face is
        // tens of units off.
        EXPECT_LT(sum / (3.0 * s * s), 1.5) << kCubeFaces[f].letter;
        EXPECT_LT(worst, 10) << kCubeFaces[f].letter;
    }
}

TEST(FinishCubeFacesGL, RealPanoramaFacesAgreeWithItAndAcrossEdges)
{
    Image hdr = readExr(panoramaPath("courtyard.exr"));
    testing::internal::CaptureStderr();
    const ImageView pano = tonemap(hdr);
    testing::internal::GetCapturedStderr();
    const int s = 256;
    const std::string prefix = finishTempDir("cube_real") + "/courtyard";
    writeCubeFacesJpeg(pano, s, prefix);

    std::vector<Image> faces;
    for (int f = 0; f < 6; ++f)
        faces.push_back(readJpeg(facePath(prefix, f)));

    // Each face pixel against the panorama sampled in its direction.
    for (int f = 0; f < 6; ++f) {
        double sum = 0;
        for (int j = 0; j < s; ++j)
            for (int i = 0; i < s; ++i) {
                const std::array<double, 2> p = equirectPosition(cubeFaceDirection(f, i, j, s), 1024, 512);
                const Vec expect = sampleEquirect(pano, p[0], p[1]);
                for (int k = 0; k < 3; ++k)
                    sum += std::fabs(faces[f].pixel(i, j)[k] - expect[k]);
            }
        // Detailed photograph through quality-90 JPEG: about 2 units on
        // average; a misplaced face differs by 30 or more.
        EXPECT_LT(sum / (3.0 * s * s), 4.0) << kCubeFaces[f].letter;
    }

    // Continuity: one pixel beyond each edge pixel lies on the neighbouring
    // face. The step across an edge must be no larger than a step between
    // neighbouring pixels inside a face.
    double across = 0, inside = 0;
    int64_t n = 0;
    for (int f = 0; f < 6; ++f)
        for (int k = 0; k < s; ++k) {
            const int edge[4][4] = {{k, 0, k, -1}, {k, s - 1, k, s}, {0, k, -1, k}, {s - 1, k, s, k}};
            for (const auto& e : edge) {
                const FacePoint q = locate(cubeFaceDirection(f, e[2], e[3], s), s);
                EXPECT_NE(q.face, f);
                const int qi = std::min(s - 1, std::max(0, int(std::lround(q.i))));
                const int qj = std::min(s - 1, std::max(0, int(std::lround(q.j))));
                const int ii = e[0] + (e[0] - e[2]), jj = e[1] + (e[1] - e[3]);  // one pixel inwards
                for (int c = 0; c < 3; ++c) {
                    across += std::abs(int(faces[f].pixel(e[0], e[1])[c]) - int(faces[q.face].pixel(qi, qj)[c]));
                    inside += std::abs(int(faces[f].pixel(e[0], e[1])[c]) - int(faces[f].pixel(ii, jj)[c]));
                }
                ++n;
            }
        }
    // JPEG blocks make edges slightly noisier than the interior: allow half
    // as much again plus one unit. A face turned the wrong way round would
    // make the step across several times the step inside.
    EXPECT_LT(across / n, 1.5 * inside / n + 3.0) << across / n << " vs " << inside / n;
}

TEST(FinishCubeFacesGL, ExrCubeMapIsTiledMipmappedAndMatchesTheJpegFaces)
{
    const int s = 1024;  // tile 512: 2 x 2 tiles per face, then levels with faces below a tile
    const std::string dir = finishTempDir("cube_exr");
    const Image rgbe = directionPanorama(1024, 512, true);
    const Image rgb = directionPanorama(1024, 512, false);
    testing::internal::CaptureStderr();
    writeCubeFacesExr(rgbe, s, dir + "/pano", "zip", "", "");
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("1024x512, M: "), std::string::npos) << log;
    writeCubeFacesJpeg(rgb, s, dir + "/pano");

    Imf::TiledRgbaInputFile in((dir + "/pano.exr").c_str());
    ASSERT_TRUE(in.isValidLevel(0, 0));
    EXPECT_TRUE(Imf::hasEnvmap(in.header()));
    EXPECT_EQ(Imf::envmap(in.header()), Imf::ENVMAP_CUBE);
    EXPECT_EQ(in.tileXSize(), 512);
    EXPECT_EQ(in.tileYSize(), 512);
    EXPECT_EQ(in.levelMode(), Imf::MIPMAP_LEVELS);
    EXPECT_EQ(in.levelRoundingMode(), Imf::ROUND_DOWN);
    EXPECT_EQ(in.numLevels(), 13);  // floor(log2(6 * 1024)) + 1
    const Imath::Box2i window = in.dataWindow();
    EXPECT_EQ(window.max.x - window.min.x + 1, s);
    EXPECT_EQ(window.max.y - window.min.y + 1, 6 * s);

    // Level 0 against the JPEG faces rendered from the same panorama in 8 bits.
    std::vector<Imf::Rgba> level(size_t(s) * 6 * s);
    in.setFrameBuffer(level.data(), 1, s);
    in.readTiles(0, in.numXTiles(0) - 1, 0, in.numYTiles(0) - 1, 0);
    for (int f = 0; f < 6; ++f) {
        const Image jpeg = readJpeg(facePath(dir + "/pano", f));
        const Imath::Box2i fw = Imf::CubeMap::dataWindowForFace(Imf::CubeMapFace(f), window);
        double sum = 0, worst = 0;
        for (int j = 0; j < s; ++j)
            for (int i = 0; i < s; ++i) {
                const Imf::Rgba& p = level[size_t(fw.min.y + j) * s + fw.min.x + i];
                const float v[3] = {p.r, p.g, p.b};
                for (int k = 0; k < 3; ++k) {
                    const double d = std::fabs(v[k] * 255.0 - jpeg.pixel(i, j)[k]);
                    sum += d;
                    worst = std::max(worst, d);
                }
            }
        // Same pass, same panorama values (RGBE keeps them to 1/256): what
        // is left is the JPEG error of a smooth field.
        EXPECT_LT(sum / (3.0 * s * s), 1.5) << kCubeFaces[f].letter;
        EXPECT_LT(worst, 10) << kCubeFaces[f].letter;
    }

    // Every further level holds each face as the 2 x 2 box average of the
    // level above, including the levels whose faces are smaller than a tile
    // and are assembled from all six faces; rows of no face hold finite values.
    std::vector<Imf::Rgba> previous = level;
    int previousFace = s;
    for (int l = 1; l < in.numLevels(); ++l) {
        const Imath::Box2i lw = in.dataWindowForLevel(l);
        const int w = lw.max.x - lw.min.x + 1, h = lw.max.y - lw.min.y + 1;
        std::vector<Imf::Rgba> current(size_t(w) * h);
        in.setFrameBuffer(current.data() - lw.min.x - size_t(lw.min.y) * w, 1, w);
        in.readTiles(0, in.numXTiles(l) - 1, 0, in.numYTiles(l) - 1, l);
        const int face = Imf::CubeMap::sizeOfFace(lw);
        double worst = 0;
        for (int f = 0; f < 6 && face > 0; ++f)
            for (int y = 0; y < face; ++y)
                for (int x = 0; x < face; ++x) {
                    const Imf::Rgba* a = &previous[size_t(f * previousFace + 2 * y) * previousFace + 2 * x];
                    const Imf::Rgba* b = a + previousFace;
                    const float expect = 0.25f * (float(a[0].g) + float(a[1].g) + float(b[0].g) + float(b[1].g));
                    const float got = current[size_t(f * face + y) * w + x].g;
                    worst = std::max(worst, double(std::fabs(got - expect)));
                }
        // Half precision of values near 0.5: 2^-11 relative.
        EXPECT_LT(worst, 1e-3) << "level " << l;
        for (const Imf::Rgba& p : current)
            ASSERT_TRUE(std::isfinite(float(p.g)) && float(p.g) > 0.1f) << "level " << l;
        if (face > 0) {
            previous = current;
            previousFace = face;
        }
    }

    // The format's own tool agrees.
    const std::string command = "exrheader '" + dir + "/pano.exr' 2>&1";
    if (FILE* pipe = popen(command.c_str(), "r")) {
        std::string text;
        char buffer[4096];
        while (size_t n = fread(buffer, 1, sizeof buffer, pipe))
            text.append(buffer, n);
        if (pclose(pipe) == 0) {
            EXPECT_NE(text.find("tiledimage"), std::string::npos) << text;
            EXPECT_NE(text.find("mip-map"), std::string::npos) << text;
            EXPECT_NE(text.find("level sizes rounded down"), std::string::npos) << text;
            EXPECT_NE(text.find("tile size 512 by 512"), std::string::npos) << text;
            EXPECT_NE(text.find("envmap (type envmap): cube-face map"), std::string::npos) << text;
        }
    }
}

TEST(FinishCubeFacesGL, JpegTilePyramid)
{
    const Image pano = directionPanorama(1024, 512, false);
    const std::string dir = finishTempDir("cube_pyramid") + "/tiles/";
    writeCubeFacesJpeg(pano, 2048, dir);

    // Levels 2, 1 and 0 with 16, 4 and 1 tiles of 512 x 512 per face.
    std::set<std::string> expected;
    for (int f = 0; f < 6; ++f)
        for (int l = 0; l <= 2; ++l)
            for (int r = 0; r < (1 << l); ++r)
                for (int c = 0; c < (1 << l); ++c)
                    expected.insert(pyramidTileName(l, kCubeFaces[f].letter, r, c));
    std::set<std::string> found;
    for (const auto& entry : fs::directory_iterator(dir))
        found.insert(entry.path().filename().string());
    EXPECT_EQ(found, expected);
    ASSERT_EQ(expected.size(), 126u);

    // Written from level 2 of r down to level 0 of f.
    auto modified = [&](const std::string& name) {
        struct stat st;
        stat((dir + name).c_str(), &st);
        return std::make_pair(int64_t(st.st_mtim.tv_sec), int64_t(st.st_mtim.tv_nsec));
    };
    for (const std::string& name : found) {
        EXPECT_LE(modified("2_r_00_00.jpg"), modified(name)) << name;
        EXPECT_LE(modified(name), modified("0_f_00_00.jpg")) << name;
    }

    // A level-0 tile is the whole face, halved twice: the face centre shows
    // the face's forward direction, like a full-size face would.
    const Image whole = readJpeg(dir + "0_f_00_00.jpg");
    ASSERT_EQ(whole.width, 512);
    const Vec centre = directionColour(cubeFaceDirection(5, 1023.5, 1023.5, 2048));
    // Two truncating halvings lose about 3 units; a crop of the face instead
    // of the whole of it would show another direction, 50 off.
    for (int k = 0; k < 3; ++k)
        EXPECT_NEAR(whole.pixel(256, 256)[k], centre[k] - 3, 5) << k;
    const Image corner = readJpeg(dir + "2_u_03_03.jpg");
    EXPECT_EQ(corner.width, 512);
    EXPECT_EQ(corner.height, 512);
}

TEST(FinishCubeFacesGL, BackslashSelectsThePyramidAndPlainPrefixTheSixFiles)
{
    const Image pano = directionPanorama(512, 256, false);
    const std::string dir = finishTempDir("cube_prefix");
    writeCubeFacesJpeg(pano, 500, dir + "/pyr\\");
    for (int f = 0; f < 6; ++f) {
        const std::string tile = dir + "/pyr/" + pyramidTileName(0, kCubeFaces[f].letter, 0, 0);
        ASSERT_TRUE(fs::exists(tile)) << tile;
        EXPECT_EQ(readJpeg(tile).width, 500);
    }

    writeCubeFacesJpeg(pano, 64, dir + "/single");
    for (int f = 0; f < 6; ++f)
        EXPECT_TRUE(fs::exists(facePath(dir + "/single", f))) << f;
}
