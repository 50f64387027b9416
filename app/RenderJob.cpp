#include "app/RenderJob.h"

#include <iostream>
#include <sstream>

#include "app/RenderPlan.h"
#include "image/ImageLoader.h"
#include "image/ImageView.h"
#include "image/Jpeg.h"
#include "image/OpenExr.h"
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
Image stitchProject(RenderPlan& plan)
{
    Project project =
        plan.input == InputKind::TspProject ? loadTspProject(plan.inputPath) : importPtsScript(plan.inputPath);
    printProjectListing(project, std::cerr);
    planProject(plan, project, std::cerr);
    checkFeasible(plan);

    Image pano(plan.width, plan.height, panoramaChannels(plan.hdr));
    stitchEquirect(pano.mutableView(), plan.inputPath, project, plan.hdr, plan.options.autoLevel);
    return pano;
}

// The finishing passes and the writes of a complete plan, in their fixed order.
// `pano` holds RGBE in an HDR render, else RGB; tone mapping turns RGBE into
// RGB in the same buffer.
void executePlan(const RenderPlan& plan, Image& pano)
{
    if (!plan.options.logoPath.empty())
        drawLogo(pano.mutableView(), plan.options.logoPath.string(), plan.hdr);
    if (plan.upsideDown) {
        reversePixels(pano.data(), int64_t(pano.width()) * pano.height(), pano.channels());
        finishStage("upside_down");
    }
    // The thumbnail exists before the EXR outputs that embed it.
    if (plan.writesThumbnail())
        makeThumbnail(pano, plan.hdr, plan.thumbnailPath);

    ImageView rgb = pano;
    if (plan.hdr) {
        const ImageView rgbe = pano;
        if (plan.options.writeErHdr) {
            writeRadianceFile(rgbe, plan.radiancePath());
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
        rgb = tonemap(pano.mutableView());
    }

    if (plan.options.writeErJpg) {
        writeJpeg(rgb, plan.equirectJpegPath(), {photoSphereXmp(rgb.width(), rgb.height())});
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
    Image pano;
    if (plan.isProject()) {
        pano = stitchProject(plan);
    } else {
        pano = plan.input == InputKind::RadianceImage ? readRadiance(plan.inputPath) : readExr(plan.inputPath);
        finishStage("read hdr/exr");
        planImageInput(plan, pano.width(), pano.height(), std::cerr);
        if (plan.tonemapOnly) {
            if (planned)
                *planned = plan;
            writeJpeg(tonemap(pano.mutableView()), plan.tonemapOnlyPath());
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
