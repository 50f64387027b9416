// Cube faces on the GPU and their two writers.
#include "passes/CubeFaces.h"

#include <ImfEnvmap.h>
#include <ImfRgba.h>
#include <ImfThreading.h>
#include <ImfTiledRgbaFile.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "image/ImageLoader.h"
#include "image/Jpeg.h"
#include "image/OpenExr.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/FullScreenPass.h"
#include "libglutil/Shader.h"
#include "libglutil/Stage.h"
#include "libglutil/Texture.h"
#include "passes/Thumbnail.h"

namespace {

// Draws the six faces in table order from `input` into an s x s target and
// hands each one to `useFace(face, framebuffer)` to read it back.
template <class UseFace>
void renderFaces(const Texture& input, int faceSize, UseFace&& useFace)
{
    // Half floats for HDR input keep the EXR path free of any conversion on
    // readback; 8-bit input gets an 8-bit target.
    const RenderTarget target(faceSize, faceSize, input.isHDR() ? GL_RGBA16F : GL_RGBA8);
    finishStage("cpu -> gpu (render)");

    const Shader& program = sharedShader("envmap", "");
    program.setUniform("inSize", float(input.width()), float(input.height()));
    program.setUniform("outSize", float(faceSize), float(faceSize));
    for (int f = 0; f < 6; ++f) {
        const Mat3 m = yawPitchMatrix(kCubeFaces[f].yaw, kCubeFaces[f].pitch);
        program.setMatrix3("yaw_pitch_mat", m.data());
        input.bind(GL_TEXTURE0);
        target.framebuffer.bind();
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        fullScreenPass(faceSize, faceSize);
        finishStage("render (cubemap)");
        useFace(f, target.framebuffer);
    }
}

// 2 x 2 box average in place; the face shrinks to half its width (truncated).
void shrinkFace(Imf::Rgba* pixels, int& faceWidth)
{
    const int from = faceWidth, to = faceWidth / 2;
    for (int y = 0; y < to; ++y) {
        for (int x = 0; x < to; ++x) {
            const Imf::Rgba& a = pixels[(2 * y) * from + 2 * x];
            const Imf::Rgba& b = pixels[(2 * y) * from + 2 * x + 1];
            const Imf::Rgba& c = pixels[(2 * y + 1) * from + 2 * x];
            const Imf::Rgba& d = pixels[(2 * y + 1) * from + 2 * x + 1];
            Imf::Rgba& out = pixels[y * to + x];
            out.r = float(a.r) * 0.25f + float(b.r) * 0.25f + float(c.r) * 0.25f + float(d.r) * 0.25f;
            out.g = float(a.g) * 0.25f + float(b.g) * 0.25f + float(c.g) * 0.25f + float(d.g) * 0.25f;
            out.b = float(a.b) * 0.25f + float(b.b) * 0.25f + float(c.b) * 0.25f + float(d.b) * 0.25f;
            out.a = float(a.a) * 0.25f + float(b.a) * 0.25f + float(c.a) * 0.25f + float(d.a) * 0.25f;
        }
    }
    faceWidth = to;
}

// A mipmap level whose faces are smaller than one tile: a tile there spans
// several faces, so the level is assembled from all six before its tiles go
// out. Tile rows are written as soon as every face they cover is in; rows that
// belong to no face (the level height is not always six face heights, and at
// the last levels faces shrink to nothing) get the mean colour of the faces.
class SmallLevel {
public:
    SmallLevel(Imf::TiledRgbaOutputFile& file, int level)
        : file_(file), level_(level), window_(file.dataWindowForLevel(level)),
          width_(window_.max.x - window_.min.x + 1), height_(window_.max.y - window_.min.y + 1),
          faceSize_(Imf::CubeMap::sizeOfFace(window_)), pixels_(size_t(width_) * height_)
    {
    }

    void addFace(int face, const Imf::Rgba* pixels, int faceWidth)
    {
        for (int64_t i = 0; i < int64_t(faceWidth) * faceWidth; ++i) {
            sum_[0] += pixels[i].r;
            sum_[1] += pixels[i].g;
            sum_[2] += pixels[i].b;
            sum_[3] += pixels[i].a;
        }
        count_ += int64_t(faceWidth) * faceWidth;
        const int n = std::min(faceSize_, faceWidth);
        for (int y = 0; y < n; ++y)
            std::copy(pixels + int64_t(y) * faceWidth, pixels + int64_t(y) * faceWidth + n,
                      pixels_.data() + (int64_t(face) * faceSize_ + y) * width_);
        if (face == 5)
            fillUncovered();
        writeCompleteTiles(face);
    }

private:
    void fillUncovered()
    {
        Imf::Rgba mean;
        mean.r = float(sum_[0] / double(count_));
        mean.g = float(sum_[1] / double(count_));
        mean.b = float(sum_[2] / double(count_));
        mean.a = float(sum_[3] / double(count_));
        for (int y = 0; y < height_; ++y)
            for (int x = 0; x < width_; ++x)
                if (y >= 6 * faceSize_ || x >= faceSize_)
                    pixels_[size_t(y) * width_ + x] = mean;
    }

    void writeCompleteTiles(int face)
    {
        const int tileHeight = file_.tileYSize();
        const int rowsDone = face == 5 ? height_ : (face + 1) * faceSize_;
        int last = nextTileRow_ - 1;
        while (last + 1 < file_.numYTiles(level_) && std::min((last + 2) * tileHeight, height_) <= rowsDone)
            ++last;
        if (last < nextTileRow_)
            return;
        file_.setFrameBuffer(pixels_.data() - window_.min.x - int64_t(window_.min.y) * width_, 1, width_);
        file_.writeTiles(0, file_.numXTiles(level_) - 1, nextTileRow_, last, level_);
        nextTileRow_ = last + 1;
    }

