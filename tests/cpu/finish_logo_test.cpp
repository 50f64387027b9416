// Logo pass, CPU side: band and tile geometry, and the twin of the shader's
// mapping checked for what a viewer sees: a round, centred, upright logo in
// the d cube face.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "passes/CubeFaces.h"
#include "passes/Logo.h"

namespace {
// The band of a 2000 x 1000 panorama with the default 18 degrees and a
// 300 x 200 logo (inscribed circle of radius 100).
struct Band {
    int W = 2000, H = 1000, n = logoTileCount(2000), tileW = W / n, th = logoBandHeight(18.0f, H);
    int inW = 300, inH = 200;
    double cx = (inW - 1) / 2.0, cy = (inH - 1) / 2.0;

    // Logo position sampled at panorama position (X, Y), pixel centres at integers.
    std::array<double, 2> sampleAt(double X, double Y) const
    {
        const int tile = std::min(n - 1, int(std::floor((X + 0.5) / tileW)));
        return logoSamplePosition(logoCameraMatrix(tile, n), X + 0.5 - tile * tileW, Y + 0.5 - (H - th),
                                  360.0f / float(n), 36.0f, inW, inH, tileW, th);
    }
};
}  // namespace

TEST(FinishLogoGeometry, TilesBandHeightAndFov)
{
    EXPECT_EQ(logoTileCount(21000), 5);
    EXPECT_EQ(logoTileCount(24606), 6);
    EXPECT_EQ(logoBandHeight(18.0f, 10500), 1050);
    EXPECT_EQ(logoBandHeight(36.0f, 10500), 2100);
    EXPECT_EQ(logoBandHeight(18.0f, 999), 99);  // truncated, not rounded (99.9)

    const char* old = std::getenv("LOGO_FOV");
    const std::string saved = old ? old : "";
    unsetenv("LOGO_FOV");
    EXPECT_FLOAT_EQ(logoFov(), 18.0f);
    setenv("LOGO_FOV", "36", 1);
    EXPECT_FLOAT_EQ(logoFov(), 36.0f);
    setenv("LOGO_FOV", "wide", 1);
    EXPECT_THROW(logoFov(), std::invalid_argument);
    old ? setenv("LOGO_FOV", saved.c_str(), 1) : unsetenv("LOGO_FOV");
}

TEST(FinishLogoMapping, RowsAreCirclesAboutTheLogoCentre)
{
    const Band band;
    double previous = 1e9;
    for (int row = 0; row < band.th; row += 9) {
        double lo = 1e9, hi = 0;
        for (int X = 0; X < band.W; X += 7) {
            const auto p = band.sampleAt(X, band.H - band.th + row);
            const double r = std::hypot(p[0] - band.cx, p[1] - band.cy);
            lo = std::min(lo, r);
            hi = std::max(hi, r);
        }
        EXPECT_LT(hi - lo, 1e-3) << row;  // round and centred, also across tile seams
        EXPECT_LT(hi, 100.0) << row;      // inside the inscribed circle
        EXPECT_LT(hi, previous) << row;   // shrinking towards the nadir
        previous = hi;
    }
    const auto top = band.sampleAt(0, band.H - band.th);  // the rim of the cap
    EXPECT_GT(std::hypot(top[0] - band.cx, top[1] - band.cy), 95.0);
}

TEST(FinishLogoMapping, UndistortedAndUprightInTheDownFace)
{
    // In the d face (straight down, front at the top) the logo is the image
    // scaled uniformly: logo offset = K * face offset with K = 100 / tan(18
    // degrees), the same K for x and y, no turn and no mirror.
    const Band band;
    const double K = 100.0 / std::tan(18.0 * M_PI / 180);
    const int s = 512, down = 3;
    ASSERT_STREQ(kCubeFaces[down].letter, "d");
    double worst = 0;
    int checked = 0;
    for (int j = 0; j < s; j += 5)
        for (int i = 0; i < s; i += 5) {
            const double a = 2.0 * (i + 0.5) / s - 1.0, b = 2.0 * (j + 0.5) / s - 1.0;
            if (std::hypot(a, b) > std::tan(17.0 * M_PI / 180))
                continue;  // outside the band
            const auto d = cubeFaceDirection(down, i, j, s);
            const double lon = std::atan2(d[0], d[2]) * 180 / M_PI, lat = std::asin(d[1]) * 180 / M_PI;
            const auto p = band.sampleAt(lon * band.W / 360 + (band.W - 1) / 2.0, (band.H - 1) / 2.0 - lat * band.H / 180);
            worst = std::max(worst, std::hypot(p[0] - (band.cx + K * a), p[1] - (band.cy + K * b)));
            ++checked;
        }
    EXPECT_GT(checked, 100);
    EXPECT_LT(worst, 0.01);  // single-precision matrix rounding
}
