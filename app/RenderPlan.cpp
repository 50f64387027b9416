#include "app/RenderPlan.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cerrno>
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
#include "project/LensModel.h"
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

int slotCountOf(const Project& project)
{
    return project.layout == RigLayout::General || project.images.size() <= 7 ? 5 : 6;
}

int32_t rigEquirectWidth(const Project& project, int slotCount)
{
    constexpr double kWidest = 31800;
    double focal = 0;
    for (const ImageEntry& e : project.images)
        if (!isOrientation(e) && e.fov > 0)
            focal = std::max(focal, focalLength(e.projection, double(e.width), toRadians(e.fov)));
    const int step = 4 * slotCount;
    const double width = std::min(2 * kPi * focal, kWidest);
    return std::max(step, int32_t(width / step) * step);
}

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

void checkInputFile(const std::string& path)
{
    namespace fs = std::filesystem;
    std::error_code ec;
    const fs::file_status status = fs::status(path, ec);
    std::string what;
    if (status.type() == fs::file_type::not_found)
        what = fs::is_symlink(fs::symlink_status(path, ec)) ? "is a link to a file that does not exist" : "does not exist";
    else if (ec)
        what = "cannot be read: " + ec.message();
    else if (status.type() == fs::file_type::directory)
        what = "is a folder";
    else if (status.type() != fs::file_type::regular)
        what = "is not a regular file";
    else if (::access(path.c_str(), R_OK) != 0)
        what = std::string("cannot be read: ") + std::strerror(errno);
    else
        return;
    throw std::runtime_error("'" + path + "' " + what + "; " + kExpectedInput);
}

Image placePicture(Image picture, const RenderPlan& plan)
{
    const PanoramaPlacement& at = plan.placement;
    if (!at.present())
        return picture;
    Image pano(plan.width, plan.height, picture.channels());
    const size_t rowBytes = size_t(picture.width()) * size_t(picture.channels());
    for (int32_t y = 0; y < picture.height(); ++y)
        std::memcpy(pano.pixel(at.left, at.top + y), picture.pixel(0, y), rowBytes);
    return pano;
}

RenderPlan planInput(const JobOptions& options)
{
    RenderPlan plan;
    plan.options = options;
    plan.inputPath = options.inputPath.string();
    const PictureKind sniffed = hasExtensionIn(plan.inputPath, "tsp pts") ? PictureKind::Unknown
                                                                          : sniffPictureKind(plan.inputPath);
    if (sniffed == PictureKind::Radiance || sniffed == PictureKind::OpenExr)
        plan.input = sniffed == PictureKind::Radiance ? InputKind::RadianceImage : InputKind::ExrImage;
    else if (sniffed != PictureKind::Unknown)
        plan.input = InputKind::PictureImage;
    else if (hasExtensionIn(plan.inputPath, "hdr exr"))
        plan.input = hasExtensionIn(plan.inputPath, "hdr") ? InputKind::RadianceImage : InputKind::ExrImage;
    else if (hasExtensionIn(plan.inputPath, "tsp"))
        plan.input = InputKind::TspProject;
    else if (hasExtensionIn(plan.inputPath, "jpg jpeg png tif tiff") && std::filesystem::is_regular_file(options.inputPath))
        throw std::runtime_error("'" + plan.inputPath + "' is neither a project nor a readable image; " +
                                 kExpectedInput + " (JPEG, PNG, TIFF, Radiance or OpenEXR)");
    else
        plan.input = InputKind::PtsScript;
    plan.picture = plan.input == InputKind::PictureImage ? sniffed : PictureKind::Unknown;
    if (plan.input == InputKind::TspProject)
        plan.projectPath = plan.inputPath;
    else if (plan.input == InputKind::PtsScript)
        plan.projectPath = std::filesystem::path(options.inputPath).replace_extension("tsp").string();

    plan.outputPrefix = options.outputPrefix.string();
    plan.thumbnailPath = plan.outputPrefix + " thumbnail.jpg";
    plan.tileFolder = endsWithSeparator(plan.outputPrefix);
    return plan;
}

