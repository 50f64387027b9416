#pragma once
// WebP writing with libwebp (lossy, no alpha).
#include <string>

#include "image/ImageView.h"

// Writes an 8-bit RGB view (3 or more channels, the first three R, G, B) as a
// lossy WebP of `quality` (1 to 100) through an AtomicOutputFile. Throws
// std::runtime_error "Error writing WebP file '%s': %s" (path, reason), also
// for images beyond WebP's 16383 pixels a side.
void writeWebp(const ImageView& rgb, const std::string& path, int quality);
