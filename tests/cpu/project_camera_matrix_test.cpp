// The camera rotation sent to the stitching shader.
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

TEST(CameraMatrix, IdentityAndQuarterTurn)
{
    const Mat3 id = cameraMatrix(0, 0, 0, {0, 0}, {0, 0});
    const Mat3 want = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    EXPECT_EQ(id, want);

    // yaw 90 alone is Ym(-pi/2): stored 0, 0, 1, 0, 1, 0, -1, 0, 0.
    const Mat3 yaw90 = cameraMatrix(90, 0, 0, {0, 0}, {0, 0});
    const float expect[9] = {0, 0, 1, 0, 1, 0, -1, 0, 0};
    for (int i = 0; i < 9; ++i)
        EXPECT_NEAR(yaw90[i], expect[i], 1e-6f) << i;
}

TEST(CameraMatrix, WorldToCameraOfTheWorkedExamples)
{
    // Zm(-roll) Xm(-pitch) Ym(-yaw) times D must give C of the lens
    // conventions' worked examples (fisheye row FP1, rectilinear row RE3).
    struct Example {
        float yaw, pitch, roll;
        std::array<float, 3> d, c;
    } examples[] = {
        {72, 10, -90, {0.011599912f, -0.841197826f, -0.540603051f}, {-0.801324969f, -0.517728625f, -0.299725482f}},
        {10, 60, 15, {0.580562802f, 0.537307781f, 0.611757454f}, {0.537752757f, -0.208319658f, 0.816960766f}},
    };
    for (const Example& ex : examples) {
        const Mat3 m = Zm(-ex.roll * kDegToRad) * Xm(-ex.pitch * kDegToRad) * Ym(-ex.yaw * kDegToRad);
        const std::array<float, 3> c = m * ex.d;
        for (int i = 0; i < 3; ++i)
            EXPECT_NEAR(c[i], ex.c[i], 2e-6f) << "yaw " << ex.yaw << " component " << i;
        // With no correction and no strip offset cameraMatrix is that product.
        const std::array<float, 3> c2 = cameraMatrix(ex.yaw, ex.pitch, ex.roll, {0, 0}, {0, 0}) * ex.d;
        for (int i = 0; i < 3; ++i)
            EXPECT_NEAR(c2[i], ex.c[i], 2e-6f);
    }
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
