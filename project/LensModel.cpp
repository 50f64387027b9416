#include "project/LensModel.h"

#include <algorithm>
#include <cmath>
#include <limits>


namespace {
constexpr double kInf = std::numeric_limits<double>::infinity();

double cubic(const double* p, double x) { return ((p[3] * x + p[2]) * x + p[1]) * x + p[0]; }

// Smallest root in (0, inf) of the polynomial p0 + p1 x + p2 x^2 + p3 x^3
// given p0 > 0, found by splitting (0, inf) at the turning points into pieces
// where it is monotonic and bisecting the first piece where it reaches 0.
double smallestPositiveRoot(const double* p)
{
    double turns[2];
    int nTurns = 0;
    const double qa = 3 * p[3], qb = 2 * p[2], qc = p[1];  // derivative
    if (qa != 0) {
        const double disc = qb * qb - 4 * qa * qc;
        if (disc >= 0) {
            const double s = std::sqrt(disc);
            turns[nTurns++] = (-qb - s) / (2 * qa);
            turns[nTurns++] = (-qb + s) / (2 * qa);
        }
    } else if (qb != 0) {
        turns[nTurns++] = -qc / qb;
    }
    std::sort(turns, turns + nTurns);

    double bounds[4];
    int nBounds = 0;
    bounds[nBounds++] = 0;
    for (int i = 0; i < nTurns; ++i)
        if (turns[i] > 0) bounds[nBounds++] = turns[i];

    auto bisect = [&](double lo, double hi) {
        for (int i = 0; i < 200 && hi - lo > 0; ++i) {
            const double mid = 0.5 * (lo + hi);
            if (mid <= lo || mid >= hi) break;
            (cubic(p, mid) > 0 ? lo : hi) = mid;
        }
        return hi;
    };
    for (int i = 0; i + 1 < nBounds; ++i)
        if (cubic(p, bounds[i + 1]) <= 0) return bisect(bounds[i], bounds[i + 1]);

    // Last piece, unbounded: it reaches 0 only if the leading term is negative.
    const double lead = p[3] != 0 ? p[3] : p[2] != 0 ? p[2] : p[1];
    if (lead >= 0) return kInf;
    double lo = bounds[nBounds - 1], hi = std::max(1.0, 2 * lo);
    while (cubic(p, hi) > 0) {
        lo = hi;
        hi *= 2;
        if (!std::isfinite(hi)) return kInf;
    }
    return bisect(lo, hi);
}
}  // namespace

LensModel lensModelOf(const ImageEntry& entry)
{
    LensModel lens;
    lens.w = entry.width;
    lens.h = entry.height;
    lens.projection = entry.projection;
    lens.v = entry.fov;
    lens.a = entry.a;
    lens.b = entry.b;
    lens.c = entry.c;
    lens.d = entry.d;
    lens.e = entry.e;
    lens.yaw = entry.yaw;
    lens.pitch = entry.pitch;
    lens.roll = entry.roll;
    return lens;
}

double maxValidRho(double a, double b, double c)
{
    const double k = 1 - a - b - c;
    if (!(k > 0)) return 0;
    const double p[4] = {k, 2 * c, 3 * b, 4 * a};
    return smallestPositiveRoot(p);
}

double photometricGain(int w, int h, double x, double y, double va, double vb, double vc, double vd,
                       double evImage, double evPano)
{
    const double dx = x - (w - 1) / 2.0, dy = y - (h - 1) / 2.0;
    const double r2 = (dx * dx + dy * dy) / (0.25 * (double(w) * w + double(h) * h));
    const double vig = va + r2 * (vb + r2 * (vc + r2 * vd));
    return std::exp2(evImage - evPano) / vig;
}

std::array<double, 3> directionOf(double lonDeg, double latDeg)
{
    const double lon = toRadians(lonDeg), lat = toRadians(latDeg);
    return {std::cos(lat) * std::sin(lon), std::sin(lat), std::cos(lat) * std::cos(lon)};
}

