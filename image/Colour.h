#pragma once
// Colour facts shared by the renderer and its tools: the sRGB transfer curve
// and the camera-to-display matrices of the HDR capture cameras.
#include <array>

// sRGB encoding of a linear value, clamped to [0, 1] first.
float srgbEncode(float linear);

using ColourMatrix = std::array<float, 9>;

// The camera-to-display colour matrix of the HDR capture camera whose frames
// are `frameWidth` pixels wide, column-major (each row sums to 1); nullptr
// for a width no camera of the table has.
const ColourMatrix* cameraColourMatrix(int frameWidth);
