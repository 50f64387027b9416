// Benchmark of the finishing passes: tone-mapping throughput and the time for
// six cube faces written as an OpenEXR cube map and as a JPEG tile pyramid.
//
//   bench_finish [panorama width (default 16384)] [face size (default 5264)] [output directory]
//
// The panorama is synthetic: smooth light with fine detail over 16 stops, so
// that the codecs see realistic content.
#include <ImfThreading.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "libglutil/StageTimer.h"
#include "image/Rgbe.h"
#include "libglutil/ContextSession.h"
#include "passes/CubeFaces.h"
#include "passes/Tonemap.h"

namespace {

double seconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Image syntheticPanorama(int width)
{
    const int height = width / 2;
    Image pano(width, height, 4);
#pragma omp parallel for schedule(static)
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const float u = float(x) / float(width), v = float(y) / float(height);
            const float sky = std::exp2(8.0f * (1.0f - v) - 4.0f);
            const float detail = 1.0f + 0.3f * std::sin(float(x) * 0.37f) * std::sin(float(y) * 0.23f);
            const float sun = std::exp2(12.0f * std::exp(-((u - 0.3f) * (u - 0.3f) + (v - 0.25f) * (v - 0.25f)) * 4000.0f));
            const float l = sky * detail * sun;
            floatToRgbe(l * (0.8f + 0.2f * u), l, l * (1.2f - 0.4f * v), pano.pixel(x, y));
        }
    return pano;
}

}  // namespace

int main(int argc, char** argv)
{
    const int width = argc > 1 ? std::atoi(argv[1]) : 16384;
    const int face = argc > 2 ? std::atoi(argv[2]) : 5264;
    const std::string dir = argc > 3 ? argv[3] : (std::filesystem::temp_directory_path() / "bench_finish").string();
    std::filesystem::create_directories(dir);
    int qtArgc = 1;
    ContextSession session(qtArgc, argv);
    // As the program does: the OpenEXR worker pool sized to the machine.
    Imf::setGlobalThreadCount(int(std::clamp(std::thread::hardware_concurrency(), 2u, 16u)));

    std::fprintf(stderr, "panorama %d x %d, faces %d, output in %s\n", width, width / 2, face, dir.c_str());
    Image pano = syntheticPanorama(width);
    globalTimer().markStage("synthetic panorama");

    double t = seconds();
    writeCubeFacesExr(pano, face, dir + "/cube.exr", "dwa", "", "");
    const double exrSeconds = seconds() - t;

    Image copy(width, width / 2, 4);
    std::copy(pano.data(), pano.data() + pano.byteSize(), copy.data());
    globalTimer().markStage("copy");
    t = seconds();
    const ImageView rgb = tonemap(copy.mutableView());
    const double tonemapSeconds = seconds() - t;

    t = seconds();
    writeCubeFacesJpeg(rgb, face, CubeJpegNames(dir + "/pyramid/"), TileEncoding());
    const double jpegSeconds = seconds() - t;

    const double megapixels = double(width) * (width / 2) / 1e6;
    std::printf("tonemap: %.1f MP in %.3f s = %.1f MP/s\n", megapixels, tonemapSeconds, megapixels / tonemapSeconds);
    std::printf("cube faces %d as EXR (DWAB, mipmapped): %.3f s\n", face, exrSeconds);
    std::printf("cube faces %d as JPEG pyramid: %.3f s\n", face, jpegSeconds);
    return 0;
}
