// How close the stitch comes to the truth when sources are decoded smaller:
// a capture of the generator (the courtyard panorama, five-slot fisheye rig
// of 24-megapixel JPEG sources with distortion and centre shift, levelled and
// turned by an orientation line) is stitched at one width with full-size
// sources, with the renderer's own choice, and at the scales given, and each
// result compared with the truth over the pixels that an image drawn into
// their strip sees (as the stitch round-trip tests measure).
//
//   bench_quality [WIDTH (default 4080) [EIGHTHS ...]] [--dir DIR]
//
// The capture is made once into DIR (default /tmp/tessara-bench/quality),
// which takes a few minutes. Per run: PSNR of the 8-bit result against the
// sRGB-encoded truth, the share of the seen pixels that are filled, the
// column offset (-2 to 2) at which the result matches the truth best (0 when
// the heading is right) and the stitch's wall time.
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "image/Colour.h"
#include "libglutil/ContextSession.h"
#include "passes/Stitch.h"
#include "project/PtsImport.h"
#include "tools/make-capture/SyntheticCapture.h"

namespace fs = std::filesystem;

namespace {

CaptureOptions captureOptions()
{
    CaptureOptions o;
    o.scale = 1.0;
    o.orientation = true;
    o.heading = 36;
    o.levelPitch = 2;
    o.levelRoll = -3;
    o.stem = "quality";
    return o;
}

// Per output pixel, whether an image drawn into its strip (entry 0 and the
// strip's two ring neighbours, after the heading turn) sees it 2 source
// pixels inside its frame; the rest cannot be filled by design.
std::vector<uint8_t> drawableCoverage(const Capture& capture, int width)
{
    const int height = width / 2;
    const StitchLayout layout = stitchLayout(capture.shots.size() + 1);
    const int slots = layout.slotCount, stripWidth = width / slots;
    const float heading = float(capture.orientation.yaw - capture.shots[1].entry.yaw);
    const size_t shift = headingShiftBytes(layout, heading, width, 1);
    const std::array<double, 9> frame = truthFrame(capture, true);
    std::vector<LensProjection> lenses;
    for (const CaptureShot& shot : capture.shots)
        lenses.emplace_back(shot.camera);
    constexpr double margin = 2.0;
    std::vector<uint8_t> seen(size_t(width) * height, 0);
#pragma omp parallel for schedule(dynamic, 8)
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const int strip = int((size_t(x) + shift) % size_t(width)) / stripWidth + 1;
            const std::array<double, 3> d =
                directionOf((x - (width - 1) / 2.0) * 360.0 / width, ((height - 1) / 2.0 - y) * 180.0 / height);
            std::array<double, 3> world;
            for (int r = 0; r < 3; ++r)
                world[r] = frame[3 * r] * d[0] + frame[3 * r + 1] * d[1] + frame[3 * r + 2] * d[2];
            for (const int k : {0, strip == 1 ? slots : strip - 1, strip}) {
                double px, py;
                const LensModel& l = lenses[k].lens();
                if (lenses[k].toPixel(world, px, py) && px >= margin - 0.5 && px <= l.w - 0.5 - margin &&
                    py >= margin - 0.5 && py <= l.h - 0.5 - margin)
                    seen[size_t(y) * width + x] = 1;
            }
        }
    return seen;
}

struct Score {
    double psnr = 0, filled = 0;
    int bestOffset = 0;
};

// PSNR of the 8-bit levels against the encoded truth over the seen pixels,
// with the result read `offset` columns to the right.
double psnrAt(const std::vector<uint8_t>& ours, const std::vector<float>& truth,
              const std::vector<uint8_t>& seen, int width, int offset)
{
    const int height = width / 2;
    double squares = 0;
    size_t count = 0;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const size_t i = size_t(y) * width + x;
            if (!seen[i])
                continue;
            const size_t j = size_t(y) * width + size_t((x + offset + width) % width);
            for (int c = 0; c < 3; ++c) {
                const double d = double(ours[3 * j + c]) - double(truth[3 * i + c]);
                squares += d * d;
            }
            ++count;
        }
    return 10 * std::log10(255.0 * 255.0 / (squares / (3.0 * double(count))));
}

Score score(const std::vector<uint8_t>& ours, const std::vector<float>& truth, const std::vector<uint8_t>& seen,
            int width)
{
    Score s;
    size_t covered = 0, filled = 0;
    for (size_t i = 0; i < seen.size(); ++i)
        if (seen[i]) {
            ++covered;
            filled += (ours[3 * i] | ours[3 * i + 1] | ours[3 * i + 2]) != 0;
        }
    s.filled = double(filled) / double(covered);
    double best = -1;
    for (int offset = -2; offset <= 2; ++offset) {
        const double p = psnrAt(ours, truth, seen, width, offset);
        if (offset == 0)
            s.psnr = p;
        if (p > best)
            best = p, s.bestOffset = offset;
    }
    return s;
}

}  // namespace

int main(int argc, char** argv)
{
    fs::path dir = "/tmp/tessara-bench/quality";
    int width = 4080;
    bool haveWidth = false;
    std::vector<int> runs = {0, -1};  // full size, the renderer's choice, then the scales given
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--dir" && i + 1 < argc)
            dir = argv[++i];
        else if (!haveWidth)
            width = std::atoi(argv[i]), haveWidth = true;
        else
            runs.push_back(std::atoi(argv[i]));
    }
    width -= width % 20;
    try {
        const FloatImage pano =
            readPanoramaExr(std::string(TESSARA_SOURCE_DIR) + "/tests/data/panoramas/courtyard.exr");
        CaptureOptions options = captureOptions();
        options.sceneGain = ldrGain(pano);
        const Capture capture = planCapture(options);
        const fs::path pts = dir / (options.stem + ".pts");
        if (!fs::exists(pts)) {
            std::printf("making the capture in %s ...\n", dir.c_str());
            writeCapture(pano, capture, dir.string(), false);
        }
        int qtArgc = 1;
        char arg0[] = "bench_quality";
        char* qtArgv[] = {arg0, nullptr};
        ContextSession session(qtArgc, qtArgv);

        const FloatImage truthLinear = renderTruth(pano, capture, width, true);
        std::vector<float> truth(truthLinear.rgb.size());
        for (size_t i = 0; i < truth.size(); ++i)
            truth[i] = 255.0f * srgbEncode(truthLinear.rgb[i]);
        const std::vector<uint8_t> seen = drawableCoverage(capture, width);

        std::printf("capture %s at %d x %d\n", pts.c_str(), width, width / 2);
        for (const int eighths : runs) {
            StitchTuning tuning;
            tuning.reduceSources = eighths != 0;
            tuning.decodeEighths = std::max(eighths, 0);
            Project project = importPtsScript(pts.string());
            std::vector<uint8_t> pixels(size_t(width) * (width / 2) * 3, 0);
            const auto t0 = std::chrono::steady_clock::now();
            stitchEquirect(MutableImageView(pixels.data(), width, width / 2, 3), pts.string(), project, false, true,
                           tuning);
            const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            const Score s = score(pixels, truth, seen, width);
            const std::string name = eighths == 0 ? "full size" : eighths < 0 ? "automatic" : std::to_string(eighths) + "/8";
            std::printf("%-10s PSNR %.3f dB, filled %.4f, best column offset %d, %.2f s\n", name.c_str(), s.psnr,
                        s.filled, s.bestOffset, seconds);
            std::fflush(stdout);
        }
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "Error: %s\n", e.what());
        return 1;
    }
}
