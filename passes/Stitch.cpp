#include "passes/Stitch.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include "image/Colour.h"
#include "image/ExponentStats.h"
#include "image/FormatText.h"
#include "image/ImageLoader.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/FullScreenPass.h"
#include "libglutil/GLError.h"
#include "libglutil/Shader.h"
#include "libglutil/Stage.h"
#include "libglutil/Texture.h"
#include "passes/Sharpen.h"
#include "passes/StitchReach.h"
#include "passes/StitchStrips.h"
#include "project/CameraUniforms.h"
#include "project/LensModel.h"

namespace {

// Mask resolution for the whole 360 degrees; the weights it holds are smooth.
constexpr int kMaskWidth = 2400;
constexpr int kMaskHeight = 1200;
// Rows of the LDR strip packed and read back at a time.
constexpr int kByteBandRows = 512;

// While it lives, memory that is freed goes back to the heap for reuse
// instead of to the system. The stitch allocates and frees a decoded image
// and two textures of 70 to 100 MB for every source it loads; the C library
// would map each of them afresh, and touching new pages (the GL driver zeroes
// every texture it creates) costs as much as decoding the image. Restored and
// trimmed at the end, so the program's memory afterwards is as before.
class ReuseFreedMemory {
public:
    ReuseFreedMemory()
    {
#if defined(__GLIBC__)
        mallopt(M_MMAP_MAX, 0);
        mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
#endif
    }
    ~ReuseFreedMemory()
    {
#if defined(__GLIBC__)
        // glibc's defaults
        mallopt(M_MMAP_MAX, 65536);
        mallopt(M_TRIM_THRESHOLD, 128 * 1024);
        malloc_trim(0);
#endif
    }
    ReuseFreedMemory(const ReuseFreedMemory&) = delete;
    ReuseFreedMemory& operator=(const ReuseFreedMemory&) = delete;
};

class EquirectStitcher {
public:
    EquirectStitcher(const MutableImageView& panorama, const std::string& projectPath, Project& project, bool hdr,
                     bool useOrientation, const StitchTuning& tuning)
        : panorama_(panorama), outWidth_(panorama.width()), outHeight_(panorama.height()), projectPath_(projectPath),
          images_(project.images), hdr_(hdr), useOrientation_(useOrientation), tuning_(tuning),
          layout_(stitchLayout(project.images.size())), eighths_(project.images.size(), 8),
          cpuSharpening_(!hdr && tuning.cpuSharpening)
    {
    }

    void run();

private:
    // Loads and sharpens the next source of loadOrder_, which must be entry
    // `index`, and starts decoding the one after it.
    Texture loadEntry(size_t index);
    void decodeNext();
    Texture sharpened(Texture& loaded, size_t index, const std::vector<int>& strips);
    void sampleBilinear(const Texture& sharpened);
    PixelRect readablePart(size_t index, const std::vector<int>& strips, int width, int height, int eighths) const;
    float stripYaw(int strip) const;
    // The ring layouts draw every image through the layout's lens.
    Projection ringProjection() const
    {
        return layout_.fisheye ? Projection::FullFrameFisheye : Projection::Rectilinear;
    }
    int decodeEighths(const ImageEntry& entry) const;
    ImageEntry asLoaded(size_t index) const { return asLoaded(index, eighths_[index]); }
    ImageEntry asLoaded(size_t index, int eighths) const;
    // Done with a sharpened source: its storage serves the next one of the
    // same size (allocating a 24-megapixel texture costs as much as
    // sharpening it).
    void release(Texture& texture) { spare_ = std::move(texture); }
    std::string sourcePath(size_t index) const;
    void drawImage(int strip, size_t entryIndex, bool openSouthFlag, const Texture& texture);
    void boundedPass(const ImageEntry& entry, const Texture& source, const Mat3& cameraMat,
                     const RenderTarget& target);
    void readBackStrip(int strip);
    void turnToHeading();

