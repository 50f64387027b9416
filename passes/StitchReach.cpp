#include "passes/StitchReach.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <vector>

namespace {

// Points along the border of the valid area: a few source pixels apart.
constexpr int kBorderSamples = 8192;
// Output pixels added on every side for the float rounding of the shader.
constexpr int kSlack = 2;
// A pole this close (degrees) to the border counts as inside.
constexpr double kPoleSlack = 1.0;
// Points along each meridian traced in source space (every 0.022 degrees).
constexpr int kMeridianSamples = 8192;
// Source pixels added on every side (the spacing of the traced points and
// the float rounding of the shader), and degrees of longitude either side.
constexpr int kSourceSlack = 4;
constexpr double kSourceSlackDegrees = 0.25;

struct LonLat {
    double lon, lat;
};

// Strip-local direction D = cameraMat^T C of a camera-frame direction C.
LonLat localLonLat(const Mat3& m, const std::array<double, 3>& c)
{
    double d[3];
    for (int k = 0; k < 3; ++k)
        d[k] = double(m[3 * k]) * c[0] + double(m[3 * k + 1]) * c[1] + double(m[3 * k + 2]) * c[2];
    const double norm = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
    return {toDegrees(std::atan2(d[0], d[2])), toDegrees(std::asin(std::clamp(d[1] / norm, -1.0, 1.0)))};
}

// The border of the valid area (frame cut by the fold circle) as directions in
// the camera frame; false when it cannot be traced.
bool traceBorder(const LensModel& lens, std::vector<std::array<double, 3>>& border,
                 std::vector<std::array<double, 2>>* positions = nullptr)
{
    const LensProjection projection(lens);
    const double w = lens.w, h = lens.h;
    const double cx = 0.5 * (w - 1) + lens.d, cy = 0.5 * (h - 1) + lens.e;
    const double left = -0.5, right = w - 0.5, top = -0.5, bottom = h - 0.5;
    if (!(cx > left && cx < right && cy > top && cy < bottom))
        return false;
    const double radius = 0.5 * std::min(w, h);
    const double rhoMax = projection.maxRho();
    const double k = 1 - lens.a - lens.b - lens.c;
    const double circle = std::isfinite(rhoMax)
        ? radius * rhoMax * (k + rhoMax * (lens.c + rhoMax * (lens.b + rhoMax * lens.a)))
        : std::numeric_limits<double>::infinity();
    // Direction of the fold itself (where the inverse of the distortion is
    // ill-conditioned), by its angle off axis.
    const double foldRi = rhoMax * radius;
    const double foldTheta = offAxisAngle(lens.projection, projection.focal(), foldRi);

    // The valid area is convex and holds the optical centre, so every ray
    // from the centre leaves it once: walking the frame's outline and pulling
    // points beyond the circle onto it traces the border.
    const double perimeter = 2 * (w + h);
    border.clear();
    if (positions)
        positions->clear();
    double rho = -1;
    for (int i = 0; i < kBorderSamples; ++i) {
        double s = perimeter * i / kBorderSamples;
        double x, y;
        if (s < w) {
            x = left + s, y = top;
        } else if ((s -= w) < h) {
            x = right, y = top + s;
        } else if ((s -= h) < w) {
            x = right - s, y = bottom;
        } else {
            s -= w;
            x = left, y = bottom - s;
        }
        const double dx = x - cx, dy = cy - y;
        const double r = std::hypot(dx, dy);
        std::array<double, 3> c;
        if (r >= circle) {
            if (foldTheta > kPi)
                return false;
            const double sine = std::sin(foldTheta) / r;
            c = {sine * dx, sine * dy, std::cos(foldTheta)};
            rho = -1;
            x = cx + dx * circle / r;
            y = cy - dy * circle / r;
        } else if (!projection.toDirection(x, y, c, &rho)) {
            return false;
        }
        border.push_back(c);
        if (positions)
            positions->push_back({x, y});
    }
    return true;
}

}  // namespace

