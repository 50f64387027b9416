#include "project/CameraMatrix.h"

#include <cmath>

Mat3 Xm(float t)
{
    const float c = std::cos(t), s = std::sin(t);
    return {1, 0, 0, 0, c, -s, 0, s, c};
}

Mat3 Ym(float t)
{
    const float c = std::cos(t), s = std::sin(t);
    return {c, 0, -s, 0, 1, 0, s, 0, c};
}

Mat3 Zm(float t)
{
    const float c = std::cos(t), s = std::sin(t);
    return {c, -s, 0, s, c, 0, 0, 0, 1};
}

Mat3 operator*(const Mat3& p, const Mat3& q)
{
    Mat3 r{};
    for (int k = 0; k < 3; ++k)
        for (int row = 0; row < 3; ++row) {
            float sum = 0;
            for (int j = 0; j < 3; ++j)
                sum += p[3 * j + row] * q[3 * k + j];
            r[3 * k + row] = sum;
        }
    return r;
}

std::array<float, 3> operator*(const Mat3& m, const std::array<float, 3>& v)
{
    return {m[0] * v[0] + m[3] * v[1] + m[6] * v[2], m[1] * v[0] + m[4] * v[1] + m[7] * v[2],
            m[2] * v[0] + m[5] * v[1] + m[8] * v[2]};
}

Mat3 cameraMatrix(float yaw, float pitch, float roll, std::pair<float, float> correction,
                  std::pair<float, float> stripOffset)
{
    return Zm(-roll * kDegToRad) * Xm(-pitch * kDegToRad) * Ym(-yaw * kDegToRad) *
           Xm(-correction.first * kDegToRad) * Zm(-correction.second * kDegToRad) *
           Ym(stripOffset.first * kDegToRad) * Xm(stripOffset.second * kDegToRad);
}
