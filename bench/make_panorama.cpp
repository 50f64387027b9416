// A large equirect JPEG for the memory and speed runs of panorama inputs: a
// bundled 1024 x 512 panorama upscaled bilinearly to the width asked for,
// tone-mapped, with deterministic grain of up to 16 levels so that it encodes
// to about the bytes a camera's photograph of that size takes.
//
//   bench_make_panorama <width> <output.jpg> [source.exr]
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "image/ImageView.h"
#include "image/Jpeg.h"
#include "image/OpenExr.h"
#include "image/Rgbe.h"

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s <width> <output.jpg> [source.exr]\n", argv[0]);
        return 2;
    }
    const int32_t width = std::atoi(argv[1]);
    const std::string source = argc > 3 ? argv[3] : TESSARA_SOURCE_DIR "/tests/data/panoramas/city.exr";
    const Image rgbe = readExr(source);
    Image out(width, width / 2, 3);
    const double sx = double(rgbe.width()) / width, sy = double(rgbe.height()) / out.height();
#pragma omp parallel for schedule(dynamic, 16)
    for (int32_t y = 0; y < out.height(); ++y) {
        const double fy = std::max(0.0, (y + 0.5) * sy - 0.5);
        const int32_t y0 = std::min(int32_t(fy), rgbe.height() - 1), y1 = std::min(y0 + 1, rgbe.height() - 1);
        const double ty = fy - y0;
        uint32_t noise = 2166136261u ^ uint32_t(y);
        for (int32_t x = 0; x < width; ++x) {
            const double fx = (x + 0.5) * sx - 0.5;
            const int32_t x0 = (int32_t(std::floor(fx)) + rgbe.width()) % rgbe.width();
            const int32_t x1 = (x0 + 1) % rgbe.width();
            const double tx = fx - std::floor(fx);
            float c[4][3];
            rgbeToFloat(rgbe.pixel(x0, y0), c[0]);
            rgbeToFloat(rgbe.pixel(x1, y0), c[1]);
            rgbeToFloat(rgbe.pixel(x0, y1), c[2]);
            rgbeToFloat(rgbe.pixel(x1, y1), c[3]);
            uint8_t* p = out.pixel(x, y);
            for (int k = 0; k < 3; ++k) {
                const double v = (c[0][k] * (1 - tx) + c[1][k] * tx) * (1 - ty) + (c[2][k] * (1 - tx) + c[3][k] * tx) * ty;
                noise = noise * 1664525u + 1013904223u;
                const double grain = double(noise >> 24) / 8.0 - 16.0;
                p[k] = uint8_t(std::clamp(255.0 * std::pow(v / (1.0 + v), 1.0 / 2.2) + grain, 0.0, 255.0));
            }
        }
    }
    writeJpeg(out, argv[2]);
    return 0;
}
