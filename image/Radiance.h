#pragma once
// Radiance .hdr files: RGBE pixels, rows top first ("-Y h +X w"), flat or in
// new-style run-length scanlines (four channel planes per row). No float image
// is ever built; pixels go straight between the file and RGBE memory.
#include <cstdint>
#include <ostream>
#include <string>
#include <utility>

#include "image/ImageView.h"

// Reads a .hdr file into an RGBE image (4 channels). Throws
// std::runtime_error with the file name on any malformed, truncated or
// oversized input; never allocates more than the file can describe.
Image readRadiance(const std::string& path);

// Width and height a .hdr file declares, after the same header checks as
// readRadiance, without reading its pixels.
std::pair<int32_t, int32_t> radianceSize(const std::string& path);

// Writes `rgbe` (4 bytes a pixel) to a stream opened in binary mode, run-length
// encoded for widths 8..65535 and flat otherwise, and prints the exponent
// statistics line on stderr before the pixel data. Write errors are left in
// the stream's state for the caller to check after closing it.
void writeRadiance(std::ostream& out, const ImageView& rgbe);

// The same into the file `path`, complete or not at all (AtomicOutputFile).
void writeRadianceFile(const ImageView& rgbe, const std::string& path);