    MutableImageView panorama_;
    int outWidth_, outHeight_;
    std::string projectPath_;
    std::vector<ImageEntry>& images_;
    bool hdr_, useOrientation_;
    StitchTuning tuning_;
    StitchLayout layout_;
    // Eighths of its size at which each entry's source was decoded.
    std::vector<int> eighths_;
    // Entries in the order the strip loop loads them. The next one is decoded
    // on a worker thread while the current one is sharpened and drawn; at
    // most one decoded source waits ahead of the GPU.
    std::vector<size_t> loadOrder_;
    std::vector<std::vector<int>> loadStrips_;  // the strips each load is drawn into
    size_t loaded_ = 0;
    // In an LDR job 8-bit sources in one piece are sharpened on the CPU, by
    // the decoding thread; it marks each load it sharpened so (the main
    // thread reads the mark once the load is taken).
    bool cpuSharpening_;
    std::vector<char> sharpenedOnCpu_;
    GLint maxTextureSize_ = 0;

    float heading_ = 0;
    std::pair<float, float> correction_{0.0f, 0.0f};
    int stripWidth_ = 0;

    RenderTarget stripTarget_, maskTarget_, byteBand_;
    Texture spare_;
    Texture unsharpened_;  // the last source as loaded, filled again by the next
    const Shader* draw_ = nullptr;  // from the shared program cache
    const Shader* mask_ = nullptr;
    const Shader* sharpen_ = nullptr;
    const Shader* sharpenDirect_ = nullptr;  // for sources in one piece
    const Shader* pack_ = nullptr;
    // Declared last so that it goes first: its decoder thread reads the
    // members above.
    PendingImage next_;
};

void checkSizes(const StitchLayout& layout, const std::vector<ImageEntry>& images, const MutableImageView& panorama,
                bool hdr)
{
    const int outWidth = panorama.width(), outHeight = panorama.height();
    // Entry 0 and every ring image must be there; the orientation entry may follow.
    const size_t needed = layout.fisheye ? 1 + layout.slotCount : 1 + 2 * layout.slotCount;
    if (images.size() < needed)
        throw std::runtime_error(formatText("project has %zu entries, but a capture of %d slots needs %zu source images",
                                            images.size(), layout.slotCount, needed));
    if (outWidth <= 0 || outHeight <= 0 || outWidth % layout.slotCount != 0)
        throw std::invalid_argument(formatText("equirect size %dx%d does not divide into %d strips", outWidth,
                                               outHeight, layout.slotCount));
    // Strips are read back with a row length counted in pixels.
    if (panorama.channels() != panoramaChannels(hdr) || panorama.stride() % panorama.channels() != 0)
        throw std::invalid_argument("the panorama's pixels do not match the render mode");
}

void EquirectStitcher::run()
{
    checkSizes(layout_, images_, panorama_, hdr_);
    const int slots = layout_.slotCount;
    stripWidth_ = outWidth_ / slots;

    // All angles from here on are relative to the first image of ring one.
    const float reference = images_[1].yaw;
    for (ImageEntry& entry : images_)
        entry.yaw -= reference;

    const ImageEntry& last = images_.back();
    if (isOrientation(last) && useOrientation_) {
        heading_ = last.yaw;
        correction_ = {last.pitch, last.roll};
    }

    // Entry 0 serves every strip; the left neighbour of strip 1 and the
    // first ring-two image only that strip; every later one the strip that
    // loads it and the next.
    std::vector<int> allStrips;
    for (int strip = 1; strip <= slots; ++strip)
        allStrips.push_back(strip);
    loadOrder_ = {0, size_t(slots)};
    loadStrips_ = {allStrips, {1}};
    if (!layout_.fisheye) {
        loadOrder_.push_back(size_t(slots) + 1);
        loadStrips_.push_back({1});
    }
    for (int strip = 1; strip <= slots; ++strip) {
        const std::vector<int> strips = strip < slots ? std::vector<int>{strip, strip + 1} : std::vector<int>{strip};
        loadOrder_.push_back(size_t(strip));
        loadStrips_.push_back(strips);
        if (!layout_.fisheye) {
            loadOrder_.push_back(size_t(slots + 1 + strip % slots));
            loadStrips_.push_back(strips);
        }
    }
    sharpenedOnCpu_.assign(loadOrder_.size(), 0);
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &maxTextureSize_);
    decodeNext();

