// Logo pass, CPU side: band and tile geometry, and the twin of the shader's
// mapping checked for what a viewer sees: a round, centred, upright logo in
// the d cube face.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "passes/CubeFaces.h"
#include "passes/Logo.h"

namespace {

// Sets LOGO_FOV for the scope of a test and restores the previous state.
class LogoFovEnv {
public:
    explicit LogoFovEnv(const char* value)
    {
        if (const char* old = std::getenv("LOGO_FOV"))
            old_ = old, hadOld_ = true;
        if (value)
            setenv("LOGO_FOV", value, 1);
        else
            unsetenv("LOGO_FOV");
    }
    ~LogoFovEnv()
    {
        if (hadOld_)
            setenv("LOGO_FOV", old_.c_str(), 1);
        else
            unsetenv("LOGO_FOV");
    }

private:
    std::string old_;
    bool hadOld_ = false;
};

// The band of a W x W/2 panorama with the default 18 degrees.
struct Band {
    int W = 2000, H = 1000, n = logoTileCount(2000), tileW = W / n, th = logoBandHeight(18.0f, H);
    float outFovX = 360.0f / float(n), fovTotal = 36.0f;
    int inW = 300, inH = 200;  // a non-square logo: its inscribed circle has radius 100

    // Logo position sampled at panorama position (X, Y), pixel centres at integers.
    std::array<double, 2> sampleAt(double X, double Y) const
    {
        const int tile = std::min(n - 1, int(std::floor((X + 0.5) / tileW)));
        const double x = X + 0.5 - tile * tileW, y = Y + 0.5 - (H - th);
        return logoSamplePosition(logoCameraMatrix(tile, n), x, y, outFovX, fovTotal, inW, inH, tileW, th);
    }
    std::array<double, 2> sampleDirection(const std::array<double, 3>& d) const
    {
        const double lon = std::atan2(d[0], d[2]) * 180 / M_PI;
        const double lat = std::asin(d[1]) * 180 / M_PI;
        return sampleAt(lon * W / 360 + (W - 1) / 2.0, (H - 1) / 2.0 - lat * H / 180);
    }
};

}  // namespace

TEST(FinishLogoGeometry, TilesAndBandHeight)
{
    EXPECT_EQ(logoTileCount(21000), 5);
    EXPECT_EQ(logoTileCount(24606), 6);
    EXPECT_EQ(21000 / logoTileCount(21000), 4200);
    EXPECT_EQ(logoBandHeight(18.0f, 10500), 1050);
    EXPECT_EQ(logoBandHeight(36.0f, 10500), 2100);
    EXPECT_EQ(logoBandHeight(18.0f, 999), 99);  // truncated, not rounded (99.9)
}

TEST(FinishLogoGeometry, FovFromEnvironment)
{
    {
        LogoFovEnv env(nullptr);
        EXPECT_FLOAT_EQ(logoFov(), 18.0f);
    }
    {
        LogoFovEnv env("36");
        EXPECT_FLOAT_EQ(logoFov(), 36.0f);
    }
    {
        LogoFovEnv env("wide");
        EXPECT_THROW(logoFov(), std::invalid_argument);
    }
}

TEST(FinishLogoGeometry, CameraMatrixKeepsTheEpsilon)
{
    // Tile 0 of 5 sits at yaw 36 degrees; the pitch terms carry the
    // single-precision cos(90 degrees) instead of 0.
    const std::array<float, 9> m = logoCameraMatrix(0, 5);
    const float yaw = 36.0f * 0.017453292f;
    EXPECT_FLOAT_EQ(m[0], std::cos(yaw));
    EXPECT_FLOAT_EQ(m[1], -std::sin(yaw));
    EXPECT_FLOAT_EQ(m[4], -4.371139e-08f);
    EXPECT_FLOAT_EQ(m[5], -1.0f);
    EXPECT_FLOAT_EQ(m[6], std::sin(yaw));
    EXPECT_NE(m[2], 0.0f);
    // Tile 3 of 6: yaw (3.5 * 60) = 210 degrees.
    const std::array<float, 9> m6 = logoCameraMatrix(3, 6);
    EXPECT_FLOAT_EQ(m6[0], std::cos(210.0f * 0.017453292f));
}

