#include "app/RenderPlan.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "image/PathUtil.h"
#include "image/FormatText.h"
#include "image/OpenExr.h"
#include "image/Radiance.h"
#include "passes/CubeFaces.h"
#include "passes/WebViewers.h"
#include "project/PtsImport.h"
#include "project/TspProject.h"

void printProjectListing(const Project& project, std::ostream& log)
{
    for (const ImageEntry& e : project.images) {
        log << e.fileName << " ";
        for (float v : {e.yaw, e.roll, e.pitch, e.fov, e.a, e.b, e.c, e.d, e.e, e.exposure, e.va, e.vb, e.vc, e.vd})
            log << v << " ";
        log << std::endl;
    }
}

bool isHdrProject(const Project& project)
{
    return !project.images.empty() && hasExtensionIn(project.images.front().fileName, "hdr");
}

bool applyUpsideDownRule(Project& project)
{
    if (project.images.empty() || !isOrientation(project.images.back()))
        return false;
    ImageEntry& orientation = project.images.back();
    if (!(orientation.fov > 90.0f))
        return false;
    orientation.roll = -orientation.roll;
    orientation.pitch = -orientation.pitch;
    return true;
}

int slotCountOf(const Project& project) { return project.images.size() <= 7 ? 5 : 6; }

int32_t defaultEquirectWidth(const Project& project, int slotCount)
{
    int32_t pixels = 0;
    if (!project.images.empty()) {
        const ImageEntry& first = project.images.front();
        // The 32-bit product, wrapping like the capture software's own.
        pixels = int32_t(uint32_t(first.width) * uint32_t(first.height));
    }
    const bool six = slotCount == 6;
    if (pixels < 30000000)
        return six ? 21000 : 14140;
    if (pixels < 50000000)
        return six ? 24600 : 17500;
    return six ? 31800 : 20000;
}

int32_t adjustEquirectWidth(int32_t erWidth, int slotCount, std::ostream& log)
{
    const int32_t r = erWidth % (4 * slotCount);
    if (r != 0) {
        log << "Adjusting output equirect width by " << -r << " pixels -> outW = " << erWidth - r << "."
            << std::endl;
    }
    return erWidth - r;
}

int32_t roundCubeFaceWidth(int32_t cfWidth, std::ostream& log)
{
    if (cfWidth < 1)
        throw std::runtime_error("Invalid cube face width " + std::to_string(cfWidth));
    // Below 256 the power of two would be 0; tiles of one pixel keep the width.
    const unsigned p = std::max(1u, unsigned(std::pow(2.0, std::floor(std::log2(cfWidth / 256.0)))));
    const int64_t k = int64_t(std::ceil(float(cfWidth) / float(p)));
    const int64_t rounded = k * p;
    if (rounded > INT32_MAX)
        throw std::runtime_error("Invalid cube face width " + std::to_string(cfWidth));
    int e = 0;
    while (((p >> e) & 1u) == 0)
        ++e;
    log << formatText("Adjusting output cubeface width from %d to %d = %d * 2^%d.\n", cfWidth, int(rounded), int(k), e)
        << std::flush;
    return int32_t(rounded);
}

bool isRenderedEquirectSize(int32_t width, int32_t height)
{
    return width > 0 && width == 2 * height && width % 20 == 0;
}

void reversePixels(uint8_t* pixels, int64_t pixelCount, int bytesPerPixel)
{
    uint8_t tmp[16];
    const size_t n = size_t(bytesPerPixel);
    for (int64_t i = 0, j = pixelCount - 1; i < j; ++i, --j) {
        uint8_t* a = pixels + i * bytesPerPixel;
        uint8_t* b = pixels + j * bytesPerPixel;
        std::memcpy(tmp, a, n);
        std::memcpy(a, b, n);
        std::memcpy(b, tmp, n);
    }
}

RenderPlan planInput(const JobOptions& options)
{
    RenderPlan plan;
    plan.options = options;
    plan.inputPath = options.inputPath.string();
    if (hasExtensionIn(plan.inputPath, "hdr exr"))
        plan.input = hasExtensionIn(plan.inputPath, "hdr") ? InputKind::RadianceImage : InputKind::ExrImage;
    else if (hasExtensionIn(plan.inputPath, "tsp"))
        plan.input = InputKind::TspProject;
    else
        plan.input = InputKind::PtsScript;
    if (plan.input == InputKind::TspProject)
        plan.projectPath = plan.inputPath;
    else if (plan.input == InputKind::PtsScript)
        plan.projectPath = std::filesystem::path(options.inputPath).replace_extension("tsp").string();

    plan.outputPrefix = options.outputPrefix.string();
    plan.thumbnailPath = plan.outputPrefix + " thumbnail.jpg";
    plan.tileFolder = endsWithSeparator(plan.outputPrefix);
    return plan;
}