    stripTarget_ = RenderTarget(stripWidth_, outHeight_, GL_RGB16F);
    maskTarget_ = RenderTarget(kMaskWidth / slots, kMaskHeight, GL_RGB8);
    const char* fisheyeDefine = layout_.fisheye ? "#define FISHEYE\n" : "";
    draw_ = &sharedShader("fish", std::string("#define USE_MASK\n") + (hdr_ ? "" : "#define LDR\n") + fisheyeDefine);
    mask_ = &sharedShader("fish", std::string("#define RENDER_MASK\n") + fisheyeDefine);
    sharpen_ = &sharedShader("sharpen", hdr_ ? "" : "#define LDR\n");
    // For sources in one piece of the job's kind (8-bit in an LDR job, RGBE
    // in an HDR one), a sharpen program that reads their texels directly:
    // the same values at a lower cost.
    sharpenDirect_ = &sharedShader("sharpen", std::string(hdr_ ? "" : "#define LDR\n") + "#define DIRECT_FETCH\n");
    // In an LDR job the packing program quantises the strip to bytes instead.
    pack_ = &sharedShader("rgb2rgbe", hdr_ ? "" : "#define LDR\n");

    draw_->use();
    draw_->setUniform("outFovX", layout_.slotAngle);
    if (hdr_) {
        // An unknown camera gets an all-zero matrix, silently.
        const ColourMatrix* known = cameraColourMatrix(images_[0].width);
        const ColourMatrix matrix = known ? *known : ColourMatrix{};
        draw_->setMatrix3("colorMat", matrix.data());
    }
    mask_->use();
    mask_->setUniform("outFovX", layout_.slotAngle);
    if (!hdr_)
        byteBand_ = RenderTarget(stripWidth_, std::min(outHeight_, kByteBandRows), GL_RGBA8);

    glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
    GL_CHECK();

    Texture pole = loadEntry(0);
    Texture leftNeighbour = loadEntry(slots);
    Texture ringTwo;
    if (!layout_.fisheye)
        ringTwo = loadEntry(slots + 1);

    for (int strip = 1; strip <= slots; ++strip) {
        glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
        maskTarget_.framebuffer.bind();
        glViewport(0, 0, maskTarget_.width(), maskTarget_.height());
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        GL_CHECK();

        drawImage(strip, 0, false, pole);
        drawImage(strip, strip == 1 ? slots : strip - 1, layout_.fisheye, leftNeighbour);
        release(leftNeighbour);
        leftNeighbour = loadEntry(strip);
        drawImage(strip, strip, layout_.fisheye, leftNeighbour);

        if (!layout_.fisheye) {
            drawImage(strip, strip + slots, true, ringTwo);
            ringTwo.destroy();
            const size_t next = slots + 1 + (strip % slots);
            ringTwo = loadEntry(next);
            drawImage(strip, next, true, ringTwo);
        }
        readBackStrip(strip);
    }

    if (hdr_) {
        normalizeExposure(panorama_);
        finishStage("normalize");
    }
    turnToHeading();
    finishStage("orient");
}

std::string EquirectStitcher::sourcePath(size_t index) const
{
    const std::filesystem::path directory = std::filesystem::path(projectPath_).parent_path();
    return (directory / images_[index].fileName).string();
}

// A source may be decoded at half (a quarter, an eighth) of its size when it
// holds kReduceAbove times two (four, eight) times the panorama's pixels per
// degree at its centre: the panorama cannot show the detail lost, and the
// smaller image is averaged from the full one instead of being point-sampled
// from it. Just above twice, the bilinear resampling of the halved image
// loses more than the averaging gains (0.36 dB of PSNR at 2.09 times on the
// synthetic captures; the break-even lies near 2.3 times, and at 2.4 times
// and more the halved image is closer to the truth).
constexpr double kReduceAbove = 1.25;