TEST(FinishLogoMapping, ContinuousAcrossTileSeams)
{
    const Band band;
    // The right edge of tile i and the left edge of tile i + 1 are the same
    // panorama column boundary: they must sample the same logo point.
    for (int i = 0; i + 1 < band.n; ++i)
        for (double y : {0.5, 40.0, 99.5}) {
            const auto a = logoSamplePosition(logoCameraMatrix(i, band.n), band.tileW, y, band.outFovX,
                                              band.fovTotal, band.inW, band.inH, band.tileW, band.th);
            const auto b = logoSamplePosition(logoCameraMatrix(i + 1, band.n), 0.0, y, band.outFovX,
                                              band.fovTotal, band.inW, band.inH, band.tileW, band.th);
            // Single-precision matrices: a thousandth of a logo pixel.
            EXPECT_NEAR(a[0], b[0], 1e-3) << i;
            EXPECT_NEAR(a[1], b[1], 1e-3) << i;
        }
}

TEST(FinishLogoMapping, RowsAreCirclesAboutTheLogoCentre)
{
    const Band band;
    const double cx = (band.inW - 1) / 2.0, cy = (band.inH - 1) / 2.0;
    double previous = 1e9;
    for (int row = 0; row < band.th; row += 9) {
        const double Y = band.H - band.th + row;
        double lo = 1e9, hi = 0;
        for (int X = 0; X < band.W; X += 7) {
            const auto p = band.sampleAt(X, Y);
            const double r = std::hypot(p[0] - cx, p[1] - cy);
            lo = std::min(lo, r);
            hi = std::max(hi, r);
        }
        EXPECT_LT(hi - lo, 1e-3) << row;   // round and centred
        EXPECT_LT(hi, 100.0) << row;       // inside the inscribed circle
        EXPECT_LT(hi, previous) << row;    // shrinking towards the nadir
        previous = hi;
    }
    // The top row is the rim of the cap: nearly the full inscribed circle.
    const auto top = band.sampleAt(0, band.H - band.th);
    EXPECT_GT(std::hypot(top[0] - cx, top[1] - cy), 95.0);
}

TEST(FinishLogoMapping, UndistortedAndUprightInTheDownFace)
{
    // In the d face (a rectilinear view straight down, front at the top) the
    // logo must be the image scaled uniformly: logo offset = K * face offset
    // with K = (inscribed radius) / tan(18 degrees), same K for x and y, no
    // turn and no mirror.
    const Band band;
    const double cx = (band.inW - 1) / 2.0, cy = (band.inH - 1) / 2.0;
    const double K = 100.0 / std::tan(18.0 * M_PI / 180);
    const int s = 512;
    const int down = 3;
    ASSERT_STREQ(kCubeFaces[down].letter, "d");
    double worst = 0;
    int checked = 0;
    for (int j = 0; j < s; j += 5)
        for (int i = 0; i < s; i += 5) {
            const double a = 2.0 * (i + 0.5) / s - 1.0, b = 2.0 * (j + 0.5) / s - 1.0;
            if (std::hypot(a, b) > std::tan(17.0 * M_PI / 180))
                continue;  // outside the band
            const auto p = band.sampleDirection(cubeFaceDirection(down, i, j, s));
            worst = std::max(worst, std::hypot(p[0] - (cx + K * a), p[1] - (cy + K * b)));
            ++checked;
        }
    EXPECT_GT(checked, 100);
    // Sampling the band at fractional panorama pixels is exact in the twin;
    // the remaining error is single-precision matrix rounding.
    EXPECT_LT(worst, 0.01);
}
