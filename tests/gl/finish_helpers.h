#pragma once
// Shared pieces of the tone-mapping, cube-face, logo and thumbnail GL tests.
#include <array>
#include <cstdint>
#include <string>

#include "image/ImageView.h"

// A fresh, empty directory under the system temporary directory for one test.
std::string finishTempDir(const std::string& name);

// tests/data/panoramas/<name>.
std::string panoramaPath(const std::string& name);

// Equirect panorama whose colour encodes the direction of each pixel:
// channel k = 128 + 100 * D[k] (panorama frame: x towards lon +90, y up, z
// towards lon 0), as 8-bit RGB, or as RGBE holding byte / 255.
Image directionPanorama(int width, int height, bool rgbe);
std::array<double, 3> directionColour(const std::array<double, 3>& d);

// Bilinear sample of a packed 8-bit RGB equirect at continuous pixel position
// (x, y) (centres at integers), wrapping in longitude and clamping in latitude.
std::array<double, 3> sampleEquirect(const ImageView& rgb, double x, double y);

// Equirect pixel position of a unit direction in the panorama frame.
std::array<double, 2> equirectPosition(const std::array<double, 3>& d, int width, int height);

// Counts of pixels whose three channels are all 255 / all 0, as fractions.
struct ClipFractions {
    double white = 0, black = 0, meanLuma = 0;
};
ClipFractions clipFractions(const ImageView& rgb);