int EquirectStitcher::decodeEighths(const ImageEntry& entry) const
{
    if (!tuning_.reduceSources || !(entry.fov > 0) || entry.width <= 0)
        return 8;
    if (tuning_.decodeEighths > 0)
        return tuning_.decodeEighths;
    const double fovRad = double(entry.fov) * kDegToRad;
    const double focal = focalLength(ringProjection(), double(entry.width), fovRad);
    const double k = 1.0 - double(entry.a) - double(entry.b) - double(entry.c);
    const double sourcePerDegree = focal * std::min(k, 1.0) * double(kDegToRad);
    const double outPerDegree = outWidth_ / 360.0;
    int eighths = 8;
    while (eighths > 1 && sourcePerDegree * eighths >= kReduceAbove * 16 * outPerDegree)
        eighths /= 2;
    return eighths;
}

// The entry as its loaded texture sees it: the optical centre's shift in
// pixels of the decoded image. Everything else of the lens scales with the
// texture's size, which the shader reads.
ImageEntry EquirectStitcher::asLoaded(size_t index, int eighths) const
{
    ImageEntry entry = images_[index];
    const float scale = float(eighths) / 8.0f;
    entry.d *= scale;
    entry.e *= scale;
    return entry;
}

void EquirectStitcher::decodeNext()
{
    if (loaded_ >= loadOrder_.size())
        return;
    const size_t index = loadOrder_[loaded_];
    // Only the rows the sharpening reads are decoded and uploaded: those its
    // draws can read and one more either side. Asked on the decoding thread,
    // which reads only what the strip loop leaves alone; worked out once for
    // the row choice and the sharpening that follows it there.
    const auto readable = [this, index, strips = loadStrips_[loaded_],
                           known = std::make_shared<std::optional<PixelRect>>()](int width, int height, int eighths) {
        if (!*known)
            *known = readablePart(index, strips, width, height, eighths);
        return **known;
    };
    const auto rows = [readable](int32_t width, int32_t height, int eighths) {
        const PixelRect part = readable(width, height, eighths);
        return part.empty() ? std::pair<int32_t, int32_t>{0, 1}
                            : std::pair<int32_t, int32_t>{part.y0 - 1, part.y1 + 1};
    };
    PendingImage::Process sharpen;
    if (cpuSharpening_) {
        // The texels the GPU pass would sharpen, from the rows decoded for
        // them; a source that fits no texture in one piece, or that no draw
        // reads, is left to the GPU.
        sharpen = [this, readable, load = loaded_](PendingImage::Decoded& decoded) {
            const PixelRect part = readable(decoded.width, decoded.height, decoded.eighths);
            if (part.empty() || !Texture::isWhole(decoded.width, decoded.height, maxTextureSize_))
                return;
            sharpenLdr(decoded.pixels.mutableView(), decoded.firstRow, decoded.height, part);
            decoded.ready = true;
            decoded.x0 = part.x0, decoded.y0 = part.y0, decoded.x1 = part.x1, decoded.y1 = part.y1;
            sharpenedOnCpu_[load] = 1;
        };
    }
    next_ = PendingImage(sourcePath(index), decodeEighths(images_[index]), true, rows, std::move(sharpen));
}

