#pragma once
// TIFF reading through libtiff: contiguous grey, RGB or RGBA samples (extra
// samples dropped) of 8 or 16 bits, or 32-bit floating point, in strips or
// tiles, any compression the library decodes. 8-bit files decode to packed
// 8-bit RGB, 16-bit files to 16-bit RGB (kRgb16Channels, native byte order);
// floating-point files are HDR and decode to RGBE (negative and non-finite
// values as 0). libtiff's errors become std::runtime_error "Error reading
// TIFF file '<path>': <why>".
#include <string>

#include "image/ImageView.h"
#include "image/Picture.h"

// Size, sample kind and XMP packet (tag 700) of the first directory after the
// same checks as readTiff, without decoding the pixels.
PictureInfo readTiffInfo(const std::string& path);

// Refuses, before allocating, an image beyond kMaxPicturePixels, one that the
// file is too short to encode (decodedSizeFits) and a layout it cannot read.
Image readTiff(const std::string& path);
