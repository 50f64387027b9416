// The logo pass against the real driver: what the d cube face shows, the band
// it replaces, HDR output and LOGO_FOV.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "finish_helpers.h"
#include "image/Jpeg.h"
#include "image/Rgbe.h"
#include "passes/CubeFaces.h"
#include "passes/Logo.h"

namespace {

// 400 x 400 logo: white, a red disc of radius 100 in the middle and a blue
// square in its top-left quadrant that shows which way up it is.
std::string writeLogo(const std::string& dir)
{
    Image logo(400, 400, 3);
    for (int y = 0; y < 400; ++y)
        for (int x = 0; x < 400; ++x) {
            uint8_t* p = logo.pixel(x, y);
            const bool disc = std::hypot(x - 199.5, y - 199.5) < 100;
            const bool marker = x >= 140 && x < 170 && y >= 140 && y < 170;
            p[0] = marker ? 0 : 255;
            p[1] = p[2] = disc || marker ? 0 : 255;
            if (marker)
                p[2] = 255;
        }
    const std::string path = dir + "/logo.jpg";
    writeJpeg(logo, path);
    return path;
}

Image greyPanorama(int w, int h)
{
    Image pano(w, h, 3);
    std::fill(pano.data, pano.data + pano.byteSize(), uint8_t(90));
    return pano;
}

class ScopedLogoFov {
public:
    explicit ScopedLogoFov(const char* v) { setenv("LOGO_FOV", v, 1); }
    ~ScopedLogoFov() { unsetenv("LOGO_FOV"); }
};

}  // namespace

TEST(FinishLogoGL, RoundCentredAndUprightInTheDownFace)
{
    const std::string dir = finishTempDir("logo_d");
    const std::string logoPath = writeLogo(dir);
    Image pano = greyPanorama(2000, 1000);
    drawLogo(2000, 1000, pano.data, pano.stride(), logoPath, false);

    // Only the band of 18 degrees (100 rows) changed.
    for (int y : {0, 500, 899})
        for (int x = 0; x < 2000; x += 37)
            ASSERT_EQ(pano.pixel(x, y)[0], 90) << x << "," << y;
    int changed = 0;
    for (int x = 0; x < 2000; ++x)
        changed += pano.pixel(x, 999)[0] != 90;
    EXPECT_EQ(changed, 2000);

    const int s = 512;
    writeCubeFacesJpeg(pano, s, dir + "/pano");
    const Image down = readJpeg(dir + "/pano_d.jpg");

    // Red pixels: the disc.
    double n = 0, sx = 0, sy = 0, sxx = 0, syy = 0, sxy = 0;
    double bx = 0, by = 0, bn = 0;
    for (int j = 0; j < s; ++j)
        for (int i = 0; i < s; ++i) {
            const uint8_t* p = down.pixel(i, j);
            if (p[0] > 160 && p[1] < 100 && p[2] < 100)
                n += 1, sx += i, sy += j, sxx += double(i) * i, syy += double(j) * j, sxy += double(i) * j;
            if (p[2] > 160 && p[0] < 100 && p[1] < 100)
                bx += i, by += j, bn += 1;
        }
    ASSERT_GT(n, 1000);
    const double cx = sx / n, cy = sy / n;
    const double vxx = sxx / n - cx * cx, vyy = syy / n - cy * cy, vxy = sxy / n - cx * cy;
    // Disc radius 100 of the 200-pixel inscribed radius, which spans
    // tan(18 degrees) of the face's half width of 1: 41.6 face pixels.
    const double expectedRadius = 0.5 * std::tan(18 * M_PI / 180) * s / 2;
    // Centred: the marker's bite out of one quadrant moves the centroid by
    // about half a pixel; a logo off the nadir by even 0.5 degrees would move
    // it by 2.5 pixels.
    EXPECT_NEAR(cx, (s - 1) / 2.0, 1.5);
    EXPECT_NEAR(cy, (s - 1) / 2.0, 1.5);
    // Round: equal spread in x and y, no skew; area of the expected circle
    // less the marker, within the JPEG's soft edge.
    EXPECT_NEAR(vxx / vyy, 1.0, 0.04);
    EXPECT_LT(std::fabs(vxy) / vxx, 0.04);
    const double markerArea = std::pow(0.3 * expectedRadius, 2);  // 30 logo pixels of 100 per radius
    EXPECT_NEAR(n, M_PI * expectedRadius * expectedRadius - markerArea, 0.08 * n);
    // Upright and not mirrored: the marker is up and to the left of centre.
    ASSERT_GT(bn, 20);
    EXPECT_LT(bx / bn, cx - 5);
    EXPECT_LT(by / bn, cy - 5);
}

TEST(FinishLogoGL, HdrBandIsRgbeOfTheLogo)
{
    const std::string dir = finishTempDir("logo_hdr");
    const std::string logoPath = writeLogo(dir);
    Image pano(2000, 1000, 4);  // black RGBE
    drawLogo(2000, 1000, pano.data, pano.stride(), logoPath, true);
    // The nadir row shows the disc's middle: red at the logo's white level
    // (4.0 linear), green and blue 0. The band's top row shows the white rim.
    float rgb[3];
    rgbeToFloat(pano.pixel(1000, 999), rgb);
    EXPECT_NEAR(rgb[0], 4.0f, 0.1f);
    EXPECT_LT(rgb[1], 0.05f);
    rgbeToFloat(pano.pixel(10, 900), rgb);
    for (int k = 0; k < 3; ++k)
        EXPECT_NEAR(rgb[k], 4.0f, 0.1f) << k;
    rgbeToFloat(pano.pixel(10, 899), rgb);
    EXPECT_EQ(rgb[0], 0.0f);  // above the band: untouched
}

TEST(FinishLogoGL, LogoFovSetsTheBandHeight)
{
    const std::string dir = finishTempDir("logo_fov");
    const std::string logoPath = writeLogo(dir);
    Image pano = greyPanorama(1206, 603);  // not a multiple of 5: 6 tiles of 201
    {
        ScopedLogoFov fov("36");
        drawLogo(1206, 603, pano.data, pano.stride(), logoPath, false);
    }
    // 36 degrees of 603 rows: 120 rows (120.6 truncated), across the width.
    for (int x = 0; x < 1206; x += 67) {
        EXPECT_NE(pano.pixel(x, 483)[0], 90) << x;
        EXPECT_EQ(pano.pixel(x, 482)[0], 90) << x;
    }

    ScopedLogoFov bad("wide");
    EXPECT_THROW(drawLogo(1206, 603, pano.data, pano.stride(), logoPath, false), std::invalid_argument);
}

TEST(FinishLogoGL, MissingLogoFileFails)
{
    Image pano = greyPanorama(1000, 500);
    EXPECT_THROW(drawLogo(1000, 500, pano.data, pano.stride(), "/nonexistent/logo.jpg", false), std::runtime_error);
}