void planProject(RenderPlan& plan, Project& project, std::ostream& log)
{
    const int32_t givenWidth = plan.options.erWidth;
    plan.hdr = isHdrProject(project);
    plan.upsideDown = applyUpsideDownRule(project);
    plan.slotCount = slotCountOf(project);
    plan.width = givenWidth == 0 ? defaultEquirectWidth(project, plan.slotCount)
                                 : adjustEquirectWidth(givenWidth, plan.slotCount, log);
    if (plan.width <= 0)
        throw std::runtime_error(formatText("Invalid output equirect width %d", plan.width));
    plan.height = plan.width / 2;
}

void planImageInput(RenderPlan& plan, int32_t width, int32_t height, std::ostream& log)
{
    plan.width = width;
    plan.height = height;
    plan.hdr = true;
    plan.tonemapOnly = !isRenderedEquirectSize(width, height);
    if (plan.tonemapOnly) {
        log << "can only reproject equirect hdr images that have been rendered with this tool "
               "(unsupported image dimensions "
            << width << "x" << height << ") -> tonemapping only" << std::endl;
        plan.outputFiles = {plan.tonemapOnlyPath()};
    }
}

void planOutputs(RenderPlan& plan, std::ostream& log)
{
    const int32_t givenCubeFaceWidth = plan.options.cfWidth;
    plan.cubeFaceWidth = givenCubeFaceWidth == 0 ? plan.width / 4 : givenCubeFaceWidth;
    if (plan.options.writeCfExr || plan.tileFolder)
        plan.cubeFaceWidth = roundCubeFaceWidth(plan.cubeFaceWidth, log);
    if ((plan.options.writeCfJpg || (plan.options.writeCfExr && plan.hdr)) && plan.cubeFaceWidth < 1)
        throw std::runtime_error(formatText("Invalid cube face width %d", plan.cubeFaceWidth));

    std::vector<std::string>& files = plan.outputFiles;
    files.clear();
    if (plan.writesThumbnail())
        files.push_back(plan.thumbnailPath);
    if (plan.hdr) {
        if (plan.options.writeErHdr)
            files.push_back(plan.radiancePath());
        // The cube map EXR takes the equirect EXR's name and replaces it.
        if ((plan.options.writeErExr || plan.options.writeCfExr) &&
            std::find(files.begin(), files.end(), plan.exrPath()) == files.end())
            files.push_back(plan.exrPath());
    }
    if (plan.options.writeErJpg && std::find(files.begin(), files.end(), plan.equirectJpegPath()) == files.end())
        files.push_back(plan.equirectJpegPath());
    if (plan.options.writeCfJpg) {
        const std::vector<std::string> faces = CubeJpegNames(plan.outputPrefix).all(plan.cubeFaceWidth);
        files.insert(files.end(), faces.begin(), faces.end());
        for (const TextOutput& viewer : webViewerFiles(plan.cubeFaceWidth, plan.outputPrefix))
            files.push_back(viewer.path);
    }
}

RenderPlan planJob(const JobOptions& options)
{
    std::ostringstream discarded;  // console lines belong to the run that renders
    RenderPlan plan = planInput(options);
    if (plan.isProject()) {
        Project project = plan.input == InputKind::TspProject ? loadTspProject(plan.inputPath)
                                                              : importPtsScript(plan.inputPath);
        planProject(plan, project, discarded);
    } else {
        const auto [width, height] = plan.input == InputKind::RadianceImage ? radianceSize(plan.inputPath)
                                                                            : exrSize(plan.inputPath);
        planImageInput(plan, width, height, discarded);
        if (plan.tonemapOnly) {
            plan.outputFiles = {plan.tonemapOnlyPath()};
            return plan;
        }
    }
    planOutputs(plan, discarded);
    return plan;
}

void printPlan(const RenderPlan& plan, std::ostream& out)
{
    static const char* const kInputs[] = {"tsp project", "pts script", "hdr image", "exr image"};
    out << "input: " << plan.inputPath << " (" << kInputs[int(plan.input)] << ")\n"
        << "mode: " << (plan.hdr ? "HDR" : "LDR") << (plan.upsideDown ? ", upside down" : "")
        << (plan.tonemapOnly ? ", tone-mapping only" : "") << "\n";
    if (plan.isProject())
        out << "slots: " << plan.slotCount << "\n";
    out << "equirect: " << plan.width << " x " << plan.height << "\n"
        << "cube face: " << plan.cubeFaceWidth << "\n";
    for (const std::string& file : plan.outputFiles)
        out << "writes: " << file << "\n";
}
