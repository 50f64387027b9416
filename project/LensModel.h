#pragma once
// The camera and lens model of one source image, in plain C++: for a panorama
// direction, which source pixel to sample, and the inverse. The stitching
// shader evaluates the same model on the GPU; this is its tested twin.
//
// Conventions (all angles in degrees):
// - Source pixels: x right, y down, pixel centres at integers, so the image
//   area is [-0.5, w - 0.5] x [-0.5, h - 0.5] and the geometric centre is
//   ((w - 1) / 2, (h - 1) / 2). The optical centre is that plus (d, e).
// - Directions: longitude grows to the right of the panorama, latitude up;
//   D = (cos lat sin lon, sin lat, cos lat cos lon).
// - Orientation: world to camera M = Rz(roll) Rx(pitch) Ry(-yaw), the same
//   rotation as cameraMatrix(yaw, pitch, roll, {0, 0}, {0, 0}).
// - Projection: v is the field of view across the width w. Fisheye
//   (equidistant): f = w / v_rad, r_i = f theta. Rectilinear: f = (w / 2) /
//   tan(v_rad / 2), r_i = f tan theta, only in front of the camera.
// - Distortion about the optical centre: R = min(w, h) / 2, rho = r_i / R,
//   k = 1 - a - b - c, r_s = r_i (a rho^3 + b rho^2 + c rho + k); directions
//   with rho at or past the first turning point of r_s (maxValidRho) have no
//   sample.
// - Centre shift: x = cx + d + r_s Cx / q, y = cy + e - r_s Cy / q.
#include <array>
#include <cmath>

#include "project/CameraMatrix.h"
#include "project/Project.h"

struct LensModel {
    int w = 0, h = 0;
    Projection projection = Projection::FullFrameFisheye;
    double v = 0, a = 0, b = 0, c = 0, d = 0, e = 0, yaw = 0, pitch = 0, roll = 0;
    bool fisheye() const { return isFisheye(projection); }
};

// The model of a project entry, with its projection.
LensModel lensModelOf(const ImageEntry& entry);

// Focal length in pixels of a lens whose field of view (radians) spans
// `width` pixels: width / fov for a fisheye, (width / 2) / tan(fov / 2) for
// a rectilinear lens. In the precision of T, as the shader's twin needs it.
template <class T>
T focalLength(Projection projection, T width, T fovRad)
{
    return isFisheye(projection) ? width / fovRad : T(0.5) * width / std::tan(T(0.5) * fovRad);
}

// Distance from the axis on the undistorted image of the camera-frame
// direction with transverse length q and axial component z: f theta for a
// fisheye, f q / z for a rectilinear lens (which sees nothing at z <= 0:
// false).
template <class T>
bool idealRadius(Projection projection, T focal, T q, T z, T& radius)
{
    if (isFisheye(projection)) {
        radius = focal * std::atan2(q, z);
        return true;
    }
    if (z <= T(0)) return false;
    radius = focal * q / z;
    return true;
}

// The angle off the axis (radians) at distance `radius` from it on the
// undistorted image; the inverse of idealRadius.
inline double offAxisAngle(Projection projection, double focal, double radius)
{
    return isFisheye(projection) ? radius / focal : std::atan(radius / focal);
}

// Direction (lon, lat) to source pixel (x, y). False when the direction has no
// sample: behind a rectilinear camera, past the valid radius, or outside the
// image area.
bool directionToPixel(const LensModel& lens, double lonDeg, double latDeg, double& x, double& y);

// Source position (x, y) to direction. False when the position lies beyond the
// largest radius the lens reaches (or more than 180 degrees off axis). The
// position need not lie inside the image.
bool pixelToDirection(const LensModel& lens, double x, double y, double& lonDeg, double& latDeg);

// Smallest positive root of d/drho (a rho^4 + b rho^3 + c rho^2 + k rho), the
// normalised radius where the distortion folds back; +infinity if there is
// none, 0 when k <= 0 (the map never grows).
double maxValidRho(double a, double b, double c);

// Linear gain from source to panorama value at source position (x, y):
// 2^(evImage - evPano) / V with V = va + vb r^2 + vc r^4 + vd r^6, r measured
// from the geometric centre (not shifted by d, e) in units of half the
// image diagonal.
double photometricGain(int w, int h, double x, double y, double va, double vb, double vc, double vd,
                       double evImage, double evPano);

// Unit direction vector of (lon, lat) and back.
std::array<double, 3> directionOf(double lonDeg, double latDeg);
void lonLatOf(const std::array<double, 3>& dir, double& lonDeg, double& latDeg);

// The model with everything that depends only on the lens precomputed, for
// loops over many pixels. Directions are world unit vectors.
class LensProjection {
public:
    explicit LensProjection(const LensModel& lens);
    bool toPixel(const std::array<double, 3>& dir, double& x, double& y) const;
    // rhoInOut, when given: on entry a starting guess for the inverse of the
    // distortion (the neighbouring pixel's; negative for none), on return the
    // normalised ideal radius found.
    bool toDirection(double x, double y, std::array<double, 3>& dir, double* rhoInOut = nullptr) const;
    const LensModel& lens() const { return lens_; }
    double focal() const { return f_; }
    double maxRho() const { return rhoMax_; }

private:
    // Solves a rho^4 + b rho^3 + c rho^2 + k rho = t on [0, rhoMax).
    bool invertDistortion(double t, double& rho) const;
    LensModel lens_;
    double m_[9];  // world to camera, row-major
    double f_ = 0, radius_ = 0, k_ = 0, rhoMax_ = 0, pMax_ = 0;
    double cx_ = 0, cy_ = 0;
};

// Single-precision lookup the way the stitching shader does it: direction from
// lon/lat with kDegToRad and float sine/cosine, C = cameraMat * D, then the
// projection, distortion and shift in float. cameraMat is the matrix sent to
// the GPU (with zero correction and strip offset it is the lens's own
// orientation; lens.yaw/pitch/roll are not used here).
bool directionToPixelFloat(const Mat3& cameraMat, const LensModel& lens, float lonDeg, float latDeg,
                           float& x, float& y);
