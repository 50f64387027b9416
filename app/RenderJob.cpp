#include "app/RenderJob.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "app/RenderPlan.h"
#include "image/FormatText.h"
#include "image/ImageLoader.h"
#include "image/ImageView.h"
#include "image/Jpeg.h"
#include "image/OpenExr.h"
#include "image/OutputFile.h"
#include "image/Radiance.h"
#include "libglutil/Stage.h"
#include "libglutil/Texture.h"
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

// Fails at once, with the error the failing step would give, when an option
// cannot succeed: a cube face width the plan rejects, a panorama or cube face
// beyond the GPU's texture limit, or a logo that cannot be opened. Without
// this a project would be stitched (a minute at full size) and some outputs
// written before the job fails.
void checkFeasible(const RenderPlan& plan)
{
    RenderPlan trial = plan;
    std::ostringstream discarded;  // the width line is printed when the outputs are really planned
    planOutputs(trial, discarded);
    if (plan.isProject())
        Texture::checkFits(plan.width / plan.slotCount, plan.height);  // one stitch strip
    if (plan.options.writeCfJpg || (plan.options.writeCfExr && plan.hdr)) {
        Texture::checkFits(plan.width, plan.height);  // the panorama as the faces' source
        Texture::checkFits(trial.cubeFaceWidth, trial.cubeFaceWidth);
    }
    if (!plan.options.logoPath.empty())
        checkLoadable(plan.options.logoPath.string());
}

// Loads the project, completes the plan from it and stitches it.
Panorama stitchProject(RenderPlan& plan)
{
    Project project =
        plan.input == InputKind::TspProject ? loadTspProject(plan.inputPath) : importPtsScript(plan.inputPath);
    printProjectListing(project, std::cerr);
    planProject(plan, project, std::cerr);
    checkFeasible(plan);

    Panorama pano;
    pano.width = plan.width;
    pano.height = plan.height;
    pano.buffer = Image(pano.width, pano.height, plan.hdr ? 4 : 3);
    stitchEquirect(pano.buffer.data, pano.width, pano.height, plan.inputPath, project, plan.hdr,
                   plan.options.autoLevel);
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

// The finishing passes and the writes of a complete plan, in their fixed order.
void executePlan(const RenderPlan& plan, Panorama& pano)
{
    const int bytesPerPixel = plan.hdr ? 4 : 3;
    if (!plan.options.logoPath.empty())
        drawLogo(pano.width, pano.height, pano.buffer.data, bytesPerPixel * pano.width,
                 plan.options.logoPath.string(), plan.hdr);
    if (plan.upsideDown) {
        reversePixels(pano.buffer.data, int64_t(pano.width) * pano.height, bytesPerPixel);
        finishStage("upside_down");
    }
    // The thumbnail exists before the EXR outputs that embed it.
    if (plan.writesThumbnail())
        makeThumbnail(pano.view(bytesPerPixel), plan.hdr, plan.thumbnailPath);

    ImageView rgb = pano.rgb();
    if (plan.hdr) {
        const ImageView rgbe = pano.rgbe();
        if (plan.options.writeErHdr) {
            writeRadianceOutput(rgbe, plan.radiancePath());
            finishStage("save (equirect HDR)");
        }
        if (plan.options.writeErExr) {
            writeEquirectExr(rgbe, plan.exrPath(), plan.options.exrCompression, plan.thumbnailPath, plan.projectPath);
            finishStage("save (equirect EXR)");
        }
        if (plan.options.writeCfExr)
            writeCubeFacesExr(rgbe, plan.cubeFaceWidth, plan.exrPath(), plan.options.exrCompression,
                              plan.thumbnailPath, plan.projectPath);
        if (!plan.options.writeErJpg && !plan.options.writeCfJpg)
            return;
        rgb = tonemap(rgbe);
    }

    if (plan.options.writeErJpg) {
        writeJpeg(rgb, plan.equirectJpegPath(), {photoSphereXmp(rgb.width, rgb.height)});
        finishStage("save (equirect JPG)");
    }
    if (plan.options.writeCfJpg) {
        writeCubeFacesJpeg(rgb, plan.cubeFaceWidth, CubeJpegNames(plan.outputPrefix));
        writeWebViewerFiles(plan.cubeFaceWidth, plan.outputPrefix);
    }
}

}  // namespace

int runRenderJob(const JobOptions& options, RenderPlan* planned)
{
    RenderPlan plan = planInput(options);
    Panorama pano;
    if (plan.isProject()) {
        pano = stitchProject(plan);
    } else {
        pano.buffer = plan.input == InputKind::RadianceImage ? readRadiance(plan.inputPath) : readExr(plan.inputPath);
        pano.width = pano.buffer.width;
        pano.height = pano.buffer.height;
        finishStage("read hdr/exr");
        planImageInput(plan, pano.width, pano.height, std::cerr);
        if (plan.tonemapOnly) {
            if (planned)
                *planned = plan;
            writeJpeg(tonemap(pano.rgbe()), plan.tonemapOnlyPath());
            finishStage("save (JPG)");
            return -1;
        }
        checkFeasible(plan);
    }
    planOutputs(plan, std::cerr);
    if (planned)
        *planned = plan;
    executePlan(plan, pano);
    return 0;
}