void planProject(RenderPlan& plan, Project project, std::ostream& log)
{
    const int32_t givenWidth = plan.options.erWidth;
    plan.hdr = isHdrProject(project);
    plan.upsideDown = applyUpsideDownRule(project);
    plan.layout = project.layout;
    plan.slotCount = slotCountOf(project);
    const int32_t defaultWidth = plan.layout == RigLayout::General ? rigEquirectWidth(project, plan.slotCount)
                                                                   : defaultEquirectWidth(project, plan.slotCount);
    plan.width = givenWidth == 0 ? defaultWidth : adjustEquirectWidth(givenWidth, plan.slotCount, log);
    if (plan.width <= 0)
        throw std::runtime_error(formatText("Invalid output equirect width %d", plan.width));
    plan.height = plan.width / 2;
    plan.project = std::move(project);
}

void planImageInput(RenderPlan& plan, int32_t width, int32_t height)
{
    plan.width = width;
    plan.height = height;
    plan.hdr = true;
    plan.tonemapOnly = !isRenderedEquirectSize(width, height) &&
                       !(plan.options.reprojectAnySize && width > 0 && width == 2 * height);
}

void planPictureInput(RenderPlan& plan, const PictureInfo& info)
{
    const PanoramaPlacement at = photoSphereXmpPlacement(info.xmp);
    const char* kind = pictureKindName(plan.picture);
    if (at.present()) {
        if (at.fullWidth != 2 * at.fullHeight || int64_t(at.left) + info.width > at.fullWidth ||
            int64_t(at.top) + info.height > at.fullHeight)
            throw std::runtime_error(formatText(
                "%s file '%s': its Photo Sphere XMP places %dx%d pixels at %d,%d in a panorama of %dx%d; expected "
                "a 2:1 panorama that holds them",
                kind, plan.inputPath.c_str(), info.width, info.height, at.left, at.top, at.fullWidth, at.fullHeight));
        if (uint64_t(at.fullWidth) * uint64_t(at.fullHeight) > kMaxPicturePixels)
            throw std::runtime_error(formatText("%s file '%s': its Photo Sphere XMP panorama of %dx%d pixels is too "
                                                "large", kind, plan.inputPath.c_str(), at.fullWidth, at.fullHeight));
        plan.width = at.fullWidth;
        plan.height = at.fullHeight;
        if (at.left != 0 || at.top != 0 || at.fullWidth != info.width || at.fullHeight != info.height)
            plan.placement = at;
    } else if (info.width == 2 * info.height) {
        plan.width = info.width;
        plan.height = info.height;
    } else {
        throw std::runtime_error(formatText("%s file '%s' is %dx%d pixels: expected a 2:1 equirectangular panorama "
                                            "or Photo Sphere XMP (GPano) that places it in one",
                                            kind, plan.inputPath.c_str(), info.width, info.height));
    }
    plan.hdr = info.hdr;
    const JobOptions& o = plan.options;
    plan.decodeToTexture = plan.picture == PictureKind::Jpeg && !plan.hdr && !plan.placement.present() &&
                           info.orientation == 1 &&
                           o.writeCfJpg && !o.writeErJpg && !plan.writesThumbnail() && o.logoPath.empty();
}

bool RenderPlan::has(StepKind kind) const
{
    return std::any_of(steps.begin(), steps.end(), [kind](const PlanStep& s) { return s.kind == kind; });
}

std::vector<std::string> RenderPlan::outputFiles() const
{
    // The cube map EXR takes the equirect EXR's name and replaces it.
    std::vector<std::string> files;
    for (const PlanStep& step : steps)
        for (const std::string& file : step.outputs)
            if (std::find(files.begin(), files.end(), file) == files.end())
                files.push_back(file);
    return files;
}

