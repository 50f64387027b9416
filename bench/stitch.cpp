// Benchmark of the equirect stitching: a 5-slot LDR capture (six JPEG
// sources, 24 megapixels each at full size) stitched at the default width,
// with the time of every stage summed over the run and its throughput.
//
//   bench_stitch [capture.pts (default /tmp/tessara-bench/capture/capture.pts)] [width (default 14140)]
//
// A missing capture is made first from the courtyard test panorama with the
// synthetic capture generator (full-size frames, vignetting and exposure),
// which takes a few minutes once. Stage lines are taken from the stage
// timer's own output on standard error.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "libglutil/StageTimer.h"
#include "libglutil/ContextSession.h"
#include "passes/Stitch.h"
#include "project/PtsImport.h"
#include "tools/make-capture/SyntheticCapture.h"

namespace fs = std::filesystem;

namespace {

double seconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void makeCapture(const fs::path& pts)
{
    std::printf("making the capture in %s ...\n", pts.parent_path().c_str());
    const FloatImage pano =
        readPanoramaExr(std::string(TESSARA_SOURCE_DIR) + "/tests/data/panoramas/courtyard.exr");
    CaptureOptions o;
    o.scale = 1.0;
    o.vignetting = true;
    o.exposure = true;
    o.stem = pts.stem().string();
    o.sceneGain = ldrGain(pano);
    writeCapture(pano, planCapture(o), pts.parent_path().string(), false);
}

struct StageTotal {
    double seconds = 0;
    int count = 0;
};

// Runs `work` with standard error going to a temporary file and sums the
// stage timer's lines ("<stage>: <seconds>s") by stage name.
template <typename Work>
std::map<std::string, StageTotal> collectStages(Work work, std::vector<std::string>& order)
{
    std::fflush(stderr);
    FILE* log = std::tmpfile();
    const int saved = dup(2);
    dup2(fileno(log), 2);
    work();
    std::fflush(stderr);
    dup2(saved, 2);
    close(saved);
    std::rewind(log);
    std::map<std::string, StageTotal> stages;
    char line[512];
    while (std::fgets(line, sizeof line, log)) {
        std::string text(line);
        const size_t colon = text.rfind(": ");
        if (colon == std::string::npos || text.size() < colon + 3 || text.find('s', colon) == std::string::npos) {
            std::fputs(line, stderr);
            continue;
        }
        std::string name = text.substr(0, colon);
        name.erase(0, name.find_first_not_of(' '));
        char* end = nullptr;
        const double t = std::strtod(text.c_str() + colon + 2, &end);
        if (end == text.c_str() + colon + 2) {
            std::fputs(line, stderr);
            continue;
        }
        if (!stages.count(name))
            order.push_back(name);
        stages[name].seconds += t;
        ++stages[name].count;
    }
    std::fclose(log);
    return stages;
}

}  // namespace

int main(int argc, char** argv)
{
    const fs::path pts = argc > 1 ? fs::path(argv[1]) : fs::path("/tmp/tessara-bench/capture/capture.pts");
    const int width = argc > 2 ? std::atoi(argv[2]) : 14140;
    try {
        if (!fs::exists(pts))
            makeCapture(pts);
        int qtArgc = 1;
        char arg0[] = "bench_stitch";
        char* qtArgv[] = {arg0, nullptr};
        ContextSession session(qtArgc, qtArgv);

        Project project = importPtsScript(pts.string());
        const StitchLayout layout = stitchLayout(project.images.size());
        const int w = width - width % (4 * layout.slotCount), h = w / 2;
        Image pano(w, h, 3);
        double sourceMp = 0;
        for (const ImageEntry& e : project.images)
            sourceMp += double(e.width) * e.height / 1e6;

        std::vector<std::string> order;
        double t0 = 0, t1 = 0;
        const auto stages = collectStages(
            [&] {
                globalTimer().markStage("(setup)");  // start the first stage here
                t0 = seconds();
                stitchEquirect(pano.mutableView(), pts.string(), project, false, false);
                t1 = seconds();
            },
            order);

        const double panoMp = double(w) * h / 1e6;
        std::printf("stitch of %zu sources (%.0f MP) into %d x %d (%.1f MP), %d slots\n", project.images.size(),
                    sourceMp, w, h, panoMp, layout.slotCount);
        std::printf("%22s %6s %9s %12s\n", "stage", "count", "seconds", "pano MP/s");
        double staged = 0;
        for (const std::string& name : order) {
            if (name[0] == '(')
                continue;
            const StageTotal& s = stages.at(name);
            staged += s.seconds;
            std::printf("%22s %6d %9.3f %12.1f\n", name.c_str(), s.count, s.seconds, panoMp / s.seconds);
        }
        std::printf("%22s %6s %9.3f %12.1f\n", "stitchEquirect", "", t1 - t0, panoMp / (t1 - t0));
        std::printf("(stages account for %.3f s)\n", staged);
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "Error: %s\n", e.what());
        return 1;
    }
}
