#pragma once
// The 1000 x 500 thumbnail JPEG of the panorama.
#include <cstdint>
#include <string>

#include "image/ImageView.h"

// Samples the panorama (RGBE with hdr, else packed RGB) to 2000 x 1000 by
// nearest neighbour, tone-maps it in HDR mode (stage timing off meanwhile),
// halves it with halveBox and writes it as JPEG to thumbnailPath.
void makeThumbnail(const ImageView& panorama, bool hdr, const std::string& thumbnailPath);

// Nearest-neighbour sample of the panorama into `out` (as many channels as
// the panorama): pixel (x, y) comes from column x * W / out.width() and row
// y * W / out.width() (integer division; the row rule uses W, which for
// H = W / 2 is the row in proportion).
void sampleNearest(const ImageView& panorama, const MutableImageView& out);

// Halves an 8-bit image of 3 or more channels (the first three R, G, B) in
// place with a 2 x 2 box: each of the four bytes is quartered (truncating)
// before they are summed. Returns the packed 3-channel width / 2 x height / 2
// view at the same address. Output rows never overtake the source rows still
// to be read.
MutableImageView halveBox(const MutableImageView& rgb);
