// Cube faces, CPU side: tile rule, face matrix, pyramid names, the face
// geometry against the web-viewer convention, and how our faces relate to
// OpenEXR's own cube-map and latitude-longitude conventions.
#include <gtest/gtest.h>

#include <ImfEnvmap.h>

#include <cmath>
#include <string>

#include "passes/CubeFaces.h"

namespace {
using Vec = std::array<double, 3>;

double dot(const Vec& a, const Vec& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// The web-viewer convention, written down independently of the face table:
// forward, right and up of each face in the panorama frame (x towards
// lon +90, y up, z towards lon 0).
struct WebFace {
    const char* letter;
    Vec forward, right, up;
};
const WebFace kWebFaces[] = {
    {"r", {1, 0, 0}, {0, 0, -1}, {0, 1, 0}},  {"l", {-1, 0, 0}, {0, 0, 1}, {0, 1, 0}},
    {"u", {0, 1, 0}, {1, 0, 0}, {0, 0, -1}},  {"d", {0, -1, 0}, {1, 0, 0}, {0, 0, 1}},
    {"b", {0, 0, -1}, {-1, 0, 0}, {0, 1, 0}}, {"f", {0, 0, 1}, {1, 0, 0}, {0, 1, 0}},
};
}  // namespace

TEST(FinishCubeTiles, TileSizeRule)
{
    const int cases[][2] = {{2048, 512}, {1536, 384}, {3000, 375}, {1000, 500}, {512, 512},
                            {513, 513},  {500, 500},  {1025, 1025}, {5264, 329}, {1024, 512}};
    for (const auto& c : cases)
        EXPECT_EQ(cubeTileSize(c[0]), c[1]) << c[0];
}

TEST(FinishCubeTiles, PyramidNames)
{
    EXPECT_EQ(pyramidTileName(2, "r", 0, 0), "2_r_00_00.jpg");
    EXPECT_EQ(pyramidTileName(0, "f", 0, 0), "0_f_00_00.jpg");
    EXPECT_EQ(pyramidTileName(4, "u", 15, 3), "4_u_15_03.jpg");
}

TEST(FinishCubeMatrix, TableValuesAndRotation)
{
    const char* letters = "rludbf";
    for (int f = 0; f < 6; ++f)
        EXPECT_EQ(kCubeFaces[f].letter, std::string(1, letters[f]));

    // Face 0, yaw 270 in single precision: cos is not exactly 0.
    const Mat3f m0 = yawPitchMatrix(kCubeFaces[0].yaw, kCubeFaces[0].pitch);
    EXPECT_FLOAT_EQ(m0[0], 1.1924881e-08f);
    EXPECT_FLOAT_EQ(m0[2], 1.0f);  // -sin(270)
    EXPECT_FLOAT_EQ(m0[4], 1.0f);

    // Memory order (cy, 0, -sy, -sp sy, cp, -sp cy, cp sy, sp, cp cy) for an
    // angle pair without special values.
    const float y = 30.0f * float(M_PI) / 180.0f, p = 20.0f * float(M_PI) / 180.0f;
    const Mat3f m = yawPitchMatrix(30.0f, 20.0f);
    const float expect[9] = {std::cos(y), 0, -std::sin(y), -std::sin(p) * std::sin(y), std::cos(p),
                             -std::sin(p) * std::cos(y), std::cos(p) * std::sin(y), std::sin(p),
                             std::cos(p) * std::cos(y)};
    for (int i = 0; i < 9; ++i)
        EXPECT_NEAR(m[i], expect[i], 1e-6f) << i;

    // Every face matrix is a proper rotation.
    for (const CubeFace& face : kCubeFaces) {
        const Mat3f r = yawPitchMatrix(face.yaw, face.pitch);
        for (int a = 0; a < 3; ++a)
            for (int b = 0; b < 3; ++b) {
                double d = 0;
                for (int k = 0; k < 3; ++k)
                    d += double(r[3 * a + k]) * r[3 * b + k];
                EXPECT_NEAR(d, a == b ? 1.0 : 0.0, 1e-6);
            }
        const double det = r[0] * (r[4] * r[8] - r[5] * r[7]) - r[3] * (r[1] * r[8] - r[2] * r[7]) +
                           r[6] * (r[1] * r[5] - r[2] * r[4]);
        EXPECT_NEAR(det, 1.0, 1e-6);
    }
}

TEST(FinishCubeGeometry, FacesFollowTheWebViewerConvention)
{
    const int s = 37;
    for (int f = 0; f < 6; ++f) {
        const WebFace& web = kWebFaces[f];
        ASSERT_STREQ(kCubeFaces[f].letter, web.letter);
        double worst = 0;
        for (int j = 0; j < s; ++j)
            for (int i = 0; i < s; ++i) {
                const double a = 2.0 * (i + 0.5) / s - 1.0, b = 2.0 * (j + 0.5) / s - 1.0;
                Vec expected;
                for (int k = 0; k < 3; ++k)
                    expected[k] = web.forward[k] + a * web.right[k] - b * web.up[k];
                const double len = std::sqrt(dot(expected, expected));
                const Vec got = cubeFaceDirection(f, i, j, s);
                worst = std::max(worst, std::acos(std::min(1.0, dot(got, expected) / len)));
            }
        // Single-precision matrix entries: about 1e-7 rad; a wrong sign or
        // axis would be off by a quarter turn or more.
        EXPECT_LT(worst, 1e-5) << web.letter;
    }
}

TEST(FinishCubeGeometry, AdjacentFacesShareTheirEdges)
{
    // Pixel coordinates s - 0.5 and -0.5 are the outer edges of a face (the
    // pixel centres are at i + 0.5): the edge points of neighbours coincide.
    const int s = 64;
    struct Edge {
        int faceA;
        double ia, ja;
        int faceB;
        double ib, jb;
    };
    const int F = 5, R = 0, B = 4, L = 1, U = 2, D = 3;
    for (int k = 0; k < s; ++k) {
        const Edge edges[] = {
            {F, s - 0.5, double(k), R, -0.5, double(k)},  // f's right edge is r's left edge
            {R, s - 0.5, double(k), B, -0.5, double(k)},
            {B, s - 0.5, double(k), L, -0.5, double(k)},
            {L, s - 0.5, double(k), F, -0.5, double(k)},
            {F, double(k), -0.5, U, double(k), s - 0.5},  // u's bottom edge touches f's top
            {F, double(k), s - 0.5, D, double(k), -0.5},  // d's top edge touches f's bottom
        };
        for (const Edge& e : edges) {
            const Vec a = cubeFaceDirection(e.faceA, e.ia, e.ja, s);
            const Vec b = cubeFaceDirection(e.faceB, e.ib, e.jb, s);
            EXPECT_NEAR(dot(a, b), 1.0, 1e-9) << e.faceA << " " << e.faceB << " " << k;
        }
    }
}

// Measures our cube map against OpenEXR's conventions (the README states the
// result): directions are taken in the frame that Imf::LatLongMap gives our
// equirect EXR, and each of our slots is compared with the face images of
// Imf::CubeMap::direction. Our slot k holds OpenEXR's face `exrFace`, its
// pixel (x, y) showing what OpenEXR puts at `transform(x, y)`.
TEST(FinishCubeGeometry, RelationToOpenExrConventions)
{
    const int s = 64;
    const Imath::Box2i cube(Imath::V2i(0, 0), Imath::V2i(s - 1, 6 * s - 1));

    // Our equirect frame against LatLongMap: x is mirrored (LatLongMap's
    // longitude grows to the left), y and z agree.
    const int W = 1024, H = 512;
    const Imath::Box2i latLong(Imath::V2i(0, 0), Imath::V2i(W - 1, H - 1));
    for (float x : {3.0f, 300.0f, 511.5f, 900.0f})
        for (float y : {10.0f, 255.5f, 400.0f}) {
            const Imath::V3f e = Imf::LatLongMap::direction(latLong, Imath::V2f(x, y));
            const double lon = (x - (W - 1) / 2.0) * 2 * M_PI / W, lat = ((H - 1) / 2.0 - y) * M_PI / H;
            // LatLongMap puts the outer pixel centres at +-180 degrees, we put
            // them half a pixel inside: 0.01 covers that.
            EXPECT_NEAR(e.x, -std::cos(lat) * std::sin(lon), 0.01);
            EXPECT_NEAR(e.y, std::sin(lat), 0.01);
            EXPECT_NEAR(e.z, std::cos(lat) * std::cos(lon), 0.01);
        }

    enum Transform { Turn90Ccw, Turn180, MirrorLeftRight, FlipTopBottom, MirrorAntiDiagonal };
    struct Relation {
        Imf::CubeMapFace exrFace;
        Transform transform;
    };
    const Relation relations[6] = {
        {Imf::CUBEFACE_NEG_X, MirrorAntiDiagonal},  // slot +X: r
        {Imf::CUBEFACE_POS_X, Turn90Ccw},           // slot -X: l
        {Imf::CUBEFACE_POS_Y, MirrorLeftRight},     // slot +Y: u
        {Imf::CUBEFACE_NEG_Y, Turn180},             // slot -Y: d
        {Imf::CUBEFACE_NEG_Z, FlipTopBottom},       // slot +Z: b
        {Imf::CUBEFACE_POS_Z, Turn180},             // slot -Z: f
    };
    for (int f = 0; f < 6; ++f) {
        double worst = 0;
        for (int y = 0; y < s; ++y)
            for (int x = 0; x < s; ++x) {
                float tx = 0, ty = 0;
                switch (relations[f].transform) {
                case Turn90Ccw: tx = s - 1 - y, ty = x; break;
                case Turn180: tx = s - 1 - x, ty = s - 1 - y; break;
                case MirrorLeftRight: tx = s - 1 - x, ty = y; break;
                case FlipTopBottom: tx = x, ty = s - 1 - y; break;
                case MirrorAntiDiagonal: tx = s - 1 - y, ty = s - 1 - x; break;
                }
                Imath::V3f o = Imf::CubeMap::direction(relations[f].exrFace, cube, Imath::V2f(tx, ty));
                o.normalize();
                const Vec d = cubeFaceDirection(f, x, y, s);
                const Vec ours = {-d[0], d[1], d[2]};  // in the LatLongMap frame
                worst = std::max(worst, std::acos(std::min(1.0, dot(ours, {o.x, o.y, o.z}))));
            }
        // OpenEXR spreads pixel centres over [-1, 1], we over [-1 + 1/s,
        // 1 - 1/s]: at most about 1/s rad apart. Any other face or transform
        // is off by far more.
        EXPECT_LT(worst, 1.0 / s) << kCubeFaces[f].letter;
    }
}
