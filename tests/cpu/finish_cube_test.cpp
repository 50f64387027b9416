// Cube faces, CPU side: tile rule, pyramid names and face directions against
// the web-viewer convention.
#include <gtest/gtest.h>

#include <cmath>

#include "passes/CubeFaces.h"

namespace {
using Vec = std::array<double, 3>;
double dot(const Vec& a, const Vec& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
}  // namespace

TEST(FinishCubeTiles, TileSizeAndPyramidNames)
{
    const int cases[][2] = {{2048, 512}, {1536, 384}, {3000, 375}, {1000, 500}, {512, 512},
                            {513, 513},  {500, 500},  {1025, 1025}, {5264, 329}, {1024, 512}};
    for (const auto& c : cases)
        EXPECT_EQ(cubeTileSize(c[0]), c[1]) << c[0];
    EXPECT_EQ(pyramidTileName(2, "r", 0, 0, "jpg"), "2_r_00_00.jpg");
    EXPECT_EQ(pyramidTileName(4, "u", 15, 3, "webp"), "4_u_15_03.webp");
}

TEST(FinishCubeGeometry, FacesFollowTheWebViewerConvention)
{
    // Forward, right and up of each face in the panorama frame (x towards
    // lon +90, y up, z towards lon 0), written down independently.
    const struct { const char* letter; Vec forward, right, up; } faces[] = {
        {"r", {1, 0, 0}, {0, 0, -1}, {0, 1, 0}},  {"l", {-1, 0, 0}, {0, 0, 1}, {0, 1, 0}},
        {"u", {0, 1, 0}, {1, 0, 0}, {0, 0, -1}},  {"d", {0, -1, 0}, {1, 0, 0}, {0, 0, 1}},
        {"b", {0, 0, -1}, {-1, 0, 0}, {0, 1, 0}}, {"f", {0, 0, 1}, {1, 0, 0}, {0, 1, 0}},
    };
    const int s = 37;
    for (int f = 0; f < 6; ++f) {
        ASSERT_STREQ(kCubeFaces[f].letter, faces[f].letter);
        double worst = 0;
        for (int j = 0; j < s; ++j)
            for (int i = 0; i < s; ++i) {
                const double a = 2.0 * (i + 0.5) / s - 1.0, b = 2.0 * (j + 0.5) / s - 1.0;
                Vec want;
                for (int k = 0; k < 3; ++k)
                    want[k] = faces[f].forward[k] + a * faces[f].right[k] - b * faces[f].up[k];
                const Vec got = cubeFaceDirection(f, i, j, s);
                worst = std::max(worst, std::acos(std::min(1.0, dot(got, want) / std::sqrt(dot(want, want)))));
            }
        // Single-precision matrices give about 1e-7 rad; a wrong axis or sign
        // is a quarter turn off.
        EXPECT_LT(worst, 1e-5) << faces[f].letter;
    }
}
