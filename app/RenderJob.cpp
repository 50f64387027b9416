#include "app/RenderJob.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

#include "app/PathUtil.h"
#include "app/RenderPlan.h"
#include "image/FormatText.h"
#include "image/ImageView.h"
#include "image/Jpeg.h"
#include "image/OpenExr.h"
#include "image/OutputFile.h"
#include "image/Radiance.h"
#include "libglutil/Stage.h"
#include "passes/CubeFaces.h"
#include "passes/Logo.h"
#include "passes/Stitch.h"
#include "passes/Thumbnail.h"
#include "passes/Tonemap.h"
#include "passes/WebViewers.h"
#include "project/PtsImport.h"
#include "project/TspProject.h"

namespace {

// The panorama of the job: one buffer, seen as RGBE (4 bytes a pixel) or as
// packed 8-bit RGB (3 bytes a pixel) with rows packed either way.
struct Panorama {
    Image buffer;
    int32_t width = 0;
    int32_t height = 0;
    bool hdr = false;
    bool upsideDown = false;
    std::string projectPath;  // document embedded into EXR outputs; empty for an image input

    ImageView rgbe() const { return view(4); }
    ImageView rgb() const { return view(3); }
    ImageView view(int channels) const
    {
        ImageView v;
        v.data = buffer.data;
        v.pixelStep = channels;
        v.rowStride = channels * width;
        v.width = width;
        v.height = height;
        return v;
    }
};

// Loads the project, decides mode and sizes, and stitches it.
Panorama stitchProject(JobOptions& options)
{
    const std::string input = options.inputPath.string();
    Panorama pano;
    Project project;
    if (hasExtensionIn(input, "tsp")) {
        project = loadTspProject(input);
        pano.projectPath = input;
    } else {
        project = importPtsScript(input);
        pano.projectPath = std::filesystem::path(options.inputPath).replace_extension("tsp").string();
    }
    printProjectListing(project, std::cerr);

    pano.hdr = isHdrProject(project);
    pano.upsideDown = applyUpsideDownRule(project);
    const int slots = slotCountOf(project);
    if (options.erWidth == 0)
        options.erWidth = defaultEquirectWidth(project, slots);
    else
        options.erWidth = adjustEquirectWidth(options.erWidth, slots, std::cerr);
    if (options.erWidth <= 0)
        throw std::runtime_error(formatText("Invalid output equirect width %d", options.erWidth));

    pano.width = options.erWidth;
    pano.height = pano.width / 2;
    pano.buffer = Image(pano.width, pano.height, pano.hdr ? 4 : 3);
    stitchEquirect(pano.buffer.data, pano.width, pano.height, input, project, pano.hdr, options.autoLevel);
    return pano;
}

// Writes the RGBE panorama as a Radiance file, complete or not at all.
void writeRadianceOutput(const ImageView& rgbe, const std::string& path)
{
    AtomicOutputFile file(path);
    std::ofstream out(file.tempPath(), std::ios::binary | std::ios::trunc);
    if (!out)
        throw std::runtime_error(formatText("Failed to open file '%s': %s", path.c_str(), std::strerror(errno)));
    writeRadiance(out, rgbe);
    out.close();
    if (!out)
        throw std::runtime_error(formatText("Failed to write file '%s': %s", path.c_str(), std::strerror(errno)));
    file.commit();
}

}  // namespace

int runRenderJob(JobOptions& options)
{
    const std::string input = options.inputPath.string();
    const std::string prefix = options.outputPrefix.string();
    const std::string thumbnailPath = options.thumbnailPath.string();

    Panorama pano;
    if (!hasExtensionIn(input, "hdr exr")) {
        pano = stitchProject(options);
    } else {
        pano.buffer = hasExtensionIn(input, "hdr") ? readRadiance(input) : readExr(input);
        pano.width = pano.buffer.width;
        pano.height = pano.buffer.height;
        finishStage("read hdr/exr");
        if (!isRenderedEquirectSize(pano.width, pano.height)) {
            std::cerr << "can only reproject equirect hdr images that have been rendered with this tool "
                         "(unsupported image dimensions "
                      << pano.width << "x" << pano.height << ") -> tonemapping only" << std::endl;
            writeJpeg(tonemap(pano.rgbe()), prefix + ".jpg");
            finishStage("save (JPG)");
            return -1;
        }
        pano.hdr = true;
    }
    const int32_t width = pano.width;

    if (options.cfWidth == 0)
        options.cfWidth = width / 4;
    if (options.writeCfExr || endsWithSeparator(prefix))
        options.cfWidth = roundCubeFaceWidth(options.cfWidth, std::cerr);
    if ((options.writeCfJpg || (options.writeCfExr && pano.hdr)) && options.cfWidth < 1)
        throw std::runtime_error(formatText("Invalid cube face width %d", options.cfWidth));

    const int bytesPerPixel = pano.hdr ? 4 : 3;
    if (!options.logoPath.empty())
        drawLogo(width, pano.height, pano.buffer.data, bytesPerPixel * width, options.logoPath.string(), pano.hdr);
    if (pano.upsideDown) {
        reversePixels(pano.buffer.data, int64_t(width) * pano.height, bytesPerPixel);
        finishStage("upside_down");
    }
    // The thumbnail exists before the EXR outputs that embed it.
    if (width >= 2000 && !endsWithSeparator(prefix))
        makeThumbnail(pano.view(bytesPerPixel), pano.hdr, thumbnailPath);

    ImageView rgb = pano.rgb();
    if (pano.hdr) {
        const ImageView rgbe = pano.rgbe();
        if (options.writeErHdr) {
            writeRadianceOutput(rgbe, prefix + ".hdr");
            finishStage("save (equirect HDR)");
        }
        if (options.writeErExr) {
            writeEquirectExr(rgbe, prefix + ".exr", options.exrCompression, thumbnailPath, pano.projectPath);
            finishStage("save (equirect EXR)");
        }
        if (options.writeCfExr)
            writeCubeFacesExr(rgbe, options.cfWidth, prefix, options.exrCompression, thumbnailPath,
                              pano.projectPath);
        if (!options.writeErJpg && !options.writeCfJpg)
            return 0;
        rgb = tonemap(rgbe);
    }

    if (options.writeErJpg) {
        // A panorama no wider than the thumbnail takes the thumbnail's name.
        writeJpeg(rgb, width > 1000 ? prefix + ".jpg" : thumbnailPath, {photoSphereXmp(rgb.width, rgb.height)});
        finishStage("save (equirect JPG)");
    }
    if (options.writeCfJpg) {
        writeCubeFacesJpeg(rgb, options.cfWidth, prefix);
        writeWebViewerFiles(options.cfWidth, prefix);
    }
    return 0;
}
