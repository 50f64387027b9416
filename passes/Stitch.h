#pragma once
// Equirectangular stitching of a capture project on the GPU.
#include <cstdint>
#include <string>

#include "project/Project.h"

// Renders the project's source images into `pixels`, an outWidth x outHeight
// buffer (rows top first, zero-filled by the caller) of 8-bit RGB (3 bytes a
// pixel) or, with `hdr`, Radiance RGBE (4 bytes a pixel). The panorama is drawn
// in vertical strips, one per capture slot; outWidth must be a multiple of the
// slot count. Source files are found relative to the directory of
// `projectPath`. The entries' yaw values are made relative to entry 1 in place.
// With `useOrientation`, a trailing orientation entry turns the panorama to its
// heading and levels it. Needs a current GL context; failures are exceptions.
void stitchEquirect(uint8_t* pixels, int outWidth, int outHeight, const std::string& projectPath,
                    Project& project, bool hdr, bool useOrientation);
