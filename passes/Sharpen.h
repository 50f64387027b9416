#pragma once
// The "sharpen" pass of an LDR job done on the CPU, for 8-bit sources that
// are at hand in memory anyway: the decoding thread sharpens them, so the
// GPU only receives the result.
#include <cstdint>

#include "image/ImageView.h"
#include "passes/StitchReach.h"

// Sharpens the pixels `part` of an 8-bit RGB or RGBA image in place: byte for
// byte what the pass stores into its RGBA8 target on Mesa's llvmpipe, the
// renderer's software GL driver (another driver may round a value that lies
// half-way between two levels the other way). A fourth byte is treated like
// the others, so 255 stays 255. `rows` holds the rows [firstRow, firstRow +
// rows.height()) of an image rows.width() x height pixels: those of `part`
// and the row beside it on each side, as far as the image goes; throws
// std::invalid_argument otherwise. Only the pixels of `part` change.
void sharpenLdr(const MutableImageView& rows, int32_t firstRow, int32_t height, const PixelRect& part);
