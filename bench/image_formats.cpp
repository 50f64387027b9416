// Throughput of the image file formats on a panorama-sized RGBE image:
// Radiance write and read (MB/s of RGBE pixels, 4 bytes a pixel) and the
// OpenEXR DWAB write of the equirect (seconds).
//
//   bench_image_formats [width] [directory] [hdr|exr]
//   (defaults: 14140, $TMPDIR or /tmp, both formats)
#include <omp.h>
#include <sched.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <ImfThreading.h>

#include "image/ImageView.h"
#include "image/OpenExr.h"
#include "image/Radiance.h"
#include "image/Rgbe.h"

namespace {

double now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// CPU seconds of the process (all threads): on a busy machine, a steadier
// figure than wall time for the single-threaded Radiance code.
double cpuTime()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + 1e-6 * double(u.ru_utime.tv_usec + u.ru_stime.tv_usec);
}

// Sky-like panorama: smooth gradients over several stops with a bright sun,
// darker ground, and per-pixel sensor noise of about 1 %. The noise makes the
// R, G, B planes mostly literal packets, while the exponent plane holds long
// runs, as in a real render.
Image makePanorama(int32_t w, int32_t h)
{
    Image img(w, h, 4);
#pragma omp parallel for schedule(static)
    for (int32_t y = 0; y < h; ++y) {
        uint32_t state = 0x9E3779B9u * uint32_t(y + 1);
        const float lat = float(M_PI) * (0.5f - (y + 0.5f) / h);
        for (int32_t x = 0; x < w; ++x) {
            state = state * 1664525u + 1013904223u;
            const float noise = 1.0f + 0.01f * (float(state >> 8) / float(1u << 24) - 0.5f);
            const float lon = 2.0f * float(M_PI) * (x + 0.5f) / w;
            const float sky = lat > 0 ? 0.3f + 2.0f * std::sin(lat) : 0.05f + 0.02f * std::cos(7.0f * lon);
            const float sun = 200.0f * std::exp(-60.0f * ((lon - 2.0f) * (lon - 2.0f) + (lat - 0.6f) * (lat - 0.6f)));
            const float v = (sky + sun) * noise;
            floatToRgbe(v * 0.8f, v * 0.9f, v * (lat > 0 ? 1.2f : 0.7f), img.pixel(x, y));
        }
    }
    return img;
}

// Radiance write then read of the same file; returns false when the read
// differs from what was written.
bool benchRadiance(const Image& pano, const std::string& dir)
{
    const double megabytes = 4.0 * pano.width() * pano.height() / 1e6;
    const std::string path = dir + "/bench_image_formats.hdr";
    double t = now(), c = cpuTime();
    {
        std::ofstream out(path, std::ios::binary);
        writeRadiance(out, pano);
        out.close();
        if (!out) {
            std::fprintf(stderr, "writing %s failed\n", path.c_str());
            return false;
        }
    }
    const double writeTime = now() - t, writeCpu = cpuTime() - c;
    std::ifstream sizeCheck(path, std::ios::binary | std::ios::ate);
    const double fileMb = double(sizeCheck.tellg()) / 1e6;
    std::printf("radiance write: %.2f s, %.0f MB/s (CPU %.2f s, %.0f MB/s; file %.1f MB)\n", writeTime,
                megabytes / writeTime, writeCpu, megabytes / writeCpu, fileMb);

    t = now();
    c = cpuTime();
    const Image back = readRadiance(path);
    const double readTime = now() - t, readCpu = cpuTime() - c;
    std::printf("radiance read:  %.2f s, %.0f MB/s (CPU %.2f s, %.0f MB/s)\n", readTime, megabytes / readTime,
                readCpu, megabytes / readCpu);
    std::remove(path.c_str());
    return back.byteSize() == pano.byteSize() && std::memcmp(back.data(), pano.data(), pano.byteSize()) == 0;
}

bool benchExr(const Image& pano, const std::string& dir)
{
    {
        std::vector<Imf::Rgba> strip(size_t(256) * size_t(pano.width()));
        const double t = now();
        for (int32_t y = 0; y < pano.height(); y += 256)
            rgbeToHalf(pano.view().subView(0, y, pano.width(), std::min(256, pano.height() - y)), strip.data());
        std::printf("rgbe -> half, all strips: %.2f s\n", now() - t);
    }
    const std::string path = dir + "/bench_image_formats.exr";
    double t = now();
    const double c = cpuTime();
    writeEquirectExr(pano, path, "dwa", "", "");
    std::printf("exr write (DWAB): %.2f s (CPU %.2f s)\n", now() - t, cpuTime() - c);
    t = now();
    const Image back = readExr(path);
    std::printf("exr read (DWAB):  %.2f s\n", now() - t);
    std::remove(path.c_str());
    return back.width() == pano.width() && back.height() == pano.height();
}

}  // namespace

int main(int argc, char** argv)
{
    const int32_t width = argc > 1 ? std::atoi(argv[1]) : 14140;
    const char* tmp = std::getenv("TMPDIR");
    const std::string dir = argc > 2 ? argv[2] : (tmp ? tmp : "/tmp");
    const std::string only = argc > 3 ? argv[3] : "";
    // Like the program: hardware threads clamped to 2..16, counting only the
    // processors this process may run on.
    cpu_set_t cpus;
    const int available = sched_getaffinity(0, sizeof cpus, &cpus) == 0 ? CPU_COUNT(&cpus)
                                                                          : int(std::thread::hardware_concurrency());
    Imf::setGlobalThreadCount(std::clamp(available, 2, 16));

    std::printf("image %dx%d RGBE (%.1f MB), %d OpenMP threads, %d OpenEXR threads, files in %s\n", width,
                width / 2, 4.0 * width * (width / 2) / 1e6, omp_get_max_threads(), Imf::globalThreadCount(),
                dir.c_str());
    const double t = now();
    const Image pano = makePanorama(width, width / 2);
    std::printf("synthesize: %.2f s\n", now() - t);

    bool ok = true;
    if (only != "exr")
        ok = benchRadiance(pano, dir) && ok;
    if (only != "hdr")
        ok = benchExr(pano, dir) && ok;
    if (!ok)
        std::fprintf(stderr, "a round trip failed\n");
    return ok ? 0 : 1;
}