Texture EquirectStitcher::loadEntry(size_t index)
{
    if (loaded_ >= loadOrder_.size() || loadOrder_[loaded_] != index)
        throw std::logic_error("stitch: sources loaded out of order");
    PendingImage current = std::move(next_);
    const std::vector<int>& strips = loadStrips_[loaded_];
    const size_t load = loaded_++;
    if (cpuSharpening_) {
        // "load (temp)" times the wait for the decoder, "sharpen" the wait
        // for the decoding thread's sharpening and the upload. The first
        // load waits for both with nothing to overlap: the next source is
        // decoded meanwhile.
        current.waitDecoded();
        finishStage("load (temp)");
        if (load == 0)
            decodeNext();
        Texture texture = current.take(&eighths_[index], std::move(spare_));
        if (!sharpenedOnCpu_[load]) {
            Texture result = sharpened(texture, index, strips);
            if (load != 0)
                decodeNext();
            return result;
        }
        sampleBilinear(texture);
        finishStage("sharpen");
        if (load != 0)
            decodeNext();
        return texture;
    }
    // When the GPU sharpens an LDR job's sources, the unsharpened texture of
    // the last load is filled again (sources are all of a size), so that
    // loading allocates nothing on the GPU side. In an HDR job it is let go
    // after sharpening: the RGBE strip made for every readback takes its
    // place.
    Texture loaded = current.take(&eighths_[index], std::move(unsharpened_));
    finishStage("load (temp)");
    // Memory: the next source is decoded while this one is sharpened only
    // while nothing else is held (the first load); later, once this one is
    // sharpened, so that the peak stays that of loading one source at a
    // time.
    const bool first = loaded_ == 1;
    if (first)
        decodeNext();
    Texture result = sharpened(loaded, index, strips);
    if (hdr_)
        loaded.destroy();
    else
        unsharpened_ = std::move(loaded);
    if (!first)
        decodeNext();
    return result;
}

// Draws the sharpen program over `loaded` into an RGBA8 texture of its size.
// Only the part the draws of `strips` can read is sharpened; the rest of the
// texture is never read and keeps whatever it held.
Texture EquirectStitcher::sharpened(Texture& loaded, size_t index, const std::vector<int>& strips)
{
    Texture sharpened;
    if (spare_.width() == loaded.width() && spare_.height() == loaded.height())
        sharpened = std::move(spare_);
    else
        sharpened = Texture::renderTarget(loaded.width(), loaded.height(), GL_RGBA8);
    spare_.destroy();
    if (!hdr_)
        sampleBilinear(sharpened);
    // A source in one piece of the job's kind (the usual case) is read directly.
    const Shader& program = loaded.isRGBE() == hdr_ && loaded.count() == 1 && loaded.layers() == 1
                                ? *sharpenDirect_
                                : *sharpen_;
    const PixelRect part = readablePart(index, strips, loaded.width(), loaded.height(), eighths_[index]);
    program.use();
    loaded.bind(GL_TEXTURE0);
    const Framebuffer target(sharpened);
    if (!part.empty()) {
        glEnable(GL_SCISSOR_TEST);
        glScissor(part.x0, part.y0, part.x1 - part.x0, part.y1 - part.y0);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        fullScreenPass(sharpened.width(), sharpened.height());
        glDisable(GL_SCISSOR_TEST);
    }
    finishStage("sharpen");
    return sharpened;
}

