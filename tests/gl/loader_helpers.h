#pragma once
// Fixtures for the image loader tests: JPEG files written and decoded with
// libjpeg directly (independent of the code under test), Radiance files
// written by hand, scratch directories.
#include <cstdint>
#include <string>
#include <vector>

// Writes a baseline JPEG with `components` 1 (grey) or 3 (RGB).
void writeTestJpeg(const std::string& path, int width, int height, int components,
                   const std::vector<uint8_t>& pixels, int quality = 95);

// Decodes a JPEG the way `djpeg -fast -scale 1/8` does (fast integer DCT, no
// fancy upsampling, 1/8 scale), as packed RGB; sets width and height.
std::vector<uint8_t> decodeJpegEighth(const std::string& path, int& width, int& height);

// A smooth test picture (JPEG-friendly): gradients plus a few edges.
std::vector<uint8_t> smoothPicture(int width, int height);

// Fresh empty directory under the system temporary directory.
std::string makeScratchDir(const std::string& tag);

void writeFile(const std::string& path, const std::string& bytes);
std::string readFileBytes(const std::string& path);
