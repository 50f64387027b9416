#include "app/RenderJob.h"

#include <filesystem>
#include <iostream>
#include <set>
#include <stdexcept>
#include <utility>

#include "app/RenderPlan.h"
#include "image/FormatText.h"
#include "image/ImageLoader.h"
#include "image/ImageView.h"
#include "image/Jpeg.h"
#include "image/OpenExr.h"
#include "image/Picture.h"
#include "image/Radiance.h"
#include "libglutil/Stage.h"
#include "libglutil/Texture.h"
#include "passes/CubeFaces.h"
#include "passes/Logo.h"
#include "passes/Stitch.h"
#include "passes/Thumbnail.h"
#include "passes/Tonemap.h"
#include "passes/WebViewers.h"

namespace {

// Fails at once, with the error the failing step would give, when a step
// cannot succeed: a panorama or cube face beyond the GPU's texture limit, or
// a logo that cannot be opened. Without this a project would be stitched (a
// minute at full size) and some outputs written before the job fails.
void checkFeasible(const RenderPlan& plan)
{
    if (plan.has(StepKind::Stitch))
        Texture::checkFits(plan.width / plan.slotCount, plan.height);  // one stitch strip
    if (plan.has(StepKind::CubeFacesJpeg) || plan.has(StepKind::CubeMapExr)) {
        Texture::checkFits(plan.width, plan.height);  // the panorama as the faces' source
        Texture::checkFits(plan.cubeFaceWidth, plan.cubeFaceWidth);
    }
    if (plan.has(StepKind::Logo))
        checkLoadable(plan.options.logoPath.string());
}

// Makes the folders the outputs go into (the prefix's folder, or the tile
// pyramid's), so that a missing one fails the job before the panorama is made.
void createOutputFolders(const RenderPlan& plan)
{
    std::set<std::filesystem::path> made;
    for (const std::string& file : plan.outputFiles()) {
        const std::filesystem::path folder = std::filesystem::path(file).parent_path();
        if (folder.empty() || !made.insert(folder).second)
            continue;
        std::error_code ec;
        std::filesystem::create_directories(folder, ec);
        if (ec)
            throw std::runtime_error(
                formatText("Failed to create folder '%s': %s", folder.c_str(), ec.message().c_str()));
    }
}

// Walks the steps of a checked plan. `pano` holds RGBE in an HDR render, else
// RGB; tone mapping turns RGBE into RGB in the same buffer, and `rgb` is the
// 8-bit view from then on. `panorama` is the JPEG faces' source texture: made
// by the read itself when the plan decodes to it (then `pano` stays empty),
// else uploaded from `rgb`; when the faces are the last step the buffer is
// released once they have it, so that a large panorama is held only once
// while they render.
void executePlan(const RenderPlan& plan)
{
    Image pano;
    ImageView rgb;
    Texture panorama;
    for (const PlanStep& step : plan.steps) {
        const std::string& out = step.outputs.empty() ? plan.outputPrefix : step.outputs.front();
        switch (step.kind) {
        case StepKind::Stitch: {
            Project project = plan.project;  // the stitch measures the yaws from its first image
            pano = Image(plan.width, plan.height, panoramaChannels(plan.hdr));
            stitchEquirect(pano.mutableView(), plan.inputPath, project, plan.hdr, plan.options.autoLevel);
            rgb = pano;
            break;
        }
        case StepKind::ReadImage:
            if (plan.input == InputKind::PictureImage) {
                if (plan.decodeToTexture)
                    panorama = loadRgbJpeg(plan.inputPath, plan.width, plan.height);
                else
                    pano = placePicture(readPicture(plan.inputPath, plan.picture), plan);
                if (pano.channels() == kRgb16Channels) {
                    // The faces sample the 16-bit values and round once as
                    // they are drawn; the CPU's outputs (and a logo drawn
                    // over the faces' source) work on the values rounded to
                    // 8 bits.
                    if (plan.has(StepKind::CubeFacesJpeg) && !plan.has(StepKind::Logo))
                        panorama = uploadRgb(pano);
                    pano = roundRgb16(pano);
                }
                finishStage("read image");
            } else {
                pano = plan.input == InputKind::RadianceImage ? readRadiance(plan.inputPath)
                                                              : readExr(plan.inputPath);
                finishStage("read hdr/exr");
            }
            rgb = pano;
            break;
        case StepKind::Note:
            std::cerr << step.text << std::flush;
            break;
        case StepKind::Logo:
            drawLogo(pano.mutableView(), plan.options.logoPath.string(), plan.hdr);
            break;
        case StepKind::UpsideDown:
            reversePixels(pano.data(), int64_t(pano.width()) * pano.height(), pano.channels());
            finishStage("upside_down");
            break;
        case StepKind::Thumbnail:
            makeThumbnail(pano, plan.hdr, out);
            break;
        case StepKind::EquirectRadiance:
            writeRadianceFile(pano, out);
            finishStage("save (equirect HDR)");
            break;
        case StepKind::EquirectExr:
            writeEquirectExr(pano, out, plan.options.exrCompression, plan.thumbnailPath, plan.projectPath);
            finishStage("save (equirect EXR)");
            break;
        case StepKind::CubeMapExr:
            writeCubeFacesExr(pano, plan.cubeFaceWidth, out, plan.options.exrCompression, plan.thumbnailPath,
                              plan.projectPath);
            break;
        case StepKind::Tonemap:
            rgb = tonemap(pano.mutableView());
            break;
        case StepKind::EquirectJpeg:
            writeJpeg(rgb, out, {photoSphereXmp(rgb.width(), rgb.height())});
            finishStage("save (equirect JPG)");
            break;
        case StepKind::PlainJpeg:
            writeJpeg(rgb, out);
            finishStage("save (JPG)");
            break;
        case StepKind::CubeFacesJpeg: {
            const TileEncoding& tiles = plan.options.tiles;
            if (panorama.count() == 0)
                panorama = uploadRgb(rgb);
            if (&step == &plan.steps.back())
                pano = Image();
            writeCubeFacesJpeg(panorama, plan.cubeFaceWidth, CubeJpegNames(plan.outputPrefix, tiles.extension()), tiles);
            writeWebViewerFiles(plan.cubeFaceWidth, plan.outputPrefix, tiles.extension());
            break;
        }
        }
    }
}

}  // namespace

int runRenderJob(const JobOptions& options, RenderPlan* planned)
{
    const RenderPlan plan = planJob(options, std::cerr);
    checkFeasible(plan);
    createOutputFolders(plan);
    if (planned)
        *planned = plan;
    executePlan(plan);
    return plan.tonemapOnly ? -1 : 0;
}