// 8-bit sources are resampled by the hardware bilinear filter; RGBE data
// must be decoded first and keeps nearest sampling.
void EquirectStitcher::sampleBilinear(const Texture& sharpened)
{
    glBindTexture(Texture::target(), sharpened.piece(0));
    glTexParameteri(Texture::target(), GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(Texture::target(), GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    GL_CHECK();
}

// The texels of entry `index`'s loaded texture (width x height) that its
// draws into `strips` can read (see reachInSource); all of them with
// unbounded draws.
PixelRect EquirectStitcher::readablePart(size_t index, const std::vector<int>& strips, int width, int height,
                                         int eighths) const
{
    const PixelRect whole{0, 0, width, height};
    if (!tuning_.boundDraws)
        return whole;
    const ImageEntry entry = asLoaded(index, eighths);
    LensModel lens = lensModelOf(entry);
    lens.projection = ringProjection();
    lens.w = width;
    lens.h = height;
    PixelRect part;
    for (const int strip : strips) {
        const Mat3 cameraMat =
            cameraMatrix(entry.yaw, entry.pitch, entry.roll, correction_, {stripYaw(strip), 0.0f});
        const PixelRect r = reachInSource(lens, cameraMat, layout_.slotAngle);
        if (r.empty())
            continue;
        if (part.empty())
            part = r;
        part = {std::min(part.x0, r.x0), std::min(part.y0, r.y0), std::max(part.x1, r.x1), std::max(part.y1, r.y1)};
    }
    return part;
}

float EquirectStitcher::stripYaw(int strip) const
{
    const float slotAngle = layout_.slotAngle;
    float yaw = float(strip - 1) * slotAngle - 0.5f * slotAngle;
    if (!layout_.fisheye)
        yaw += 0.25f * slotAngle;
    return yaw;
}

void EquirectStitcher::drawImage(int strip, size_t entryIndex, bool openSouthFlag,
                                 const Texture& texture)
{
    // Decided by entry 1's roll for every image on purpose: the whole ring
    // shares one camera orientation.
    const int openSouth = !openSouthFlag ? 0 : (std::fabs(images_[1].roll) >= 45.0f ? 2 : 1);
    const ImageEntry entry = asLoaded(entryIndex);
    const std::pair<float, float> stripOffset{stripYaw(strip), 0.0f};
    const Mat3 cameraMat = cameraMatrix(entry.yaw, entry.pitch, entry.roll, correction_, stripOffset);

    glEnable(GL_BLEND);
    // The image into the strip, then its weight into the mask. Both programs
    // get the mask on unit 1; the mask program never samples it, as it
    // renders into it.
    const std::pair<const Shader*, const RenderTarget*> passes[] = {{draw_, &stripTarget_}, {mask_, &maskTarget_}};
    for (const auto& [program, target] : passes) {
        program->use();
        program->setUniform("openSouth", openSouth);
        setCameraUniforms(*program, entry, texture, target->texture, correction_, stripOffset);
        texture.bind(GL_TEXTURE0);
        maskTarget_.texture.bind(GL_TEXTURE1);
        target->framebuffer.bind();
        if (entryIndex == 0)
            glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        boundedPass(entry, texture, cameraMat, *target);
    }
    glDisable(GL_BLEND);
    GL_CHECK();
    finishStage("render");
}

// The full-screen pass of the program in use over the target, limited by the
// scissor to the part the source can reach: the shader discards every other
// fragment, so the target ends up exactly as after a pass over all of it.
void EquirectStitcher::boundedPass(const ImageEntry& entry, const Texture& source, const Mat3& cameraMat,
                                   const RenderTarget& target)
{
    if (!tuning_.boundDraws) {
        fullScreenPass(target.width(), target.height());
        return;
    }
    LensModel lens = lensModelOf(entry);
    lens.projection = ringProjection();
    lens.w = source.width();
    lens.h = source.height();
    const PixelRect reach = reachInTarget(lens, cameraMat, layout_.slotAngle, target.width(), target.height());
    if (reach.empty())
        return;
    glEnable(GL_SCISSOR_TEST);
    glScissor(reach.x0, reach.y0, reach.x1 - reach.x0, reach.y1 - reach.y0);
    fullScreenPass(target.width(), target.height());
    glDisable(GL_SCISSOR_TEST);
}

void EquirectStitcher::readBackStrip(int strip)
{
    readBackStripInto(panorama_, (strip - 1) * stripWidth_, stripTarget_.texture, *pack_, hdr_ ? nullptr : &byteBand_);
}

void EquirectStitcher::turnToHeading()
{
    turnRowsLeft(panorama_, headingShiftBytes(layout_, heading_, outWidth_, panorama_.channels()));
}

}  // namespace

void readBackStripInto(const MutableImageView& panorama, int x0, const Texture& strip, const Shader& pack,
                       const RenderTarget* byteBand)
{
    const int stripWidth = strip.width(), outHeight = strip.height();
    uint8_t* destination = panorama.pixel(x0, 0);
    const int rowLength = panorama.stride() / panorama.channels();

    if (!byteBand) {
        const RenderTarget rgbeStrip(stripWidth, outHeight, GL_RGBA8);
        pack.use();
        strip.bind(GL_TEXTURE0);
        rgbeStrip.framebuffer.bind();
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        fullScreenPass(stripWidth, outHeight);
        finishStage("render (rgb2rgbe)");
        rgbeStrip.framebuffer.read(destination, GL_RGBA, GL_UNSIGNED_BYTE, stripWidth, outHeight, rowLength);
        finishStage("gpu -> cpu (render)");
        return;
    }

    // LDR: the packing program quantises the strip to bytes itself, so that
    // they do not depend on the driver's own float-to-byte conversion. It
    // works band by band through a small target that stays in the cache
    // between being written and being read.
    pack.use();
    strip.bind(GL_TEXTURE0);
    for (int row = 0; row < outHeight; row += byteBand->height()) {
        const int rows = std::min(byteBand->height(), outHeight - row);
        pack.setUniform("firstRow", row);
        byteBand->framebuffer.bind();
        fullScreenPass(stripWidth, rows);
        byteBand->framebuffer.read(destination + size_t(row) * size_t(panorama.stride()), GL_RGB, GL_UNSIGNED_BYTE,
                                   stripWidth, rows, rowLength);
    }
    finishStage("gpu -> cpu (render)");
}

void turnRowsLeft(const MutableImageView& panorama, size_t shift)
{
    const size_t rowBytes = size_t(panorama.width()) * size_t(panorama.channels());
    if (shift == 0)
        return;
    const int height = panorama.height();
#pragma omp parallel for schedule(static)
    for (int y = 0; y < height; ++y) {
        uint8_t* row = panorama.row(y);
        std::rotate(row, row + shift, row + rowBytes);
    }
}

StitchLayout stitchLayout(size_t entryCount)
{
    if (entryCount <= 7)
        return {5, 72.0f, true};
    return {6, 60.0f, false};
}

bool normalizeExposure(const MutableImageView& rgbe)
{
    const ExponentStats stats = exponentStats(rgbe);
    // A black panorama has no mean exponent; there is nothing to scale.
    if (stats.count == 0)
        return false;
    const int mean = int(stats.mean());
    std::cerr << "mean e: " << mean << "\n";
    const uint8_t delta = uint8_t(-2 - mean);
    const int32_t width = rgbe.width(), height = rgbe.height(), step = rgbe.channels();
#pragma omp parallel for schedule(static)
    for (int32_t y = 0; y < height; ++y) {
        uint8_t* p = rgbe.row(y) + 3;
        for (int32_t x = 0; x < width; ++x, p += step)
            if (*p != 0)
                *p = uint8_t(*p + delta);
    }
    return true;
}

size_t headingShiftBytes(const StitchLayout& layout, float heading, int outWidth, int bytesPerPixel)
{
    const double q = layout.fisheye ? 0.0 : 0.25 * layout.slotAngle;
    double columns = (layout.slotAngle + 180.0 - q - heading) / 360.0 * outWidth;
    if (!std::isfinite(columns))
        columns = 0;
    else if (std::fabs(columns) > 1e15)  // absurd headings: keep the conversion defined
        columns = std::fmod(columns, double(outWidth));
    const int64_t rowBytes = int64_t(outWidth) * bytesPerPixel;
    int64_t shift = int64_t(columns) * bytesPerPixel;
    if (shift < 0)
        shift += rowBytes;
    // Headings beyond a full turn wrap around instead of running off the row.
    shift %= rowBytes;
    if (shift < 0)
        shift += rowBytes;
    return size_t(shift);
}

void stitchEquirect(const MutableImageView& panorama, const std::string& projectPath, Project& project, bool hdr,
                    bool useOrientation, const StitchTuning& tuning)
{
    ReuseFreedMemory reuse;
    if (project.layout == RigLayout::General) {
        stitchRig(panorama, projectPath, project, hdr, useOrientation, tuning);
        return;
    }
    EquirectStitcher(panorama, projectPath, project, hdr, useOrientation, tuning).run();
}
