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
#include "passes/StitchReach.h"
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
// it; everything else is relative to the texture's size). With
// `photometric`, exposure and vignetting too (programs that draw colour).
LensModel loadedLens(const ImageEntry& entry, const Texture& texture)
{
    const double scale = double(texture.width()) / entry.width;
    LensModel model = lensModelOf(entry);
    model.w = texture.width();
    model.h = texture.height();
    model.d *= scale;
    model.e *= scale;
    return model;
}

void setLensUniforms(const Shader& program, const ImageEntry& entry, const Texture& texture, bool photometric)
{
    const double scale = double(texture.width()) / entry.width;
    const LensModel model = loadedLens(entry, texture);
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
    if (!photometric)
        return;
    program.setUniform("exposureGain", float(std::exp2(double(entry.exposure))));
    program.setUniform("vign", entry.vb, entry.vc, entry.vd);
}

// A float render target sampled with the bilinear filter, clamped at its edges.
RenderTarget filteredTarget(int width, int height, GLenum format)
{
    RenderTarget target(width, height, format);
    glBindTexture(Texture::target(), target.texture.piece(0));
    glTexParameteri(Texture::target(), GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(Texture::target(), GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(Texture::target(), GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(Texture::target(), GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    GL_CHECK();
    return target;
}

int roundUp(int value, int step) { return (value + step - 1) / step * step; }

class RigStitcher {
public:
    RigStitcher(const MutableImageView& panorama, const std::string& projectPath, Project& project, bool hdr,
                bool useOrientation, const StitchTuning& tuning)
        : panorama_(panorama), projectPath_(projectPath), images_(project.images), hdr_(hdr),
          useOrientation_(useOrientation), tuning_(tuning)
    {
    }
    void run();

private:
    void loadSources();
    // One draw of every source into the bound target, `width` x `height`
    // pixels from panorama column x0 on.
    void drawSources(const Shader& program, int x0, int width, int height, bool photometric);
    // False when the source reaches none of the target (nothing drawn).
    bool drawSource(const Shader& program, const Source& source, int x0, int width, int height, bool photometric);
    void weightedStrip(int x0);
    void multiBandStrip(int x0);

    MutableImageView panorama_;
    std::string projectPath_;
    std::vector<ImageEntry>& images_;
    bool hdr_, useOrientation_;
    StitchTuning tuning_;
    int width_ = 0, height_ = 0, stripWidth_ = 0;
    float degPerPixel_ = 0, heading_ = 0;
    std::pair<float, float> correction_{0.0f, 0.0f};
    std::vector<Source> sources_;
    const Shader* pack_ = nullptr;
    struct {
        const Shader *draw, *layer, *maxWeight, *seamMask, *reduce, *band, *coarsestBand, *collapse,
            *coarsestCollapse;
    } programs_{};
    RenderTarget strip_, byteBand_;

    // Multi-band: `levels_` halvings of a strip widened by margin_ columns
    // either side, padded to whole levels.
    int levels_ = 0, margin_ = 0, paddedWidth_ = 0, paddedHeight_ = 0;
    RenderTarget highest_;
    std::vector<RenderTarget> layer_, mask_, sums_, result_;
};

void RigStitcher::run()
{
    checkProject(images_, panorama_, hdr_);
    width_ = panorama_.width();
    height_ = panorama_.height();

    // Angles relative to the first source image.
    const auto first = std::find_if(images_.begin(), images_.end(), [](const ImageEntry& e) { return !isOrientation(e); });
    const float reference = first->yaw;
    for (ImageEntry& entry : images_)
        entry.yaw -= reference;
    if (isOrientation(images_.back()) && useOrientation_) {
        heading_ = images_.back().yaw;
        correction_ = {images_.back().pitch, images_.back().roll};
    }

    // Every program fetched once: fetching a shared program again resets
    // its uniforms.
    const std::string ldr = hdr_ ? "" : "#define LDR\n";
    pack_ = &sharedShader("rgb2rgbe", ldr + "#define WEIGHTED\n");
    programs_.draw = &sharedShader("rig", ldr);
    programs_.layer = &sharedShader("rig", ldr + "#define LAYER\n");
    programs_.maxWeight = &sharedShader("rig", "#define MAX_WEIGHT\n");
    programs_.seamMask = &sharedShader("rig", "#define SEAM_MASK\n");
    programs_.reduce = &sharedShader("blend", "#define REDUCE\n");
    programs_.band = &sharedShader("blend", "#define BAND\n");
    programs_.coarsestBand = &sharedShader("blend", "#define BAND\n#define COARSEST\n");
    programs_.collapse = &sharedShader("blend", "#define COLLAPSE\n");
    programs_.coarsestCollapse = &sharedShader("blend", "#define COLLAPSE\n#define COARSEST\n");
    for (const Shader* draw : {programs_.draw, programs_.layer}) {
        draw->use();
        if (hdr_) {
            // A camera the colour table does not know keeps its colours.
            const ColourMatrix* known = cameraColourMatrix(first->width);
            const ColourMatrix identity{1, 0, 0, 0, 1, 0, 0, 0, 1};
            draw->setMatrix3("colorMat", (known ? *known : identity).data());
        }
    }
    loadSources();

    stripWidth_ = stripWidthFor(width_);
    degPerPixel_ = 360.0f / float(width_);
    strip_ = RenderTarget(stripWidth_, height_, GL_RGBA32F);
    if (!hdr_) byteBand_ = RenderTarget(stripWidth_, std::min(height_, kByteBandRows), GL_RGBA8);
    if (tuning_.multiBand) {
        // Bands down to about a 128th of the width: the lowest blends over
        // some 2^levels columns either side of a seam, which the margin holds.
        levels_ = std::clamp(int(std::floor(std::log2(width_ / 128.0))), 3, 7);
        margin_ = 2 << levels_;
        const int step = 1 << levels_;
        paddedWidth_ = roundUp(stripWidth_ + 2 * margin_, step);
        paddedHeight_ = roundUp(height_, step);
        highest_ = filteredTarget(paddedWidth_, paddedHeight_, GL_R32F);
        for (int k = 0; k <= levels_; ++k) {
            const int w = paddedWidth_ >> k, h = paddedHeight_ >> k;
            layer_.push_back(filteredTarget(w, h, GL_RGBA32F));
            mask_.push_back(filteredTarget(w, h, GL_R32F));
            sums_.push_back(filteredTarget(w, h, GL_RGBA32F));
            result_.push_back(k == 0 ? RenderTarget() : filteredTarget(w, h, GL_RGBA32F));
        }
    }

    glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
    for (int x0 = 0; x0 < width_; x0 += stripWidth_) {
        if (tuning_.multiBand)
            multiBandStrip(x0);
        else
            weightedStrip(x0);
        readBackStripInto(panorama_, x0, strip_.texture, *pack_, hdr_ ? nullptr : &byteBand_);
    }

    if (hdr_) {
        normalizeExposure(panorama_);
        finishStage("normalize");
    }
}

void RigStitcher::loadSources()
{
    const std::filesystem::path directory = std::filesystem::path(projectPath_).parent_path();
    for (size_t i = 0; i < images_.size(); ++i) {
        if (isOrientation(images_[i])) continue;
        Texture texture = loadImage((directory / images_[i].fileName).string());
        if (!texture.isRGBE()) {
            glBindTexture(Texture::target(), texture.piece(0));
            glTexParameteri(Texture::target(), GL_TEXTURE_MIN_FILTER, GL_LINEAR);
            glTexParameteri(Texture::target(), GL_TEXTURE_MAG_FILTER, GL_LINEAR);
        }
        GL_CHECK();
        finishStage("load (temp)");
        sources_.push_back({i, std::move(texture)});
    }
}

void RigStitcher::drawSources(const Shader& program, int x0, int width, int height, bool photometric)
{
    for (const Source& source : sources_)
        drawSource(program, source, x0, width, height, photometric);
}

bool RigStitcher::drawSource(const Shader& program, const Source& source, int x0, int width, int height,
                             bool photometric)
{
    program.use();
    program.setUniform("degPerPixel", degPerPixel_);
    // The heading (relative yaw) lies at the centre of the panorama, the
    // border between its two middle columns, as the ring layouts turn theirs
    // (without their turn's rounding to whole columns): column X looks along
    // longitude (X + 0.5) * degPerPixel + 180 - heading.
    const float stripYaw = float(x0) * degPerPixel_ + 180.0f - heading_;
    const ImageEntry& entry = images_[source.entry];
    const Mat3 cameraMat = cameraMatrix(entry.yaw, entry.pitch, entry.roll, correction_, {stripYaw, 0.0f});
    program.setMatrix3("cameraMat", cameraMat.data());
    setLensUniforms(program, entry, source.texture, photometric);
    source.texture.bind(GL_TEXTURE0);
    if (!tuning_.boundDraws) {
        fullScreenPass(width, height);
        return true;
    }
    // Only over the part of the target the source can reach (the shader
    // discards every other fragment): traced for a strip laid out around its
    // centre, as the ring layouts' strips are, over the panorama's rows.
    const float fov = float(width) * degPerPixel_;
    const Mat3 centred = cameraMatrix(entry.yaw, entry.pitch, entry.roll, correction_, {stripYaw + 0.5f * fov, 0.0f});
    const PixelRect reach =
        reachInTarget(loadedLens(entry, source.texture), centred, fov, width, std::min(height, height_));
    if (reach.empty())
        return false;
    glEnable(GL_SCISSOR_TEST);
    glScissor(reach.x0, reach.y0, reach.x1 - reach.x0, reach.y1 - reach.y0);
    fullScreenPass(width, height);
    glDisable(GL_SCISSOR_TEST);
    return true;
}

// The weighted mean of every source: (colour * w, w) summed by additive
// blending, divided out by the packing.
void RigStitcher::weightedStrip(int x0)
{
    strip_.framebuffer.bind();
    glViewport(0, 0, stripWidth_, height_);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    glEnable(GL_BLEND);
    glBlendFunc(GL_ONE, GL_ONE);
    drawSources(*programs_.draw, x0, stripWidth_, height_, true);
    glDisable(GL_BLEND);
    glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
    GL_CHECK();
    finishStage("render");
}

// Binds `target`, clears it and makes it the viewport.
void bindCleared(const RenderTarget& target)
{
    target.framebuffer.bind();
    glViewport(0, 0, target.width(), target.height());
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
}

// Levels 1 .. n of a pyramid from its level 0.
void reducePyramid(const Shader& reduce, const std::vector<RenderTarget>& pyramid)
{
    reduce.use();
    for (size_t k = 1; k < pyramid.size(); ++k) {
        pyramid[k - 1].texture.bind(GL_TEXTURE0);
        pyramid[k].framebuffer.bind();
        fullScreenPass(pyramid[k].width(), pyramid[k].height());
    }
}

// Multi-band blend (Burt and Adelson): each source's Laplacian pyramid,
// weighted by the Gaussian pyramid of its seam mask (1 where its weight is the
// highest), summed per band over the sources and collapsed. Low frequencies
// cross a seam over some 2^levels pixels, fine detail over one or two.
void RigStitcher::multiBandStrip(int x0)
{
    const Shader &maxWeight = *programs_.maxWeight, &seamMask = *programs_.seamMask, &layer = *programs_.layer;
    const Shader &reduce = *programs_.reduce, &band = *programs_.band, &coarsestBand = *programs_.coarsestBand;
    const Shader &collapse = *programs_.collapse, &coarsestCollapse = *programs_.coarsestCollapse;
    const int left = x0 - margin_;

    // The highest weight of every pixel.
    bindCleared(highest_);
    glEnable(GL_BLEND);
    glBlendEquation(GL_MAX);
    drawSources(maxWeight, left, paddedWidth_, paddedHeight_, false);
    glBlendEquation(GL_FUNC_ADD);
    glDisable(GL_BLEND);
    for (const RenderTarget& sum : sums_)
        bindCleared(sum);

    for (const Source& source : sources_) {
        bindCleared(layer_[0]);
        if (!drawSource(layer, source, left, paddedWidth_, paddedHeight_, true))
            continue;  // no share of this strip
        bindCleared(mask_[0]);
        seamMask.use();
        highest_.texture.bind(GL_TEXTURE1);
        drawSource(seamMask, source, left, paddedWidth_, paddedHeight_, false);
        reducePyramid(reduce, layer_);
        reducePyramid(reduce, mask_);

        glEnable(GL_BLEND);
        glBlendFunc(GL_ONE, GL_ONE);
        for (int k = 0; k <= levels_; ++k) {
            const Shader& program = k == levels_ ? coarsestBand : band;
            program.use();
            layer_[size_t(k)].texture.bind(GL_TEXTURE0);
            if (k < levels_) layer_[size_t(k) + 1].texture.bind(GL_TEXTURE1);
            mask_[size_t(k)].texture.bind(GL_TEXTURE2);
            sums_[size_t(k)].framebuffer.bind();
            fullScreenPass(sums_[size_t(k)].width(), sums_[size_t(k)].height());
        }
        glDisable(GL_BLEND);
        glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
    }
    GL_CHECK();
    finishStage("render");

    // Collapse from the coarsest level; level 0 straight into the strip,
    // without the margins.
    for (int k = levels_; k >= 0; --k) {
        const Shader& program = k == levels_ ? coarsestCollapse : collapse;
        program.use();
        program.setUniform("offset", k == 0 ? float(margin_) : 0.0f, 0.0f);
        sums_[size_t(k)].texture.bind(GL_TEXTURE0);
        if (k < levels_) result_[size_t(k) + 1].texture.bind(GL_TEXTURE1);
        const RenderTarget& target = k == 0 ? strip_ : result_[size_t(k)];
        target.framebuffer.bind();
        fullScreenPass(k == 0 ? stripWidth_ : target.width(), k == 0 ? height_ : target.height());
    }
    GL_CHECK();
    finishStage("blend");
}

}  // namespace

void stitchRig(const MutableImageView& panorama, const std::string& projectPath, Project& project, bool hdr,
               bool useOrientation, const StitchTuning& tuning)
{
    RigStitcher(panorama, projectPath, project, hdr, useOrientation, tuning).run();
}
