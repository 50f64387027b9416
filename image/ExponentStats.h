#pragma once
// Exponent statistics of an RGBE image: over every pixel whose E byte is not
// 0, v = E - 128. Printed when a Radiance file is written or an RGBE source
// uploaded, per chunk by the tone mapper, and the mean drives the exposure
// normalisation of a stitched HDR panorama.
#include <cstdint>

#include "image/ImageView.h"

struct ExponentStats {
    int maxE = -127;     // M: largest v
    int minE = 128;      // m: smallest v among the pixels that did not raise M
    int lowestE = 128;   // smallest v of all
    int64_t count = 0;   // pixels with E != 0
    double sum = 0;      // sum of their v
    // sum / count; NaN (0/0) for an image without a non-zero pixel, printed as such.
    double mean() const { return sum / double(count); }
};

// The statistics of the view's pixels (E is the fourth byte of each), as if
// visited in memory order (rows top first): minE is deliberately only updated
// by a value that did not raise the running maximum, so a first pixel holding
// the lowest exponent is not counted in it, and with one non-zero pixel it
// stays 128. Rows are scanned in parallel.
ExponentStats exponentStats(const ImageView& rgbe);

// Prints "WxH, M: maxE, m: minE -> maxE-minE f-stops, mean: mean" and a newline on stderr.
void printExponentStats(int32_t width, int32_t height, int maxE, int minE, double mean);
