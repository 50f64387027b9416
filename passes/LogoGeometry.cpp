// Geometry of the logo pass and the CPU twin of its shader branch. No GL.
#include <cmath>
#include <cstdlib>
#include <string>

#include "passes/Logo.h"

float logoFov()
{
    const char* text = std::getenv("LOGO_FOV");
    return text ? std::stof(text) : 18.0f;
}

int logoTileCount(int width) { return width % 5 == 0 ? 5 : 6; }

int logoBandHeight(float fov, int height) { return int(fov / 180.0f * float(height)); }

Mat3 logoCameraMatrix(int tile, int tileCount)
{
    const float yaw = (float(tile) + 0.5f) * float(360 / tileCount) * kDegToRad;
    // The pitch's single-precision cosine is not 0: its small terms stay in.
    return Xm(90.0f * kDegToRad) * Ym(yaw);
}

std::array<double, 2> logoSamplePosition(const Mat3& m, double x, double y, float outFovX,
                                         float fovTotal, int inW, int inH, int outW, int outH)
{
    // Tile pixel -> direction: the tile spans outFovX degrees of longitude
    // around its centre and reaches from the nadir up by as many degrees per
    // row as per column.
    const double degPerPixel = double(outFovX) / outW;
    const double lon = toRadians((x - 0.5 * outW) * degPerPixel);
    const double lat = toRadians(-90.0 + (outH - y) * degPerPixel);
    const double v[3] = {std::cos(lat) * std::sin(lon), std::sin(lat), std::cos(lat) * std::cos(lon)};
    double p[3];
    for (int r = 0; r < 3; ++r)
        p[r] = m[r] * v[0] + m[3 + r] * v[1] + m[6 + r] * v[2];
    // p: z towards the nadir, y towards the back of the panorama, x to its
    // left. Gnomonic projection onto the plane below, scaled so that the cap
    // of fovTotal / 2 degrees becomes the logo's inscribed circle; seen from
    // above with the front at the top, image x runs to the panorama's right.
    const double radius = std::tan(toRadians(0.5 * fovTotal));
    const double qx = -p[0] / p[2] / radius, qy = p[1] / p[2] / radius;
    const double half = 0.5 * std::min(inW, inH);
    return {0.5 * (inW - 1) + qx * half, 0.5 * (inH - 1) + qy * half};
}
