#pragma once
// The logo drawn into the nadir of the panorama.
//
// The bottom band of the panorama, LOGO_FOV degrees of latitude high (18 by
// default), is replaced by a view of the logo image: the logo's inscribed
// circle (centred, diameter = its shorter side) is laid onto the plane below
// the camera so that it fills the cap of LOGO_FOV degrees around the nadir.
// Looking straight down, the logo therefore appears undistorted and centred,
// its top towards the front of the panorama (lon 0) and its right towards
// lon +90 - as the d cube face shows it. The image's corners outside that
// circle are not shown. The band is rendered in n tiles (5 or 6) that are read
// back straight into the panorama's bottom rows.
#include <array>
#include <cstdint>
#include <string>

#include "image/ImageView.h"
#include "project/CameraMatrix.h"

// Draws into the panorama (RGBE with hdr, else RGB; rows a whole number of
// pixels apart). Needs the GL context.
void drawLogo(const MutableImageView& panorama, const std::string& logoPath, bool hdr);

// ---- Geometry of the pass (no GL) ----

// Degrees from the nadir covered by the logo: "LOGO_FOV" through stof when
// set, else 18.
float logoFov();

// Tiles across the panorama: 5 when the width is a multiple of 5, else 6.
int logoTileCount(int width);

// Rows of the band: truncation of (fov / 180) * height in single precision.
int logoBandHeight(float fov, int height);

// "cameraMat" of tile `tile` out of n: the turn by the tile's yaw about the
// vertical axis combined with a fixed 90-degree downward pitch,
// Xm(90 degrees) Ym(yaw).
Mat3 logoCameraMatrix(int tile, int tileCount);

// CPU twin of the RENDER_LOGO branch of shaders/fish.frag: the logo-image
// position (pixel centres at integers) sampled by the band-tile pixel whose
// centre is at (x, y) in tile pixels (memory rows, row 0 at the top).
// outFovX, fovTotal, inSize and outSize are the shader's uniforms.
std::array<double, 2> logoSamplePosition(const Mat3& cameraMat, double x, double y,
                                         float outFovX, float fovTotal, int inW, int inH, int outW,
                                         int outH);
