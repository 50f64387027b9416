// Stitching of a project of any rig: every source image loaded once, then the
// panorama drawn strip by strip, each strip the weighted sum of every source
// (one additive draw each into a float target), divided out and packed as the
// ring layouts pack theirs.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "image/Colour.h"
#include "image/FormatText.h"
#include "image/ImageLoader.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/FullScreenPass.h"
#include "libglutil/GLError.h"
#include "libglutil/Shader.h"
#include "libglutil/Stage.h"
#include "libglutil/Texture.h"
#include "passes/Stitch.h"
#include "passes/StitchStrips.h"
#include "project/CameraMatrix.h"
#include "project/LensModel.h"

namespace {

constexpr size_t kMaxSources = 64;
// Strips are at most this many columns wide, so that the float target stays
// small at any panorama width.
constexpr int kMaxStripWidth = 512;
constexpr int kByteBandRows = 512;

struct Source {
    size_t entry;
    Texture texture;
};

// The widest strip, not above kMaxStripWidth, that divides the width.
int stripWidthFor(int width)
{
    for (int w = std::min(width, kMaxStripWidth); w > 1; --w)
        if (width % w == 0) return w;
    return 1;
}

void checkProject(const std::vector<ImageEntry>& images, const MutableImageView& panorama, bool hdr)
{
    size_t sources = 0;
    for (const ImageEntry& e : images)
        if (!isOrientation(e)) {
            ++sources;
            if (e.width <= 0 || e.height <= 0 || !(e.fov > 0))
                throw std::runtime_error(formatText("image '%s' has no size or no field of view", e.fileName.c_str()));
        }
    if (sources == 0 || sources > kMaxSources)
        throw std::runtime_error(formatText("project has %zu source images; 1 to %zu can be stitched", sources,
                                            kMaxSources));
    if (panorama.width() <= 0 || panorama.height() <= 0 || panorama.channels() != panoramaChannels(hdr) ||
        panorama.stride() % panorama.channels() != 0)
        throw std::invalid_argument("the panorama's pixels do not match the render mode");
}

// The lens uniforms of one source for its loaded texture, which may be
// smaller than the image the script describes (d, e and the crop scale with
// it; everything else is relative to the texture's size).
void setLensUniforms(const Shader& program, const ImageEntry& entry, const Texture& texture)
{
    const double scale = double(texture.width()) / entry.width;
    LensModel model = lensModelOf(entry);
    model.w = texture.width();
    model.h = texture.height();
    model.d *= scale;
    model.e *= scale;
    const LensProjection lens(model);
    const double rhoMax = std::min(lens.maxRho(), 1e30);
    const double k = 1 - model.a - model.b - model.c;
    const double fold = std::isfinite(lens.maxRho())
                            ? (std::min(model.w, model.h) / 2.0) * rhoMax *
                                  (k + rhoMax * (model.c + rhoMax * (model.b + rhoMax * model.a)))
                            : 1e30;
    program.setUniform("lens", float(lens.focal()), float(std::min(model.w, model.h) / 2.0), float(k), float(rhoMax));
    program.setUniform("distortion", float(model.a), float(model.b), float(model.c), float(fold));
    program.setUniform("opticalCentre", float((model.w - 1) / 2.0 + model.d), float((model.h - 1) / 2.0 + model.e));
    program.setUniform("inSize", float(model.w), float(model.h));
    CropRect crop = entry.crop;
    if (crop.empty())
        crop = {0, entry.width, 0, entry.height};
    // Pixel centres at integers: the rectangle [left, right) covers
    // [left - 0.5, right - 0.5].
    program.setUniform("crop", float(scale * (crop.left + crop.right) / 2.0 - 0.5),
                       float(scale * (crop.top + crop.bottom) / 2.0 - 0.5), float(scale * (crop.right - crop.left) / 2.0),
                       float(scale * (crop.bottom - crop.top) / 2.0));
    program.setUniform("circular", entry.projection == Projection::CircularFisheye && !entry.crop.empty() ? 1 : 0);
    program.setUniform("fisheye", isFisheye(entry.projection) ? 1 : 0);
    program.setUniform("exposureGain", float(std::exp2(double(entry.exposure))));
    program.setUniform("vign", entry.vb, entry.vc, entry.vd);
}

}  // namespace