void lonLatOf(const std::array<double, 3>& dir, double& lonDeg, double& latDeg)
{
    lonDeg = toDegrees(std::atan2(dir[0], dir[2]));
    latDeg = toDegrees(std::atan2(dir[1], std::sqrt(dir[0] * dir[0] + dir[2] * dir[2])));
}

LensProjection::LensProjection(const LensModel& lens) : lens_(lens)
{
    // M = Rz(roll) Rx(pitch) Ry(-yaw), row-major.
    const double cr = std::cos(toRadians(lens.roll)), sr = std::sin(toRadians(lens.roll));
    const double cp = std::cos(toRadians(lens.pitch)), sp = std::sin(toRadians(lens.pitch));
    const double cy = std::cos(toRadians(-lens.yaw)), sy = std::sin(toRadians(-lens.yaw));
    const double rz[9] = {cr, -sr, 0, sr, cr, 0, 0, 0, 1};
    const double rx[9] = {1, 0, 0, 0, cp, -sp, 0, sp, cp};
    const double ry[9] = {cy, 0, sy, 0, 1, 0, -sy, 0, cy};
    double t[9];
    auto mul = [](const double* p, const double* q, double* r) {
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                r[3 * i + j] = p[3 * i] * q[j] + p[3 * i + 1] * q[3 + j] + p[3 * i + 2] * q[6 + j];
    };
    mul(rz, rx, t);
    mul(t, ry, m_);

    const double vRad = toRadians(lens.v);
    f_ = focalLength(lens.projection, double(lens.w), vRad);
    radius_ = std::min(lens.w, lens.h) / 2.0;
    k_ = 1 - lens.a - lens.b - lens.c;
    rhoMax_ = maxValidRho(lens.a, lens.b, lens.c);
    pMax_ = std::isfinite(rhoMax_)
                ? rhoMax_ * (k_ + rhoMax_ * (lens.c + rhoMax_ * (lens.b + rhoMax_ * lens.a)))
                : kInf;
    cx_ = (lens.w - 1) / 2.0 + lens.d;
    cy_ = (lens.h - 1) / 2.0 + lens.e;
}

bool LensProjection::toPixel(const std::array<double, 3>& dir, double& x, double& y) const
{
    const double cxv = m_[0] * dir[0] + m_[1] * dir[1] + m_[2] * dir[2];
    const double cyv = m_[3] * dir[0] + m_[4] * dir[1] + m_[5] * dir[2];
    const double czv = m_[6] * dir[0] + m_[7] * dir[1] + m_[8] * dir[2];
    const double q = std::sqrt(cxv * cxv + cyv * cyv);
    double ri;
    if (!idealRadius(lens_.projection, f_, q, czv, ri)) return false;
    const double rho = ri / radius_;
    if (!(rho < rhoMax_)) return false;
    if (q > 0) {
        const double rs = ri * (k_ + rho * (lens_.c + rho * (lens_.b + rho * lens_.a)));
        x = cx_ + rs * cxv / q;
        y = cy_ - rs * cyv / q;
    } else {
        x = cx_;
        y = cy_;
    }
    return x >= -0.5 && x <= lens_.w - 0.5 && y >= -0.5 && y <= lens_.h - 0.5;
}

