#pragma once
// Angles and rotations: degrees to radians, the elementary rotations and the
// camera rotation of a source image as the stitching shader receives it.
//
// Matrices are 3x3 single precision, stored column-major as nine floats
// (m0 m1 m2 is the first column; element (row r, column k) at index 3k + r),
// and go to GL untransposed. Angles are degrees in the project and radians
// here; the conversion uses the single-precision factor kDegToRad and the
// single-precision sine and cosine, so CPU and GPU see the same numbers.
//
// cameraMat * D (D = (cos lat sin lon, sin lat, cos lat cos lon), x right,
// y up, z forward) gives the direction in the camera frame: x towards the
// image's right, y towards its top, z along the optical axis.
#include <array>
#include <utility>

using Mat3 = std::array<float, 9>;

constexpr float kDegToRad = 0.017453292f;

// Double precision, for the geometry only the CPU computes.
constexpr double kPi = 3.14159265358979323846;
constexpr double toRadians(double degrees) { return degrees * (kPi / 180.0); }
constexpr double toDegrees(double radians) { return radians * (180.0 / kPi); }

// Elementary rotations by t radians, as stored:
// Xm: 1, 0, 0, 0, c, -s, 0, s, c   Ym: c, 0, -s, 0, 1, 0, s, 0, c
// Zm: c, -s, 0, s, c, 0, 0, 0, 1
Mat3 Xm(float t);
Mat3 Ym(float t);
Mat3 Zm(float t);

// Ordinary matrix product of two column-major matrices.
Mat3 operator*(const Mat3& p, const Mat3& q);

// Matrix times column vector, as GLSL evaluates mat3 * vec3.
std::array<float, 3> operator*(const Mat3& m, const std::array<float, 3>& v);

// Zm(-roll) Xm(-pitch) Ym(-yaw) Xm(-correction.first) Zm(-correction.second)
// Ym(stripOffset.first) Xm(stripOffset.second), all angles in degrees.
// correction = (pitch, roll) of the orientation entry; stripOffset = (start
// longitude of the strip being drawn, tilt).
Mat3 cameraMatrix(float yaw, float pitch, float roll, std::pair<float, float> correction,
                  std::pair<float, float> stripOffset);