    Imf::TiledRgbaOutputFile& file_;
    int level_;
    Imath::Box2i window_;
    int width_, height_, faceSize_;
    std::vector<Imf::Rgba> pixels_;
    double sum_[4] = {0, 0, 0, 0};
    int64_t count_ = 0;
    int nextTileRow_ = 0;
};

// Every tile of the face's levels, from the face's s x s half-float pixels
// (shrunk in place from level to level).
void writeFaceLevels(Imf::TiledRgbaOutputFile& file, int face, Imf::Rgba* pixels, int faceSize,
                     std::map<int, SmallLevel>& smallLevels)
{
    int faceWidth = faceSize;
    const int levels = file.numLevels();
    const int tile = file.tileXSize();
    for (int level = 0; level < levels; ++level) {
        const Imath::Box2i window = file.dataWindowForLevel(level);
        const int levelFace = Imf::CubeMap::sizeOfFace(window);
        if (levelFace >= tile) {
            // The face is whole tiles: tile rows face * nx .. (face + 1) * nx - 1.
            const Imath::Box2i faceWindow = Imf::CubeMap::dataWindowForFace(Imf::CubeMapFace(face), window);
            file.setFrameBuffer(pixels - faceWindow.min.x - int64_t(faceWindow.min.y) * faceWidth, 1, faceWidth);
            const int nx = file.numXTiles(level), ny = file.numYTiles(level);
            if (face * nx < ny)
                file.writeTiles(0, nx - 1, face * nx, (face + 1) * nx - 1, level);
        } else {
            smallLevels.try_emplace(level, file, level).first->second.addFace(face, pixels, faceWidth);
        }
        if (level + 1 < levels && faceWidth > 1)
            shrinkFace(pixels, faceWidth);
    }
}

}  // namespace

void writeCubeFacesExr(const ImageView& rgbe, int faceSize, const std::string& path,
                       const std::string& compression, const std::string& previewPath,
                       const std::string& projectPath)
{
    Texture input = uploadRgbe(rgbe);

    const int tile = cubeTileSize(faceSize);
    const Imf::Header header =
        buildExrHeader(faceSize, 6 * faceSize, Imf::ENVMAP_CUBE, compression, previewPath, projectPath);
    writeExrFile(path, [&](Imf::OStream& stream) {
        Imf::TiledRgbaOutputFile file(stream, header, Imf::WRITE_RGB, tile, tile, Imf::MIPMAP_LEVELS,
                                      Imf::ROUND_DOWN, Imf::globalThreadCount());
        std::map<int, SmallLevel> smallLevels;
        renderFaces(input, faceSize, [&](int face, const Framebuffer& target) {
            std::vector<Imf::Rgba> pixels(size_t(faceSize) * faceSize);
            target.read(pixels.data(), GL_RGBA, GL_HALF_FLOAT, faceSize, faceSize);
            finishStage("gpu -> cpu (render)");
            writeFaceLevels(file, face, pixels.data(), faceSize, smallLevels);
            finishStage("save (cubeface EXR)");
        });
    });
}

void writeCubeFacesJpeg(const ImageView& rgb, int faceSize, const CubeJpegNames& names, const TileEncoding& encoding)
{
    writeCubeFacesJpeg(uploadRgb(rgb), faceSize, names, encoding);
}

void writeCubeFacesJpeg(const Texture& input, int faceSize, const CubeJpegNames& names, const TileEncoding& encoding)
{
    if (names.pyramid())
        std::filesystem::create_directories(names.folder() + kPannellumFolder);

    const int tile = cubeTileSize(faceSize);
    const int top = pyramidLevelCount(faceSize) - 1;
    const int preview = previewFaceSize(faceSize);
    Image strip(6 * preview, preview, 3);
    renderFaces(input, faceSize, [&](int face, const Framebuffer& target) {
        Image image(faceSize, faceSize, 3);
        target.read(image.data(), GL_RGB, GL_UNSIGNED_BYTE, faceSize, faceSize);
        finishStage("gpu -> cpu (render)");
        MutableImageView level = image.mutableView();
        if (names.pyramid()) {
            for (int l = top; l >= 0; --l) {
                if (l < top)
                    level = halveBox(level);
                for (int r = 0; r < level.height() / tile; ++r)
                    for (int c = 0; c < level.width() / tile; ++c)
                        writeTile(level.subView(c * tile, r * tile, tile, tile), names.tile(l, face, r, c), encoding);
            }
        } else {
            writeTile(image, names.face(face), encoding);
        }
        // The preview goes on from the smallest face just written.
        while (level.width() > preview)
            level = halveBox(level);
        const int slot = int(std::string(kPreviewStripOrder).find(kCubeFaces[face].letter));
        for (int y = 0; y < preview; ++y)
            std::copy_n(level.row(y), 3 * preview, strip.pixel(slot * preview, y));
        if (face == 5) {
            const ImageView whole = strip;
            const auto previewOf = [&](const char* letter) {
                const int at = int(std::string(kPreviewStripOrder).find(letter));
                return whole.subView(at * preview, 0, preview, preview);
            };
            writeJpeg(whole, names.previewStrip(), {}, encoding.quality);
            writeJpeg(previewOf("f"), names.previewFront(), {}, encoding.quality);
            if (names.pyramid())
                for (int f = 0; f < 6; ++f)
                    writeTile(previewOf(kCubeFaces[f].letter), names.pannellumTile(1, f, 0, 0), encoding);
        }
        finishStage("save (cubeface JPG)");
    });
}
