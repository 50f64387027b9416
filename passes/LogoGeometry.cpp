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

std::array<float, 9> logoCameraMatrix(int tile, int tileCount)
{
    const float yaw = (float(tile) + 0.5f) * float(360 / tileCount) * 0.017453292f;
    const float s = std::sin(yaw), c = std::cos(yaw);
    // Single-precision cos(90 degrees): the pitch term is kept as computed.
    const float eps = 4.371139e-08f;
    return {c, -s, s * eps, 0.0f, -eps, -1.0f, s, c, -c * eps};
}

std::array<double, 2> logoSamplePosition(const std::array<float, 9>& m, double x, double y, float outFovX,
                                         float fovTotal, int inW, int inH, int outW, int outH)
{
    const double toRad = M_PI / 180.0;
    // Tile pixel -> direction: the tile spans outFovX degrees of longitude
    // around its centre and reaches from the nadir up by as many degrees per
    // row as per column.
    const double degPerPixel = double(outFovX) / outW;
    const double lon = (x - 0.5 * outW) * degPerPixel * toRad;
    const double lat = (-90.0 + (outH - y) * degPerPixel) * toRad;
    const double v[3] = {std::cos(lat) * std::sin(lon), std::sin(lat), std::cos(lat) * std::cos(lon)};
    double p[3];
    for (int r = 0; r < 3; ++r)
        p[r] = m[r] * v[0] + m[3 + r] * v[1] + m[6 + r] * v[2];
    // p: z towards the nadir, y towards the back of the panorama, x to its
    // left. Gnomonic projection onto the plane below, scaled so that the cap
    // of fovTotal / 2 degrees becomes the logo's inscribed circle; seen from
    // above with the front at the top, image x runs to the panorama's right.
    const double radius = std::tan(0.5 * fovTotal * toRad);
    const double qx = -p[0] / p[2] / radius, qy = p[1] / p[2] / radius;
    const double half = 0.5 * std::min(inW, inH);
    return {0.5 * (inW - 1) + qx * half, 0.5 * (inH - 1) + qy * half};
}
