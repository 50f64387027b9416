// The camera rotation sent to the stitching shader: the factors of the
// orientation correction and the strip offset (the plain camera part is
// checked with the lens vectors).
#include <gtest/gtest.h>

#include <cmath>

#include "project/CameraMatrix.h"

namespace {

// Independent double-precision rotations (row-major, acting on column
// vectors) in the lens conventions' notation.
struct M3 {
    double m[3][3];
};
M3 mul(const M3& p, const M3& q)
{
    M3 r{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k)
                r.m[i][j] += p.m[i][k] * q.m[k][j];
    return r;
}
M3 Rx(double deg)
{
    const double t = deg * M_PI / 180, c = std::cos(t), s = std::sin(t);
    return {{{1, 0, 0}, {0, c, -s}, {0, s, c}}};
}
M3 Ry(double deg)
{
    const double t = deg * M_PI / 180, c = std::cos(t), s = std::sin(t);
    return {{{c, 0, s}, {0, 1, 0}, {-s, 0, c}}};
}
M3 Rz(double deg)
{
    const double t = deg * M_PI / 180, c = std::cos(t), s = std::sin(t);
    return {{{c, -s, 0}, {s, c, 0}, {0, 0, 1}}};
}

void expectStored(const Mat3& m, const M3& want, double tol)
{
    for (int r = 0; r < 3; ++r)
        for (int k = 0; k < 3; ++k)
            EXPECT_NEAR(m[3 * k + r], want.m[r][k], tol) << "row " << r << " column " << k;
}

TEST(CameraMatrix, CorrectionAndStripFactorsInTheirPlaces)
{
    // Against the composition written with ordinary rotations:
    // Rz(roll) Rx(pitch) Ry(-yaw) Rx(corrPitch) Rz(corrRoll) Ry(stripYaw) Rx(-stripTilt).
    const float yaw = 37, pitch = -21, roll = -88, cp = 4.5f, cr = -7.25f, sy = -108, st = 3;
    const M3 want = mul(mul(mul(mul(mul(mul(Rz(roll), Rx(pitch)), Ry(-yaw)), Rx(cp)), Rz(cr)), Ry(sy)), Rx(-st));
    expectStored(cameraMatrix(yaw, pitch, roll, {cp, cr}, {sy, st}), want, 2e-6);

    // The strip offset is a longitude shift: a strip-local direction at lon
    // sees what the unshifted camera sees at lon + strip yaw.
    const float lon = 12, lat = 30;
    auto dir = [](float lonDeg, float latDeg) {
        const float a = lonDeg * kDegToRad, b = latDeg * kDegToRad;
        return std::array<float, 3>{std::cos(b) * std::sin(a), std::sin(b), std::cos(b) * std::cos(a)};
    };
    const auto local = cameraMatrix(yaw, pitch, roll, {0, 0}, {sy, 0}) * dir(lon, lat);
    const auto global = cameraMatrix(yaw, pitch, roll, {0, 0}, {0, 0}) * dir(lon + sy, lat);
    for (int i = 0; i < 3; ++i)
        EXPECT_NEAR(local[i], global[i], 2e-6f);
}

}  // namespace
