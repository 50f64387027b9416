// The CPU lens model against the measured reference vectors in
// tests/data/lens (copied from the lens conventions folder; the tolerances
// are the ones stated there).
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "project/CameraMatrix.h"
#include "project/LensModel.h"

namespace {

struct LensRow {
    std::string camera;
    LensModel lens;
    double x, y, lon, lat;
};

struct GainRow {
    std::string id;
    int w, h;
    double va, vb, vc, vd, evImage, evPano, x, y, gain;
};

std::vector<std::vector<std::string>> readTsv(const std::string& name)
{
    std::ifstream in(std::string(TESSARA_SOURCE_DIR "/tests/data/lens/") + name);
    EXPECT_TRUE(in.good()) << name;
    std::vector<std::vector<std::string>> rows;
    std::string line;
    std::getline(in, line);  // header
    while (std::getline(in, line)) {
        if (line.empty()) continue;
        std::vector<std::string> cells;
        std::stringstream ss(line);
        std::string cell;
        while (std::getline(ss, cell, '\t'))
            cells.push_back(cell);
        rows.push_back(cells);
    }
    return rows;
}

std::vector<LensRow> lensRows()
{
    std::vector<LensRow> rows;
    for (const auto& c : readTsv("lens-vectors.tsv")) {
        EXPECT_EQ(c.size(), 18u);
        if (c.size() < 17) continue;
        LensRow r;
        r.camera = c[0];
        r.lens.w = std::stoi(c[1]);
        r.lens.h = std::stoi(c[2]);
        r.lens.fisheye = std::stoi(c[3]) != 0;
        r.lens.v = std::stod(c[4]);
        r.lens.a = std::stod(c[5]);
        r.lens.b = std::stod(c[6]);
        r.lens.c = std::stod(c[7]);
        r.lens.d = std::stod(c[8]);
        r.lens.e = std::stod(c[9]);
        r.lens.yaw = std::stod(c[10]);
        r.lens.pitch = std::stod(c[11]);
        r.lens.roll = std::stod(c[12]);
        r.x = std::stod(c[13]);
        r.y = std::stod(c[14]);
        r.lon = std::stod(c[15]);
        r.lat = std::stod(c[16]);
        rows.push_back(r);
    }
    return rows;
}

// Longitude difference wrapped to (-180, 180] and scaled to an arc on the
// sphere, so rows near the poles are not penalised for meaningless longitude.
double lonError(double lon1, double lon2, double lat)
{
    double d = std::fmod(lon1 - lon2, 360.0);
    if (d > 180) d -= 360;
    if (d < -180) d += 360;
    return std::abs(d) * std::cos(lat * M_PI / 180);
}

TEST(LensVectors, TableIsComplete)
{
    // The counts stated with the data; a short read would make the other
    // tests pass vacuously.
    EXPECT_EQ(lensRows().size(), 447u);
    EXPECT_EQ(readTsv("photometric-vectors.tsv").size(), 55u);
}

TEST(LensVectors, DirectionToPixelDouble)
{
    double worst = 0;
    for (const LensRow& r : lensRows()) {
        double x = 0, y = 0;
        ASSERT_TRUE(directionToPixel(r.lens, r.lon, r.lat, x, y)) << r.camera << " " << r.x << "," << r.y;
        // 1e-4 px: the tolerance for a double implementation (printing
        // precision of the table is 1e-6 px).
        EXPECT_NEAR(x, r.x, 1e-4) << r.camera << " lon " << r.lon << " lat " << r.lat;
        EXPECT_NEAR(y, r.y, 1e-4) << r.camera << " lon " << r.lon << " lat " << r.lat;
        worst = std::max({worst, std::abs(x - r.x), std::abs(y - r.y)});
    }
    std::printf("direction->pixel (double): worst %.3g px\n", worst);
}

TEST(LensVectors, DirectionToPixelFloatLikeTheShader)
{
    double worst = 0;
    for (const LensRow& r : lensRows()) {
        const Mat3 m = cameraMatrix(float(r.lens.yaw), float(r.lens.pitch), float(r.lens.roll), {0, 0}, {0, 0});
        float x = 0, y = 0;
        ASSERT_TRUE(directionToPixelFloat(m, r.lens, float(r.lon), float(r.lat), x, y)) << r.camera;
        // 0.01 px: the tolerance for single precision, with room for GPU
        // trigonometry that is less accurate than the C library's.
        EXPECT_NEAR(x, r.x, 0.01) << r.camera << " lon " << r.lon << " lat " << r.lat;
        EXPECT_NEAR(y, r.y, 0.01) << r.camera << " lon " << r.lon << " lat " << r.lat;
        worst = std::max({worst, std::abs(x - r.x), std::abs(y - r.y)});
    }
    std::printf("direction->pixel (float): worst %.3g px\n", worst);
}

TEST(LensVectors, PixelToDirection)
{
    double worstDeg = 0;
    for (const LensRow& r : lensRows()) {
        double lon = 0, lat = 0;
        ASSERT_TRUE(pixelToDirection(r.lens, r.x, r.y, lon, lat)) << r.camera;
        // 1e-5 degrees for a double implementation; longitude as an arc.
        EXPECT_NEAR(lat, r.lat, 1e-5) << r.camera << " " << r.x << "," << r.y;
        EXPECT_LE(lonError(lon, r.lon, r.lat), 1e-5) << r.camera << " " << r.x << "," << r.y << " lon " << lon
                                                     << " want " << r.lon;
        // And back: the computed direction must land on the row's pixel.
        double x = 0, y = 0;
        ASSERT_TRUE(directionToPixel(r.lens, lon, lat, x, y));
        EXPECT_NEAR(x, r.x, 0.01);
        EXPECT_NEAR(y, r.y, 0.01);
        worstDeg = std::max({worstDeg, std::abs(lat - r.lat), lonError(lon, r.lon, r.lat)});
    }
    std::printf("pixel->direction: worst %.3g deg\n", worstDeg);
}

TEST(LensVectors, PhotometricGain)
{
    for (const auto& c : readTsv("photometric-vectors.tsv")) {
        ASSERT_EQ(c.size(), 14u);
        const double gain =
            photometricGain(std::stoi(c[1]), std::stoi(c[2]), std::stod(c[11]), std::stod(c[12]), std::stod(c[5]),
                            std::stod(c[6]), std::stod(c[7]), std::stod(c[8]), std::stod(c[9]), std::stod(c[10]));
        const double want = std::stod(c[13]);
        // Relative 1e-5: the gains were measured in float32 and printed
        // with six decimals.
        EXPECT_NEAR(gain / want, 1.0, 1e-5) << c[0] << " at " << c[11] << "," << c[12];
    }
}

// Worked examples of the conventions, stated independently of the table.
TEST(LensModel, ConventionExamples)
{
    double x = 0, y = 0, lon = 0, lat = 0;

    // Field of view from the full width w: v = 90 on a 1200 wide rectilinear
    // frame puts the horizon direction at 45 degrees on the left edge of
    // pixel 0 (x = -0.5).
    LensModel rect;
    rect.w = 1200;
    rect.h = 900;
    rect.fisheye = false;
    rect.v = 90;
    ASSERT_TRUE(directionToPixel(rect, -45, 0, x, y));
    EXPECT_NEAR(x, -0.5, 1e-9);
    EXPECT_NEAR(y, 449.5, 1e-9);
    // Behind a rectilinear camera there is no sample.
    EXPECT_FALSE(directionToPixel(rect, 180, 0, x, y));

    // Roll -90 turns the frame counter-clockwise: its top edge faces left,
    // its right edge faces up.
    LensModel rolled;
    rolled.w = 1000;
    rolled.h = 800;
    rolled.fisheye = false;
    rolled.v = 90;
    rolled.roll = -90;
    ASSERT_TRUE(pixelToDirection(rolled, 499.5, 0, lon, lat));
    EXPECT_NEAR(lon, -38.625, 1e-3);
    EXPECT_NEAR(lat, 0, 1e-9);
    ASSERT_TRUE(pixelToDirection(rolled, 999, 399.5, lon, lat));
    EXPECT_NEAR(lon, 0, 1e-9);
    EXPECT_NEAR(lat, 44.971, 1e-3);

    // The shift d, e moves the optical centre right and down.
    LensModel shifted = rolled;
    shifted.roll = 0;
    shifted.d = 17;
    shifted.e = -23;
    ASSERT_TRUE(directionToPixel(shifted, 0, 0, x, y));
    EXPECT_DOUBLE_EQ(x, 516.5);
    EXPECT_DOUBLE_EQ(y, 376.5);

    // Positive yaw moves the image right, positive pitch up, whatever roll.
    LensModel fish;
    fish.w = 4000;
    fish.h = 6000;
    fish.v = 169;
    fish.a = -0.055;
    fish.b = -0.03;
    fish.c = -0.0085;
    fish.d = -32;
    fish.e = 113;
    fish.yaw = 72;
    fish.pitch = 10;
    fish.roll = -90;
    ASSERT_TRUE(pixelToDirection(fish, 1999.5 - 32, 2999.5 + 113, lon, lat));
    EXPECT_NEAR(lon, 72, 1e-9);
    EXPECT_NEAR(lat, 10, 1e-9);
}

TEST(LensModel, ValidRadiusOfTheDistortion)
{
    // The turning point of the sample camera's polynomial and what it means
    // for the 4000 x 6000 fisheye with v = 169.
    const double rhoMax = maxValidRho(-0.055, -0.03, -0.0085);
    EXPECT_NEAR(rhoMax, 1.5666674, 1e-6);
    const double f = 4000 / (169 * M_PI / 180);
    EXPECT_NEAR(rhoMax * 2000 / f * 180 / M_PI, 132.3834, 1e-4);

    LensModel fish;
    fish.w = 4000;
    fish.h = 6000;
    fish.v = 169;
    fish.a = -0.055;
    fish.b = -0.03;
    fish.c = -0.0085;
    // Straight down from the optical axis the frame is 3000 px long, longer
    // than the reachable 2491.18 px: just inside theta* there is a sample,
    // just outside none, although the folded position would be in the image.
    double x = 0, y = 0;
    ASSERT_TRUE(directionToPixel(fish, 0, -132.38, x, y));
    EXPECT_NEAR(y - 2999.5, 2491.18, 0.01);
    EXPECT_FALSE(directionToPixel(fish, 0, -132.39, x, y));
    // Pixels beyond the reachable radius have no direction.
    double lon = 0, lat = 0;
    EXPECT_TRUE(pixelToDirection(fish, 1999.5, 2999.5 + 2491.0, lon, lat));
    EXPECT_FALSE(pixelToDirection(fish, 1999.5, 2999.5 + 2492.0, lon, lat));

    // No distortion: no turning point. k <= 0: nothing is valid.
    EXPECT_EQ(maxValidRho(0, 0, 0), std::numeric_limits<double>::infinity());
    EXPECT_EQ(maxValidRho(0.5, 0.3, 0.2), 0);
    // A positive quartic term keeps the map growing for ever.
    EXPECT_EQ(maxValidRho(0.01, 0, 0), std::numeric_limits<double>::infinity());
    // Quadratic derivative only (a = 0): 1 + 2 c rho + 0 = 0 at rho = 5 for c = -0.1
    // (k = 1.1 then: 1.1 - 0.2 rho = 0 at rho = 5.5).
    EXPECT_NEAR(maxValidRho(0, 0, -0.1), 5.5, 1e-12);
}

TEST(LensModel, RoundTripOverRandomPixels)
{
    // pixel -> direction -> pixel over random positions of several cameras,
    // including heavily distorted and shifted ones.
    std::vector<LensModel> cams;
    LensModel l;
    l.w = 4000, l.h = 6000, l.v = 169, l.a = -0.055, l.b = -0.03, l.c = -0.0085, l.d = -32, l.e = 113;
    l.yaw = 144, l.pitch = -25, l.roll = -90;
    cams.push_back(l);
    l = LensModel{};
    l.w = 1200, l.h = 900, l.fisheye = false, l.v = 90, l.a = 0.002, l.b = -0.011, l.c = 0.006, l.d = 4.5;
    l.e = -3.25, l.yaw = 10, l.pitch = 60, l.roll = 15;
    cams.push_back(l);
    l = LensModel{};
    l.w = 3000, l.h = 2000, l.v = 140, l.a = 0.012, l.b = -0.041, l.c = 0.0203, l.yaw = -170, l.pitch = 90;
    cams.push_back(l);

    std::mt19937 rng(7);
    for (const LensModel& cam : cams) {
        std::uniform_real_distribution<double> ux(-0.5, cam.w - 0.5), uy(-0.5, cam.h - 0.5);
        const LensProjection proj(cam);
        int mapped = 0;
        for (int i = 0; i < 2000; ++i) {
            const double x0 = ux(rng), y0 = uy(rng);
            std::array<double, 3> dir;
            if (!proj.toDirection(x0, y0, dir)) continue;
            ++mapped;
            double x = 0, y = 0;
            ASSERT_TRUE(proj.toPixel(dir, x, y)) << x0 << "," << y0;
            EXPECT_NEAR(x, x0, 1e-6);
            EXPECT_NEAR(y, y0, 1e-6);
        }
        // The portrait fisheye's top and bottom lie beyond its reachable
        // radius (about a quarter of the frame); the rest must map.
        EXPECT_GT(mapped, 1300);
    }
}

}  // namespace
