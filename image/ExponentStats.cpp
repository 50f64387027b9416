#include "image/ExponentStats.h"

#include <iostream>

ExponentStats exponentStats(const ImageView& rgbe)
{
    ExponentStats s;
    const int32_t step = rgbe.channels();
    // Integer sum: exact, and the same as accumulating the small integers in a
    // double for any image this program can hold (|v| < 2^7, < 2^33 pixels).
    int64_t sum = 0;
    for (int32_t y = 0; y < rgbe.height(); ++y) {
        const uint8_t* p = rgbe.row(y) + 3;
        for (int32_t x = 0; x < rgbe.width(); ++x, p += step) {
            const int e = *p;
            if (e == 0)
                continue;
            const int v = e - 128;
            ++s.count;
            sum += v;
            if (v > s.maxE)
                s.maxE = v;
            else if (v < s.minE)
                s.minE = v;
        }
    }
    s.sum = double(sum);
    return s;
}

void printExponentStats(const ImageView& rgbe, const ExponentStats& stats)
{
    std::cerr << rgbe.width() << "x" << rgbe.height() << ", M: " << stats.maxE << ", m: " << stats.minE << " -> "
              << stats.maxE - stats.minE << " f-stops, mean: " << stats.mean() << std::endl;
}
