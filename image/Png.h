#pragma once
// PNG reading through libpng: 8 or 16 bits a sample, grey or colour, with or
// without alpha, palette and interlaced files too, decoded to packed 8-bit RGB,
// or 16-bit RGB (kRgb16Channels) for 16-bit samples (alpha dropped). libpng's
// errors become std::runtime_error "Error reading PNG file '<path>': <why>".
#include <string>

#include "image/ImageView.h"
#include "image/Picture.h"

// Size and XMP packet (the iTXt chunk "XML:com.adobe.xmp" before the image
// data) after the same checks as readPng, without decoding the pixels.
PictureInfo readPngInfo(const std::string& path);

// Refuses, before allocating, an image beyond kMaxPicturePixels or one that
// the file is too short to encode (decodedSizeFits).
Image readPng(const std::string& path);
