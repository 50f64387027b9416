#pragma once
// Where one source image can land in a stitching target, so that its draw
// covers only that part of the strip instead of all of it.
#include "project/CameraMatrix.h"
#include "project/LensModel.h"

// Pixels [x0, x1) x [y0, y1) of a target, rows counted from memory row 0 (the
// top of the panorama). Empty when x0 >= x1 or y0 >= y1.
struct PixelRect {
    int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    bool empty() const { return x0 >= x1 || y0 >= y1; }
};

// A rectangle of a width x height target spanning outFovX degrees of
// longitude and the full 180 degrees of latitude (as the stitching shader
// lays it out) that holds every pixel at which the source can have a sample:
// the directions, placed by cameraMat, of the frame cut by the circle the
// lens folds back at. `lens` gives the texture's size (w, h) and the lens (v,
// a to e, fisheye); its angles are not used. The bound is conservative (a few
// pixels of slack); when the source is not simple to bound (the optical
// centre off the frame, more than 180 degrees off axis) it is the whole target.
PixelRect reachInTarget(const LensModel& lens, const Mat3& cameraMat, float outFovX, int width, int height);

// The texels [x0, x1) x [y0, y1) of the source texture (of lens.w x lens.h
// pixels) that the stitching shader can read when it draws the source through
// cameraMat into a strip of outFovX degrees of longitude: every position it
// samples, with the bilinear filter's neighbour, and a few texels of slack.
// Empty when the strip sees nothing of the source; the whole texture when the
// source is not simple to bound (as for reachInTarget).
PixelRect reachInSource(const LensModel& lens, const Mat3& cameraMat, float outFovX);
