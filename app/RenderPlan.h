#pragma once
// The decisions of a render job that need no GPU: which mode, how many
// capture slots, the output sizes and their console messages, and the
// in-memory turn of an upside-down capture.
#include <cstdint>
#include <ostream>

#include "project/Project.h"

// One line per image entry on `log`: its file name and a blank, then the 14
// float fields (yaw, roll, pitch, fov, a, b, c, d, e, exposure, va, vb, vc,
// vd) in the stream's default format, each followed by a blank.
void printProjectListing(const Project& project, std::ostream& log);

// HDR mode: the first entry's file is a Radiance image (".hdr").
bool isHdrProject(const Project& project);

// A trailing orientation entry whose fourth value (kept in `fov`) is above 90
// marks a capture taken upside down: its roll and pitch are negated here and
// the result must be turned by 180 degrees. Returns whether it was.
bool applyUpsideDownRule(Project& project);

// Capture positions around the horizon: 5 up to 7 entries (the orientation
// entry counts), else 6.
int slotCountOf(const Project& project);

// Width chosen from the first entry's pixel count (32-bit product) when none
// is given; always a multiple of 4 * slotCount.
int32_t defaultEquirectWidth(const Project& project, int slotCount);

// A given width rounded down to a multiple of 4 * slotCount (remainder with
// the dividend's sign), with the "Adjusting output equirect width ..." line on
// `log` when it changes.
int32_t adjustEquirectWidth(int32_t erWidth, int slotCount, std::ostream& log);

// Cube face width rounded up to k * 2^e with 2^e the largest power of two not
// above width / 256, so that the faces split into power-of-two tiles; prints
// "Adjusting output cubeface width from ..." on `log` every time. Widths below
// 256 keep their value (2^e = 1). Throws std::runtime_error for a width below 1.
int32_t roundCubeFaceWidth(int32_t cfWidth, std::ostream& log);

// Sizes this program writes, and so reads back as an equirect input:
// width = 2 * height and width a multiple of 20.
bool isRenderedEquirectSize(int32_t width, int32_t height);

// Turns a packed image by 180 degrees: reverses the order of `pixelCount`
// pixels of `bytesPerPixel` bytes each.
void reversePixels(uint8_t* pixels, int64_t pixelCount, int bytesPerPixel);