void planSteps(RenderPlan& plan)
{
    std::vector<PlanStep>& steps = plan.steps;
    steps.clear();
    steps.push_back({plan.isProject() ? StepKind::Stitch : StepKind::ReadImage, {}, {}});
    if (plan.tonemapOnly) {
        steps.push_back({StepKind::Note, {},
                         formatText("can only reproject equirect hdr images that have been rendered with this tool "
                                    "(unsupported image dimensions %dx%d) -> tonemapping only\n",
                                    plan.width, plan.height)});
        steps.push_back({StepKind::Tonemap, {}, {}});
        steps.push_back({StepKind::PlainJpeg, {plan.tonemapOnlyPath()}, {}});
        return;
    }

    const JobOptions& o = plan.options;
    plan.cubeFaceWidth = o.cfWidth == 0 ? plan.width / 4 : o.cfWidth;
    if (o.writeCfExr || plan.tileFolder) {
        std::ostringstream line;  // printed once the panorama exists, before it is finished
        plan.cubeFaceWidth = roundCubeFaceWidth(plan.cubeFaceWidth, line);
        steps.push_back({StepKind::Note, {}, line.str()});
    }
    const bool hdrCubeMap = o.writeCfExr && plan.hdr;
    if ((o.writeCfJpg || hdrCubeMap) && plan.cubeFaceWidth < 1)
        throw std::runtime_error(formatText("Invalid cube face width %d", plan.cubeFaceWidth));

    if (!o.logoPath.empty())
        steps.push_back({StepKind::Logo, {}, {}});
    if (plan.upsideDown)
        steps.push_back({StepKind::UpsideDown, {}, {}});
    // The thumbnail exists before the EXR outputs that embed it.
    if (plan.writesThumbnail())
        steps.push_back({StepKind::Thumbnail, {plan.thumbnailPath}, {}});
    // LDR renders skip the HDR outputs.
    if (plan.hdr) {
        if (o.writeErHdr)
            steps.push_back({StepKind::EquirectRadiance, {plan.radiancePath()}, {}});
        if (o.writeErExr)
            steps.push_back({StepKind::EquirectExr, {plan.exrPath()}, {}});
        if (hdrCubeMap)
            steps.push_back({StepKind::CubeMapExr, {plan.exrPath()}, {}});
        if (o.writeErJpg || o.writeCfJpg)
            steps.push_back({StepKind::Tonemap, {}, {}});
    }
    if (o.writeErJpg)
        steps.push_back({StepKind::EquirectJpeg, {plan.equirectJpegPath()}, {}});
    if (o.writeCfJpg) {
        const std::string extension = o.tiles.extension();
        PlanStep faces{StepKind::CubeFacesJpeg,
                       CubeJpegNames(plan.outputPrefix, extension.c_str()).all(plan.cubeFaceWidth), {}};
        for (const TextOutput& viewer : webViewerFiles(plan.cubeFaceWidth, plan.outputPrefix, extension))
            faces.outputs.push_back(viewer.path);
        for (const LinkOutput& link : webViewerLinks(plan.cubeFaceWidth, plan.outputPrefix, extension))
            faces.outputs.push_back(link.path);
        steps.push_back(std::move(faces));
    }
}

RenderPlan planJob(const JobOptions& options, std::ostream& log)
{
    checkInputFile(options.inputPath.string());
    RenderPlan plan = planInput(options);
    if (plan.isProject()) {
        Project project = plan.input == InputKind::TspProject ? loadTspProject(plan.inputPath)
                                                              : importPtsScript(plan.inputPath);
        printProjectListing(project, log);
        planProject(plan, std::move(project), log);
    } else if (plan.input == InputKind::PictureImage) {
        planPictureInput(plan, readPictureInfo(plan.inputPath, plan.picture));
    } else {
        const auto [width, height] = plan.input == InputKind::RadianceImage ? radianceSize(plan.inputPath)
                                                                            : exrSize(plan.inputPath);
        planImageInput(plan, width, height);
    }
    planSteps(plan);
    return plan;
}

void printPlan(const RenderPlan& plan, std::ostream& out)
{
    static const char* const kInputs[] = {"tsp project", "pts script", "hdr image", "exr image", "image"};
    out << "input: " << plan.inputPath << " ("
        << (plan.input == InputKind::PictureImage ? pictureKindName(plan.picture) + std::string(" ") : "")
        << kInputs[int(plan.input)] << ")\n"
        << "mode: " << (plan.hdr ? "HDR" : "LDR") << (plan.upsideDown ? ", upside down" : "")
        << (plan.tonemapOnly ? ", tone-mapping only" : "") << "\n";
    if (plan.isProject() && plan.layout == RigLayout::General)
        out << "layout: any rig\n";
    else if (plan.isProject())
        out << "slots: " << plan.slotCount << "\n";
    out << "equirect: " << plan.width << " x " << plan.height << "\n";
    if (plan.placement.present())
        out << "placed: " << plan.placement.left << ", " << plan.placement.top << "\n";
    out << "cube face: " << plan.cubeFaceWidth << "\n";
    for (const std::string& file : plan.outputFiles())
        out << "writes: " << file << "\n";
}
