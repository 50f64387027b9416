#include "image/ExponentStats.h"

#include <algorithm>
#include <iostream>
#include <vector>

namespace {

// One band of rows, walked from its own start. `firstRaise` is the first v
// that raised the band's running maximum (128: none did); the band's later
// raises are larger, so it is the smallest of them.
struct BandStats {
    ExponentStats stats;
    int64_t sum = 0;
    int firstRaise = 128;
};

BandStats bandStats(const ImageView& rgbe, int32_t y0, int32_t y1)
{
    BandStats b;
    ExponentStats& s = b.stats;
    const int32_t step = rgbe.channels();
    // Integer sum: exact, and the same as accumulating the small integers in a
    // double for any image this program can hold (|v| < 2^7, < 2^33 pixels).
    for (int32_t y = y0; y < y1; ++y) {
        const uint8_t* p = rgbe.row(y) + 3;
        for (int32_t x = 0; x < rgbe.width(); ++x, p += step) {
            const int e = *p;
            if (e == 0)
                continue;
            const int v = e - 128;
            ++s.count;
            b.sum += v;
            s.lowestE = std::min(s.lowestE, v);
            if (v > s.maxE) {
                if (b.firstRaise == 128)
                    b.firstRaise = v;
                s.maxE = v;
            } else if (v < s.minE) {
                s.minE = v;
            }
        }
    }
    return b;
}

}  // namespace

ExponentStats exponentStats(const ImageView& rgbe)
{
    // Bands of at least 64 rows, at most 64 of them.
    const int32_t bands = std::max(1, std::min(64, rgbe.height() / 64));
    std::vector<BandStats> partial(static_cast<size_t>(bands));
#pragma omp parallel for schedule(static) if (bands > 1)
    for (int32_t i = 0; i < bands; ++i)
        partial[size_t(i)] = bandStats(rgbe, int32_t(int64_t(rgbe.height()) * i / bands),
                                       int32_t(int64_t(rgbe.height()) * (i + 1) / bands));

    // Joined in order, the result is that of one walk over all rows: a band's
    // raises that do not exceed the maximum of the bands before it raise
    // nothing in the whole walk, so they count for minE, the smallest first.
    ExponentStats s;
    int64_t sum = 0;
    for (const BandStats& b : partial) {
        if (b.firstRaise <= s.maxE)
            s.minE = std::min(s.minE, b.firstRaise);
        s.minE = std::min(s.minE, b.stats.minE);
        s.maxE = std::max(s.maxE, b.stats.maxE);
        s.lowestE = std::min(s.lowestE, b.stats.lowestE);
        s.count += b.stats.count;
        sum += b.sum;
    }
    s.sum = double(sum);
    return s;
}

void printExponentStats(int32_t width, int32_t height, int maxE, int minE, double mean)
{
    std::cerr << width << "x" << height << ", M: " << maxE << ", m: " << minE << " -> "
              << maxE - minE << " f-stops, mean: " << mean << std::endl;
}
