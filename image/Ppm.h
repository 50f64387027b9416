#pragma once
// The binary PPM stream that the raw preview decoder prints: "P6\n<w> <h>\n255\n"
// then w * h * 3 bytes of 8-bit RGB, rows top first.
#include <cstdio>
#include <functional>

#include "image/ImageView.h"

// Reads one PPM image from `in`. `checkSize` is called with the declared
// width and height before any pixel memory is set aside and throws to refuse
// them. The pixel buffer grows with the data that actually arrives, so a
// header declaring a huge image on a short stream fails with the short-read
// message instead of allocating for it. Throws "Failed to parse PNM file
// header.", "PNM file has wrong max value: <n>" or "Failed to read PNM file
// data: <got> != <expected> -> <eof>".
Image readPpm(FILE* in, const std::function<void(int width, int height)>& checkSize);
