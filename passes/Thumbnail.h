#pragma once
// The 1000 x 500 thumbnail JPEG of the panorama.
#include <cstdint>
#include <string>

#include "image/ImageView.h"

// Samples the panorama (RGBE with hdr, else packed RGB) to 2000 x 1000 by
// nearest neighbour, tone-maps it in HDR mode (stage timing off meanwhile),
// halves it with halveBox and writes it as JPEG to thumbnailPath.
void makeThumbnail(const ImageView& panorama, bool hdr, const std::string& thumbnailPath);

// Nearest-neighbour sample of the panorama into a packed outWidth x outHeight
// image of the panorama's bytes per pixel: pixel (x, y) comes from column
// x * W / outWidth and row y * W / outWidth (integer division; the row rule
// uses W, which for H = W / 2 is the row in proportion).
void sampleNearest(const ImageView& panorama, int outWidth, int outHeight, uint8_t* out);

// Halves a 3-channel 8-bit image in place with a 2 x 2 box: each of the four
// bytes is quartered (truncating) before they are summed. Returns the packed
// width / 2 x height / 2 view at the same address. Output rows never overtake
// the source rows still to be read.
ImageView halveBox(const ImageView& rgb);