void stitchRig(const MutableImageView& panorama, const std::string& projectPath, Project& project, bool hdr,
               bool useOrientation)
{
    std::vector<ImageEntry>& images = project.images;
    checkProject(images, panorama, hdr);
    const int width = panorama.width(), height = panorama.height();

    // Angles relative to the first source image.
    const auto first = std::find_if(images.begin(), images.end(), [](const ImageEntry& e) { return !isOrientation(e); });
    const float reference = first->yaw;
    for (ImageEntry& entry : images)
        entry.yaw -= reference;
    float heading = 0;
    std::pair<float, float> correction{0.0f, 0.0f};
    if (isOrientation(images.back()) && useOrientation) {
        heading = images.back().yaw;
        correction = {images.back().pitch, images.back().roll};
    }

    const std::string ldr = hdr ? "" : "#define LDR\n";
    const Shader& draw = sharedShader("rig", ldr);
    const Shader& pack = sharedShader("rgb2rgbe", ldr + "#define WEIGHTED\n");
    draw.use();
    if (hdr) {
        // A camera the colour table does not know keeps its colours.
        const ColourMatrix* known = cameraColourMatrix(first->width);
        const ColourMatrix identity{1, 0, 0, 0, 1, 0, 0, 0, 1};
        draw.setMatrix3("colorMat", (known ? *known : identity).data());
    }

    const std::filesystem::path directory = std::filesystem::path(projectPath).parent_path();
    std::vector<Source> sources;
    for (size_t i = 0; i < images.size(); ++i) {
        if (isOrientation(images[i])) continue;
        Texture texture = loadImage((directory / images[i].fileName).string());
        if (!texture.isRGBE()) {
            glBindTexture(Texture::target(), texture.piece(0));
            glTexParameteri(Texture::target(), GL_TEXTURE_MIN_FILTER, GL_LINEAR);
            glTexParameteri(Texture::target(), GL_TEXTURE_MAG_FILTER, GL_LINEAR);
        }
        GL_CHECK();
        finishStage("load (temp)");
        sources.push_back({i, std::move(texture)});
    }

    const int stripWidth = stripWidthFor(width);
    const float degPerPixel = 360.0f / float(width);
    const RenderTarget strip(stripWidth, height, GL_RGBA32F);
    RenderTarget byteBand;
    if (!hdr) byteBand = RenderTarget(stripWidth, std::min(height, kByteBandRows), GL_RGBA8);
    draw.setUniform("degPerPixel", degPerPixel);

    for (int x0 = 0; x0 < width; x0 += stripWidth) {
        strip.framebuffer.bind();
        glViewport(0, 0, stripWidth, height);
        glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        glEnable(GL_BLEND);
        glBlendFunc(GL_ONE, GL_ONE);
        draw.use();
        // The heading (relative yaw) lies at the centre of the panorama, the
        // border between its two middle columns, as the ring layouts turn
        // theirs (without their turn's rounding to whole columns): column X
        // looks along longitude (X + 0.5) * degPerPixel + 180 - heading.
        const float stripYaw = float(x0) * degPerPixel + 180.0f - heading;
        for (const Source& source : sources) {
            const ImageEntry& entry = images[source.entry];
            const Mat3 cameraMat = cameraMatrix(entry.yaw, entry.pitch, entry.roll, correction, {stripYaw, 0.0f});
            draw.setMatrix3("cameraMat", cameraMat.data());
            setLensUniforms(draw, entry, source.texture);
            source.texture.bind(GL_TEXTURE0);
            strip.framebuffer.bind();
            fullScreenPass(stripWidth, height);
        }
        glDisable(GL_BLEND);
        glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
        GL_CHECK();
        finishStage("render");
        readBackStripInto(panorama, x0, strip.texture, pack, hdr ? nullptr : &byteBand);
    }

    if (hdr) {
        normalizeExposure(panorama);
        finishStage("normalize");
    }
    finishStage("orient");
}
