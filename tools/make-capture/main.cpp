// tessara-make-capture: renders the source photographs a capture head would
// take of a known equirectangular panorama (OpenEXR, linear RGB), with the pts
// script describing them and optionally the tsp document, so that the
// renderer's output can be compared with the panorama it came from.
#include <omp.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

#include "tools/make-capture/SyntheticCapture.h"

namespace {

const char* const kUsage =
    "usage: tessara-make-capture <panorama.exr> <outdir> [options]\n"
    "  --layout fisheye|tworing   five-slot fisheye (6 images) or two rectilinear rings (13);\n"
    "           |circular4|fisheye3|rectring   rigs: four cropped circular fisheyes, three\n"
    "                             full-circle fisheyes, six rectilinear frames with zenith and nadir\n"
    "  --scale s                  image size relative to 4000 x 6000 frames (default 0.25)\n"
    "  --hdr                      Radiance sources in camera colours (entry 0 %d wide)\n"
    "  --vignetting               darken by the vignetting curve the script states\n"
    "  --exposure                 per-image exposure values\n"
    "  --orientation y,p,r        heading, level pitch and roll; writes the orientation line\n"
    "  --heading deg              direction the first ring image faces (without --orientation)\n"
    "  --pts-yaw deg              yaw the script gives the first ring image\n"
    "  --jitter deg               random change of every rig angle (seeded by --seed n)\n"
    "  --nadir                    entry 0 looks down instead of up\n"
    "  --detail stops             fine grain and edges of up to this many stops (default 0)\n"
    "  --supersample n            samples per pixel along each axis (default: automatic, >= 2)\n"
    "  --gain g                   multiply the panorama first (default for 8-bit: automatic)\n"
    "  --stem name                file name stem (default \"capture\")\n"
    "  --tsp                      also write <stem>.tsp\n";

double number(const char* text, const char* option)
{
    try {
        size_t used = 0;
        const double v = std::stod(text, &used);
        if (used != std::strlen(text)) throw std::invalid_argument(text);
        return v;
    } catch (const std::exception&) {
        throw std::runtime_error(std::string("bad number for ") + option + ": '" + text + "'");
    }
}

int run(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, kUsage, CaptureOptions{}.colourKey);
        return -1;
    }
    const std::string input = argv[1], outDir = argv[2];
    CaptureOptions o;
    bool tsp = false;
    double gain = -1;
    for (int i = 3; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> const char* {
            if (i + 1 >= argc) throw std::runtime_error("missing value for " + a);
            return argv[++i];
        };
        if (a == "--layout") {
            const std::string v = value();
            if (v == "fisheye")
                o.layout = CaptureLayout::Fisheye;
            else if (v == "tworing")
                o.layout = CaptureLayout::TwoRing;
            else if (v == "circular4")
                o.layout = CaptureLayout::CircularFour;
            else if (v == "fisheye3")
                o.layout = CaptureLayout::FisheyeThree;
            else if (v == "rectring")
                o.layout = CaptureLayout::RectilinearRing;
            else
                throw std::runtime_error("unknown layout '" + v + "'");
        } else if (a == "--scale") {
            o.scale = number(value(), "--scale");
        } else if (a == "--hdr") {
            o.hdr = true;
        } else if (a == "--vignetting") {
            o.vignetting = true;
        } else if (a == "--exposure") {
            o.exposure = true;
        } else if (a == "--orientation") {
            const std::string v = value();
            double angles[3];
            size_t start = 0;
            for (int k = 0; k < 3; ++k) {
                const size_t comma = v.find(',', start);
                if ((k < 2) != (comma != std::string::npos))
                    throw std::runtime_error("--orientation wants yaw,pitch,roll");
                angles[k] = number(v.substr(start, comma - start).c_str(), "--orientation");
                start = comma + 1;
            }
            o.orientation = true;
            o.heading = angles[0];
            o.levelPitch = angles[1];
            o.levelRoll = angles[2];
        } else if (a == "--heading") {
            o.heading = number(value(), "--heading");
        } else if (a == "--pts-yaw") {
            o.ptsYawOffset = number(value(), "--pts-yaw");
        } else if (a == "--jitter") {
            o.jitter = number(value(), "--jitter");
        } else if (a == "--seed") {
            o.seed = unsigned(number(value(), "--seed"));
        } else if (a == "--nadir") {
            o.zenith = false;
        } else if (a == "--detail") {
            o.detail = number(value(), "--detail");
        } else if (a == "--supersample") {
            o.supersample = int(number(value(), "--supersample"));
        } else if (a == "--gain") {
            gain = number(value(), "--gain");
        } else if (a == "--stem") {
            o.stem = value();
        } else if (a == "--tsp") {
            tsp = true;
        } else {
            throw std::runtime_error("unknown option '" + a + "'");
        }
    }

    const auto t0 = std::chrono::steady_clock::now();
    const FloatImage pano = readPanoramaExr(input);
    // 8-bit sources clip at 1: bring the bright end of the scene below that.
    o.sceneGain = gain > 0 ? gain : o.hdr ? 1.0 : ldrGain(pano);
    const Capture capture = planCapture(o);
    const std::string name = input.substr(input.find_last_of("/\\") + 1);
    const std::vector<std::string> written = writeCapture(pano, capture, outDir, tsp, name);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();

    for (size_t i = 0; i < written.size(); ++i) {
        std::printf("%s", written[i].c_str());
        if (i < capture.shots.size())
            std::printf("  %dx%d yaw %g pitch %g roll %g EV %g", capture.shots[i].entry.width,
                        capture.shots[i].entry.height, capture.shots[i].entry.yaw, capture.shots[i].entry.pitch,
                        capture.shots[i].entry.roll, capture.shots[i].entry.exposure);
        std::printf("\n");
    }
    std::printf("panorama gain %g, %d threads, %.2f s\n", o.sceneGain, omp_get_max_threads(), seconds);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "Error: %s\n", e.what());
    }
    return -1;
}
