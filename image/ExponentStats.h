#pragma once
// Exponent statistics of an RGBE image, as printed when a Radiance file is
// written or loaded: over every pixel whose E byte is not 0, v = E - 128.
#include <cstdint>

#include "image/ImageView.h"

struct ExponentStats {
    int maxE = -127;    // M: largest v seen
    int minE = 128;     // m: smallest v among those that did not raise M
    int64_t count = 0;  // pixels with E != 0
    double sum = 0;     // sum of their v
    // sum / count; NaN (0/0) for an image without a non-zero pixel, printed as such.
    double mean() const { return sum / double(count); }
};

// Visits the pixels in memory order (rows top first). m is deliberately only
// updated by a value that did not raise M: a first pixel holding the lowest
// exponent is not counted in m, and with one non-zero pixel m stays 128.
ExponentStats exponentStats(const ImageView& rgbe);

// Prints "WxH, M: M, m: m -> M-m f-stops, mean: mean" and a newline on stderr.
void printExponentStats(const ImageView& rgbe, const ExponentStats& stats);