PixelRect reachInTarget(const LensModel& lensIn, const Mat3& cameraMat, float outFovX, int width, int height)
{
    const PixelRect whole{0, 0, width, height};
    LensModel lens = lensIn;
    lens.yaw = lens.pitch = lens.roll = 0;  // the camera frame is the world frame
    std::vector<std::array<double, 3>> border;
    if (lens.w <= 0 || lens.h <= 0 || !(lens.v > 0) || !traceBorder(lens, border))
        return whole;

    double latMin = 90, latMax = -90;
    std::vector<LonLat> points;
    points.reserve(border.size());
    for (const std::array<double, 3>& c : border) {
        points.push_back(localLonLat(cameraMat, c));
        latMin = std::min(latMin, points.back().lat);
        latMax = std::max(latMax, points.back().lat);
    }

    // A pole inside the area (or too near its border to tell) takes the
    // latitude to it and every longitude with it.
    const LensProjection projection(lens);
    bool poleInside = false;
    for (const double sign : {1.0, -1.0}) {
        // cameraMat * (0, sign, 0): its second column.
        const std::array<double, 3> pole = {sign * cameraMat[3], sign * cameraMat[4], sign * cameraMat[5]};
        double px, py;
        bool inside = projection.toPixel(pole, px, py);
        for (size_t i = 0; i < points.size() && !inside; ++i)
            inside = sign * points[i].lat > 90 - kPoleSlack;
        if (inside) {
            poleInside = true;
            (sign > 0 ? latMax : latMin) = sign * 90;
        }
    }

    const double pixelsPerDegreeY = height / 180.0;
    PixelRect rect;
    rect.y0 = std::max(0, int(std::floor((90 - latMax) * pixelsPerDegreeY - 0.5)) - kSlack);
    rect.y1 = std::min(height, int(std::ceil((90 - latMin) * pixelsPerDegreeY - 0.5)) + 1 + kSlack);
    if (poleInside) {
        rect.x0 = 0, rect.x1 = width;
        return rect;
    }

    // Without a pole inside, the longitudes the area covers are those its
    // border passes: every meridian through the area crosses the border on
    // the way to the pole. Consecutive border points are joined the short way
    // round, and the spans are tried one turn either way against the strip.
    const double half = 0.5 * outFovX;
    double lonMin = std::numeric_limits<double>::infinity(), lonMax = -lonMin;
    for (size_t i = 0; i < points.size(); ++i) {
        const double a = points[i].lon;
        double step = points[(i + 1) % points.size()].lon - a;
        step -= 360 * std::round(step / 360);
        const double lo = std::min(a, a + step), hi = std::max(a, a + step);
        for (const double turn : {-360.0, 0.0, 360.0}) {
            const double from = std::max(lo + turn, -half), to = std::min(hi + turn, half);
            if (from <= to) {
                lonMin = std::min(lonMin, from);
                lonMax = std::max(lonMax, to);
            }
        }
    }
    if (!(lonMin <= lonMax))
        return PixelRect{};
    const double pixelsPerDegreeX = width / double(outFovX);
    rect.x0 = std::max(0, int(std::floor((lonMin + half) * pixelsPerDegreeX - 0.5)) - kSlack);
    rect.x1 = std::min(width, int(std::ceil((lonMax + half) * pixelsPerDegreeX - 0.5)) + 1 + kSlack);
    return rect;
}

PixelRect reachInSource(const LensModel& lensIn, const Mat3& cameraMat, float outFovX)
{
    LensModel lens = lensIn;
    lens.yaw = lens.pitch = lens.roll = 0;  // the camera frame is the world frame
    const PixelRect whole{0, 0, lens.w, lens.h};
    std::vector<std::array<double, 3>> border;
    std::vector<std::array<double, 2>> positions;
    if (lens.w <= 0 || lens.h <= 0 || !(lens.v > 0) || !traceBorder(lens, border, &positions))
        return whole;

    // The part of the image the strip sees is bounded by the stretches of
    // the valid area's border inside the strip's longitudes and by the two
    // meridians at the strip's edges where they cross the valid area (both
    // poles lie on them): its extremes lie on those curves, which are traced
    // densely (a pixel or two apart at most) and taken a little wider.
    const double half = 0.5 * outFovX + kSourceSlackDegrees;
    double x0 = std::numeric_limits<double>::infinity(), y0 = x0, x1 = -x0, y1 = -x0;
    const auto add = [&](double x, double y) {
        x0 = std::min(x0, x), x1 = std::max(x1, x);
        y0 = std::min(y0, y), y1 = std::max(y1, y);
    };
    for (size_t i = 0; i < border.size(); ++i)
        if (std::fabs(localLonLat(cameraMat, border[i]).lon) <= half)
            add(positions[i][0], positions[i][1]);
    const LensProjection projection(lens);
    for (const double lon : {-half, half})
        for (int i = 0; i <= kMeridianSamples; ++i) {
            const std::array<double, 3> d = directionOf(lon, -90.0 + 180.0 * i / kMeridianSamples);
            std::array<double, 3> c;
            for (int r = 0; r < 3; ++r)
                c[r] = double(cameraMat[r]) * d[0] + double(cameraMat[3 + r]) * d[1] + double(cameraMat[6 + r]) * d[2];
            double x, y;
            if (projection.toPixel(c, x, y))
                add(x, y);
        }
    if (!(x0 <= x1))
        return PixelRect{};
    // A sample at x reads the texels floor(x) and floor(x) + 1.
    PixelRect rect;
    rect.x0 = std::max(0, int(std::floor(x0)) - kSourceSlack);
    rect.y0 = std::max(0, int(std::floor(y0)) - kSourceSlack);
    rect.x1 = std::min(lens.w, int(std::floor(x1)) + 2 + kSourceSlack);
    rect.y1 = std::min(lens.h, int(std::floor(y1)) + 2 + kSourceSlack);
    return rect;
}
