#pragma once
// JPEG reading and writing with libjpeg, and the file opening rule shared by
// both directions. Failures are std::runtime_error; libjpeg's own errors are
// turned into exceptions instead of ending the process.
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "image/ImageView.h"
#include "image/Picture.h"

// Opens `path` with fopen in `mode`; "-" means standard output for every mode
// (binary mode is a no-op on this platform). Throws
// "Error opening file '%s' (with mode '%s'): %s". The caller closes the
// stream unless it is stdout.
FILE* openFile(const std::string& path, const char* mode);

// Decodes a JPEG file into a packed 8-bit RGB image (3 bytes a pixel, rows
// top first). Anything that does not decode to 3 components throws
// "can not open JPEG with color format other than RGB"; corrupt or truncated
// data throws "Error reading JPEG file '%s': <libjpeg message>".
// With `eighths` M below 8 the image is decoded at M/8 of its size by
// libjpeg's DCT scaling, or at the next larger scale M'/8 (M' <= 8) at which
// the width and the height shrink to whole numbers of pixels: output pixel
// (i, j) then covers source pixels [8 i / M', 8 (i + 1) / M') and likewise in
// y, so its centre lies at source position ((i + 1/2) 8 / M' - 1/2, ...) and
// the image centre stays where it was. `decodedEighths`, when given,
// receives M'.
Image readJpeg(const std::string& path, int eighths = 8, int* decodedEighths = nullptr);

// The same from an open stream of `fileLength` bytes (0: unknown), with
// `path` used in messages only. Refuses, before allocating, a frame that the
// stream is too short to encode or that exceeds the pixel limit.
Image readJpeg(FILE* file, uint64_t fileLength, const std::string& path, int eighths = 8,
               int* decodedEighths = nullptr);

// Size and XMP packet (the APP1 segment of the standard XMP signature) after
// the same header checks as readJpeg, without decoding the pixels.
PictureInfo readJpegInfo(const std::string& path);

// Part of a decoded JPEG image: the rows [firstRow, firstRow + rows.height())
// of an image of width x height pixels decoded at `eighths` (see readJpeg).
struct JpegRows {
    Image rows;
    int32_t firstRow = 0;
    int32_t width = 0, height = 0;
    int eighths = 8;
};

// Called once the decoded size is known; returns the rows [first, end) to
// keep (clamped to the image, at least one row).
using JpegRowChoice = std::function<std::pair<int32_t, int32_t>(int32_t width, int32_t height, int eighths)>;

// readJpeg that keeps only the rows `choose` asks for: the others are
// skipped, entropy-decoded but neither transformed nor converted, so damage
// anywhere in the file is still found. The rows kept are those of the whole
// decode; with `rgba` their pixels have a fourth byte, 255.
JpegRows readJpegRows(const std::string& path, int eighths, const JpegRowChoice& choose, bool rgba = false);

// readJpeg that hands the image over in bands of kJpegBandRows rows (fewer
// for the last), packed RGB, each with the index of its first row, instead of
// holding it whole: a panorama can go to the GPU without a copy of it in
// memory. A failure after some bands were handed over throws as readJpeg.
constexpr int32_t kJpegBandRows = 256;
using JpegBandUse = std::function<void(const ImageView& band, int32_t firstRow)>;
void readJpegBands(const std::string& path, const JpegBandUse& use);

// An application segment written after the JPEG's own headers: the marker
// code (JPEG_APP0 + n) and its payload (at most 65533 bytes).
struct JpegMarker {
    int code;
    std::string payload;
};

// The quality of every JPEG this program writes unless told otherwise.
constexpr int kJpegQuality = 90;

// Writes an 8-bit RGB view (3 or more channels, the first three R, G, B) as
// a baseline JPEG of `quality` (1 to 100), with `markers` after the JFIF header.
// "-" writes to standard output; any other path is written through an
// AtomicOutputFile. Errors name `path`.
void writeJpeg(const ImageView& rgb, const std::string& path, const std::vector<JpegMarker>& markers = {},
               int quality = kJpegQuality);

// The XMP segment (APP1) that marks a full 360 x 180 degree equirectangular
// image of width x height pixels as a photo sphere (Google's GPano fields):
// the image is the whole panorama, levelled (pose pitch and roll 0); no
// heading, since the capture's compass direction is not known.
JpegMarker photoSphereXmp(int width, int height);
