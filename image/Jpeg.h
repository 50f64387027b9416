#pragma once
// JPEG reading and writing with libjpeg, and the file opening rule shared by
// both directions. Failures are std::runtime_error; libjpeg's own errors are
// turned into exceptions instead of ending the process.
#include <cstdio>
#include <string>

#include "image/ImageView.h"

// Opens `path` with fopen in `mode`; "-" means standard output for every mode
// (binary mode is a no-op on this platform). Throws
// "Error opening file '%s' (with mode '%s'): %s". The caller closes the
// stream unless it is stdout.
FILE* openFile(const std::string& path, const char* mode);

// Decodes a JPEG file into a packed 8-bit RGB image (3 bytes a pixel, rows
// top first). Anything that does not decode to 3 components throws
// "can not open JPEG with color format other than RGB"; corrupt or truncated
// data throws "Error reading JPEG file '%s': <libjpeg message>".
Image readJpeg(const std::string& path);

// Writes an 8-bit RGB view (pixel step 3 or more, the first three bytes R, G,
// B) as a baseline JPEG of quality 90. "-" writes to standard output; any
// other path is written through an AtomicOutputFile. Errors name `path`.
void writeJpeg(const ImageView& rgb, const std::string& path);