bool LensProjection::invertDistortion(double t, double& rho) const
{
    if (!(t < pMax_)) return false;
    const double a = lens_.a, b = lens_.b, c = lens_.c, k = k_;
    auto P = [&](double r) { return r * (k + r * (c + r * (b + r * a))); };
    auto dP = [&](double r) { return k + r * (2 * c + r * (3 * b + r * 4 * a)); };
    // P increases on [0, rhoMax): keep a bracket [lo, hi] around the root and
    // fall back to bisection whenever Newton leaves it.
    double lo = 0, hi = rhoMax_;
    if (!std::isfinite(hi)) {
        hi = std::max(1.0, 2 * t);
        while (P(hi) < t) {
            lo = hi;
            hi *= 2;
            if (!std::isfinite(hi)) return false;
        }
    }
    double r = (rho > lo && rho < hi) ? rho : std::min(std::max(t / k, lo), hi);
    for (int i = 0; i < 100; ++i) {
        const double err = P(r) - t;
        if (err == 0) break;
        (err < 0 ? lo : hi) = r;
        const double slope = dP(r);
        double next = slope > 0 ? r - err / slope : lo - 1;
        if (!(next > lo && next < hi)) next = 0.5 * (lo + hi);
        // Newton converges quadratically: after a step of 1e-7 the error is
        // of order 1e-14, far below anything a pixel position can show.
        if (std::abs(next - r) <= 1e-7 * std::max(1.0, r)) {
            r = next;
            break;
        }
        r = next;
    }
    rho = r;
    return true;
}

bool LensProjection::toDirection(double x, double y, std::array<double, 3>& dir,
                                 double* rhoInOut) const
{
    const double px = x - cx_, py = cy_ - y;
    const double rs = std::sqrt(px * px + py * py);
    double rho = rhoInOut ? *rhoInOut : -1;
    if (!invertDistortion(rs / radius_, rho)) return false;
    if (rhoInOut) *rhoInOut = rho;
    const double ri = rho * radius_;
    const double theta = offAxisAngle(lens_.projection, f_, ri);
    if (theta > kPi) return false;
    double c[3] = {0, 0, 1};
    if (rs > 0) {
        const double s = std::sin(theta) / rs;
        c[0] = s * px;
        c[1] = s * py;
        c[2] = std::cos(theta);
    }
    // D = M^T C
    for (int j = 0; j < 3; ++j)
        dir[j] = m_[j] * c[0] + m_[3 + j] * c[1] + m_[6 + j] * c[2];
    return true;
}

bool directionToPixel(const LensModel& lens, double lonDeg, double latDeg, double& x, double& y)
{
    return LensProjection(lens).toPixel(directionOf(lonDeg, latDeg), x, y);
}

bool pixelToDirection(const LensModel& lens, double x, double y, double& lonDeg, double& latDeg)
{
    std::array<double, 3> dir;
    if (!LensProjection(lens).toDirection(x, y, dir)) return false;
    lonLatOf(dir, lonDeg, latDeg);
    return true;
}

bool directionToPixelFloat(const Mat3& cameraMat, const LensModel& lens, float lonDeg, float latDeg,
                           float& x, float& y)
{
    const float lon = lonDeg * kDegToRad, lat = latDeg * kDegToRad;
    const std::array<float, 3> dir = {std::cos(lat) * std::sin(lon), std::sin(lat),
                                      std::cos(lat) * std::cos(lon)};
    const std::array<float, 3> cam = cameraMat * dir;
    const float w = float(lens.w), h = float(lens.h);
    const float vRad = float(lens.v) * kDegToRad;
    const float a = float(lens.a), b = float(lens.b), c = float(lens.c);
    const float k = 1.0f - a - b - c;
    const float q = std::sqrt(cam[0] * cam[0] + cam[1] * cam[1]);
    float ri;
    if (!idealRadius(lens.projection, focalLength(lens.projection, w, vRad), q, cam[2], ri)) return false;
    const float rho = ri / (0.5f * std::min(w, h));
    if (!(rho < float(maxValidRho(lens.a, lens.b, lens.c)))) return false;
    const float rs = ri * (k + rho * (c + rho * (b + rho * a)));
    const float ux = q > 0.0f ? cam[0] / q : 0.0f, uy = q > 0.0f ? cam[1] / q : 0.0f;
    x = 0.5f * (w - 1.0f) + float(lens.d) + rs * ux;
    y = 0.5f * (h - 1.0f) + float(lens.e) - rs * uy;
    return x >= -0.5f && x <= w - 0.5f && y >= -0.5f && y <= h - 0.5f;
}
