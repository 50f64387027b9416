// The CPU lens model against the measured reference vectors in
// tests/data/lens (copied from the lens conventions folder; the tolerances
// are the ones stated there).
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <vector>

#include "project/CameraMatrix.h"
#include "project/LensModel.h"
#include "support/Support.h"

namespace {

// Longitude difference wrapped to (-180, 180] and scaled to an arc on the
// sphere, so rows near the poles are not penalised for meaningless longitude.
double lonError(double lon1, double lon2, double lat)
{
    double d = std::fmod(lon1 - lon2, 360.0);
    if (d > 180) d -= 360;
    if (d < -180) d += 360;
    return std::abs(d) * std::cos(lat * M_PI / 180);
}

TEST(LensVectors, ProjectionBothWaysAndPhotometricGain)
{
    const std::vector<support::LensRow> rows = support::lensVectors();
    ASSERT_EQ(rows.size(), 447u);  // the count stated with the data
    for (const support::LensRow& r : rows) {
        SCOPED_TRACE(r.camera + " lon " + std::to_string(r.lon) + " lat " + std::to_string(r.lat));
        // 1e-4 px and 1e-5 degrees for double precision (the table prints 1e-6).
        double x = 0, y = 0, lon = 0, lat = 0;
        ASSERT_TRUE(directionToPixel(r.lens, r.lon, r.lat, x, y));
        EXPECT_NEAR(x, r.x, 1e-4);
        EXPECT_NEAR(y, r.y, 1e-4);
        ASSERT_TRUE(pixelToDirection(r.lens, r.x, r.y, lon, lat));
        EXPECT_NEAR(lat, r.lat, 1e-5);
        EXPECT_LE(lonError(lon, r.lon, r.lat), 1e-5);
        // The single-precision form the shader uses, with the camera matrix
        // it gets: 0.01 px leaves room for GPU trigonometry.
        const Mat3 m = cameraMatrix(float(r.lens.yaw), float(r.lens.pitch), float(r.lens.roll), {0, 0}, {0, 0});
        float xf = 0, yf = 0;
        ASSERT_TRUE(directionToPixelFloat(m, r.lens, float(r.lon), float(r.lat), xf, yf));
        EXPECT_NEAR(xf, r.x, 0.01);
        EXPECT_NEAR(yf, r.y, 0.01);
    }

    // case w h d e Va Vb Vc Vd ev_image ev_pano x y gain
    std::ifstream in(support::sourcePath("data/lens/photometric-vectors.tsv"));
    std::string name;
    std::getline(in, name);  // header
    int count = 0;
    for (double v[13]; in >> name; ++count) {
        for (double& x : v)
            in >> x;
        const double gain = photometricGain(int(v[0]), int(v[1]), v[10], v[11], v[4], v[5], v[6], v[7], v[8], v[9]);
        // Relative 1e-5: measured in float32, printed with six decimals.
        EXPECT_NEAR(gain / v[12], 1.0, 1e-5) << name;
    }
    EXPECT_EQ(count, 55);
}

// Where the distortion polynomial turns, the model has no samples.
TEST(LensModel, ValidRadiusOfTheDistortion)
{
    double x = 0, y = 0, lon = 0, lat = 0;
    // The sample fisheye: the distortion polynomial turns at rho* = 1.5667,
    // 132.38 degrees off axis and 2491.18 px from the centre; beyond it there
    // is no sample, although the folded position would lie in the frame.
    EXPECT_NEAR(maxValidRho(-0.055, -0.03, -0.0085), 1.5666674, 1e-6);
    LensModel fish;
    fish.w = 4000, fish.h = 6000, fish.v = 169, fish.a = -0.055, fish.b = -0.03, fish.c = -0.0085;
    ASSERT_TRUE(directionToPixel(fish, 0, -132.38, x, y));
    EXPECT_NEAR(y - 2999.5, 2491.18, 0.01);
    EXPECT_FALSE(directionToPixel(fish, 0, -132.39, x, y));
    EXPECT_TRUE(pixelToDirection(fish, 1999.5, 2999.5 + 2491.0, lon, lat));
    EXPECT_FALSE(pixelToDirection(fish, 1999.5, 2999.5 + 2492.0, lon, lat));
    // No turning point without distortion or with a growing quartic; k <= 0: nothing valid.
    EXPECT_EQ(maxValidRho(0, 0, 0), std::numeric_limits<double>::infinity());
    EXPECT_EQ(maxValidRho(0.01, 0, 0), std::numeric_limits<double>::infinity());
    EXPECT_EQ(maxValidRho(0.5, 0.3, 0.2), 0);
    EXPECT_NEAR(maxValidRho(0, 0, -0.1), 5.5, 1e-12);  // 1.1 - 0.2 rho = 0
}

}  // namespace
