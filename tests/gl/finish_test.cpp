// The finishing passes against the real driver: tone mapping against its CPU
// twin, cube faces (JPEG, tiled EXR, tile pyramid) and the logo as a viewer
// sees it in the d face.
#include <gtest/gtest.h>

#include <ImfEnvmap.h>
#include <ImfStandardAttributes.h>
#include <ImfTiledRgbaFile.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <vector>

#include "image/ImageLoader.h"
#include "image/Jpeg.h"
#include "image/OpenExr.h"
#include "image/Ppm.h"
#include "image/Picture.h"
#include "image/Rgbe.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/FullScreenPass.h"
#include "libglutil/Shader.h"
#include "passes/CubeFaces.h"
#include "passes/Logo.h"
#include "passes/Tonemap.h"
#include "support/Support.h"

namespace fs = std::filesystem;

namespace {

using Vec = std::array<double, 3>;

// Colour that encodes a direction of the panorama frame (x towards lon +90,
// y up, z towards lon 0): channel k = 128 + 100 * d[k].
Vec directionColour(const Vec& d) { return {128 + 100 * d[0], 128 + 100 * d[1], 128 + 100 * d[2]}; }

// Equirect panorama of directionColour, 8-bit RGB or RGBE holding byte / 255.
Image directionPanorama(int width, int height, bool rgbe)
{
    Image image(width, height, rgbe ? 4 : 3);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const double lat = ((height - 1) / 2.0 - y) * M_PI / height, lon = (x - (width - 1) / 2.0) * 2 * M_PI / width;
            const Vec c = directionColour({std::cos(lat) * std::sin(lon), std::sin(lat), std::cos(lat) * std::cos(lon)});
            uint8_t b[3];
            for (int k = 0; k < 3; ++k)
                b[k] = uint8_t(std::lround(c[k]));
            if (rgbe)
                floatToRgbe(b[0] / 255.0f, b[1] / 255.0f, b[2] / 255.0f, image.pixel(x, y));
            else
                std::copy(b, b + 3, image.pixel(x, y));
        }
    return image;
}

// Mean and largest difference of a JPEG face from the direction colours it should show.
std::pair<double, double> faceError(const Image& face, int f)
{
    const int s = face.width();
    double sum = 0, worst = 0;
    for (int j = 0; j < s; ++j)
        for (int i = 0; i < s; ++i) {
            const Vec want = directionColour(cubeFaceDirection(f, i, j, s));
            for (int k = 0; k < 3; ++k) {
                sum += std::fabs(face.pixel(i, j)[k] - want[k]);
                worst = std::max(worst, std::fabs(face.pixel(i, j)[k] - want[k]));
            }
        }
    return {sum / (3.0 * s * s), worst};
}

std::string panorama(const std::string& name) { return support::sourcePath("data/panoramas/" + name); }

}  // namespace

TEST(FinishTonemapGL, ShaderMatchesCpuCurveInEveryChunkLayout)
{
    const struct { int w, h, chunks, cw, ch; } cases[] = {
        {640, 320, 1, 640, 320},      // one chunk
        {2400, 1200, 12, 400, 600},   // 12 chunks folded to half height, sampled key
        {2010, 1005, 10, 201, 1005},  // 10 chunks, odd height: not folded
    };
    for (const auto& c : cases) {
        // A luminance ramp over 24 stops along x, a colour cycle along y, some black.
        Image image(c.w, c.h, 4);
        for (int y = 0; y < c.h; ++y)
            for (int x = 0; x < c.w; ++x) {
                const float level = std::exp2(-12.0f + 24.0f * float(x) / float(c.w)), hue = 6.2831853f * float(y) / float(c.h);
                const bool black = (x * 7 + y * 13) % 997 == 0;
                floatToRgbe(black ? 0 : level * (1.2f + std::sin(hue)), level * (1.2f + std::sin(hue + 2.1f)),
                            level * (1.2f + std::sin(hue + 4.2f)), image.pixel(x, y));
            }
        const std::vector<uint8_t> source(image.data(), image.data() + image.byteSize());
        const SceneKey key = measureSceneKey(image);
        testing::internal::CaptureStderr();
        const ImageView out = tonemap(image.mutableView());
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(out.data(), image.data());  // in place
        EXPECT_EQ(out.stride(), 3 * c.w);
        int worst = 0;
        int64_t differing = 0;
        for (int64_t i = 0; i < int64_t(c.w) * c.h; ++i) {
            float rgb[3];
            rgbeToFloat(&source[size_t(i) * 4], rgb);
            uint8_t want[3];
            toneMapPixel(rgb, key.avgLum, whiteLuminance(key), want);
            for (int k = 0; k < 3; ++k) {
                worst = std::max(worst, std::abs(int(out.data()[i * 3 + k]) - int(want[k])));
                differing += out.data()[i * 3 + k] != want[k];
            }
        }
        // GPU pow and division may move a value across a rounding boundary:
        // one unit, rarely; a misplaced chunk or row differs almost everywhere.
        EXPECT_LE(worst, 1) << c.w;
        EXPECT_LT(double(differing) / (3.0 * c.w * c.h), 0.01) << c.w;
        EXPECT_EQ(support::countMatches(log, "avgLum = [-0-9.e+]+, maxLum = [-0-9.e+]+\n"), 1) << log;
        EXPECT_EQ(support::countMatches(log, std::to_string(c.cw) + "x" + std::to_string(c.ch) + ", M: -?[0-9]+, m: -?[0-9]+ -> "
                                    "-?[0-9]+ f-stops, mean: "), c.chunks) << log;
        EXPECT_EQ(support::countMatches(log, "\\[T\\] tonemap \\(total\\): [0-9.]+s\n"), 1) << log;
        EXPECT_EQ(support::countMatches(log, "render \\(tonemap\\): "), c.chunks) << log;
    }
    // The real panoramas: at most 2 % burnt out or crushed in all three
    // channels; key 0.18 puts the mean luma mid-range (both look right at 90
    // to 130).
    for (const char* name : {"courtyard.exr", "city.exr"}) {
        Image image = readExr(panorama(name));
        testing::internal::CaptureStderr();
        const ImageView rgb = tonemap(image.mutableView());
        testing::internal::GetCapturedStderr();
        double white = 0, black = 0, luma = 0;
        for (int64_t i = 0; i < int64_t(rgb.width()) * rgb.height(); ++i) {
            const uint8_t* p = rgb.data() + 3 * i;
            white += p[0] == 255 && p[1] == 255 && p[2] == 255;
            black += p[0] == 0 && p[1] == 0 && p[2] == 0;
            luma += 0.3 * p[0] + 0.59 * p[1] + 0.11 * p[2];
        }
        const double n = double(rgb.width()) * rgb.height();
        EXPECT_LE(std::max(white, black) / n, 0.02) << name;
        EXPECT_NEAR(luma / n, 115, 45) << name;
    }
}

// Every face pixel's colour encodes the direction it shows: compared with the
// web-viewer convention (checked against the face table on the CPU) it
// catches any turned, mirrored or swapped face. The tiled EXR cube map holds
// the same faces and a mipmap of 2 x 2 box averages.
TEST(FinishCubeFacesGL, JpegAndExrFacesShowThePanorama)
{
    support::TempDir dir;
    const int s = 1024;  // tile 512: 2 x 2 tiles per face, then levels below a tile
    testing::internal::CaptureStderr();
    writeCubeFacesExr(directionPanorama(1024, 512, true), s, dir / "pano.exr", "zip", "", "");
    EXPECT_NE(testing::internal::GetCapturedStderr().find("1024x512, M: "), std::string::npos);
    writeCubeFacesJpeg(directionPanorama(1024, 512, false), s, CubeJpegNames(dir / "pano"), TileEncoding());

    Imf::TiledRgbaInputFile in((dir / "pano.exr").c_str());
    EXPECT_EQ(Imf::envmap(in.header()), Imf::ENVMAP_CUBE);
    EXPECT_EQ(in.tileXSize(), 512);
    EXPECT_EQ(in.levelMode(), Imf::MIPMAP_LEVELS);
    EXPECT_EQ(in.levelRoundingMode(), Imf::ROUND_DOWN);
    ASSERT_EQ(in.numLevels(), 13);  // floor(log2(6 * 1024)) + 1
    const Imath::Box2i window = in.dataWindow();
    ASSERT_EQ(window.max.y - window.min.y + 1, 6 * s);
    std::vector<Imf::Rgba> previous(size_t(s) * 6 * s);
    in.setFrameBuffer(previous.data(), 1, s);
    in.readTiles(0, in.numXTiles(0) - 1, 0, in.numYTiles(0) - 1, 0);
    for (int f = 0; f < 6; ++f) {
        const Image jpeg = readJpeg(dir / ("pano_" + std::string(kCubeFaces[f].letter) + ".jpg"));
        ASSERT_EQ(jpeg.width(), s);
        // Byte rounding of the panorama plus quality-90 JPEG of a smooth field:
        // about 1 on average, a few at most; a wrong face is tens off.
        const auto err = faceError(jpeg, f);
        EXPECT_LT(err.first, 1.5) << kCubeFaces[f].letter;
        EXPECT_LT(err.second, 10) << kCubeFaces[f].letter;
        const Imath::Box2i fw = Imf::CubeMap::dataWindowForFace(Imf::CubeMapFace(f), window);
        double sum = 0;
        for (int j = 0; j < s; ++j)
            for (int i = 0; i < s; ++i)
                sum += std::fabs(previous[size_t(fw.min.y + j) * s + fw.min.x + i].g * 255.0 - jpeg.pixel(i, j)[1]);
        EXPECT_LT(sum / (double(s) * s), 1.5) << "EXR face " << kCubeFaces[f].letter;
    }
    int previousFace = s;
    for (int l = 1; l < in.numLevels(); ++l) {
        const Imath::Box2i lw = in.dataWindowForLevel(l);
        const int w = lw.max.x - lw.min.x + 1, face = Imf::CubeMap::sizeOfFace(lw);
        std::vector<Imf::Rgba> current(size_t(w) * (lw.max.y - lw.min.y + 1));
        in.setFrameBuffer(current.data() - lw.min.x - size_t(lw.min.y) * w, 1, w);
        in.readTiles(0, in.numXTiles(l) - 1, 0, in.numYTiles(l) - 1, l);
        double worst = 0;
        for (int f = 0; f < 6 && face > 0; ++f)
            for (int y = 0; y < face; ++y)
                for (int x = 0; x < face; ++x) {
                    const Imf::Rgba* a = &previous[size_t(f * previousFace + 2 * y) * previousFace + 2 * x];
                    const Imf::Rgba* b = a + previousFace;
                    const float want = 0.25f * (float(a[0].g) + float(a[1].g) + float(b[0].g) + float(b[1].g));
                    worst = std::max(worst, double(std::fabs(current[size_t(f * face + y) * w + x].g - want)));
                }
        EXPECT_LT(worst, 1e-3) << "level " << l;  // half precision near 0.5
        for (const Imf::Rgba& p : current)  // rows of no face hold finite values too
            ASSERT_TRUE(std::isfinite(float(p.g)) && float(p.g) > 0.1f) << "level " << l;
        if (face > 0)
            previous = current, previousFace = face;
    }
}

// A 16-bit panorama whose samples all lie half way between two 8-bit levels
// (257 k + 128) is sampled as it is: the faces drawn into an 8-bit target
// round once, so they match the exact values (v / 257, bilinear where each
// face pixel looks) within rounding, about 0.3 on average. Rounding the
// panorama to 8 bits first puts every sample half a level low and the faces
// about 0.5 off on average.
TEST(FinishCubeFacesGL, SixteenBitPanoramaRoundedOnce)
{
    const int w = 256, h = 128, s = 96;
    Image deep(w, h, kRgb16Channels);
    std::vector<double> exact(size_t(w) * h * 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c) {
                // Ramps across 170 levels: along x, along y, along both.
                const int k = 40 + (c == 0 ? x : 0) * 170 / w + (c == 1 ? y : 0) * 170 / h +
                              (c == 2 ? x + y : 0) * 170 / (w + h);
                const uint16_t v = uint16_t(257 * k + 128);
                std::memcpy(deep.pixel(x, y) + 2 * c, &v, 2);
                exact[(size_t(y) * w + x) * 3 + c] = v / 257.0;
            }
    const auto meanError = [&](const Texture& input) {
        const RenderTarget target(s, s, GL_RGBA8);
        const Shader& program = sharedShader("envmap", "");
        program.setUniform("inSize", float(w), float(h));
        program.setUniform("outSize", float(s), float(s));
        double sum = 0;
        int64_t count = 0;
        Image face(s, s, 3);
        for (int f = 0; f < 6; ++f) {
            program.setMatrix3("yaw_pitch_mat", yawPitchMatrix(kCubeFaces[f].yaw, kCubeFaces[f].pitch).data());
            input.bind(GL_TEXTURE0);
            target.framebuffer.bind();
            fullScreenPass(s, s);
            target.framebuffer.read(face.data(), GL_RGB, GL_UNSIGNED_BYTE, s, s);
            for (int j = 0; j < s; ++j)
                for (int i = 0; i < s; ++i) {
                    const Vec d = cubeFaceDirection(f, i, j, s);
                    const double lon = std::atan2(d[0], d[2]), lat = std::atan2(d[1], std::hypot(d[0], d[2]));
                    const double x = lon * w / (2 * M_PI) + 0.5 * (w - 1), y = 0.5 * (h - 1) - lat * h / M_PI;
                    const int x0 = int(std::floor(x)), y0 = std::clamp(int(std::floor(y)), 0, h - 1);
                    const int y1 = std::min(y0 + 1, h - 1);
                    const double tx = x - x0, ty = std::clamp(y - y0, 0.0, 1.0);
                    if (x0 < 0 || x0 + 1 >= w)
                        continue;  // across the seam the ramps jump back
                    for (int c = 0; c < 3; ++c) {
                        const auto at = [&](int px, int py) { return exact[(size_t(py) * w + px) * 3 + c]; };
                        const double want = (at(x0, y0) * (1 - tx) + at(x0 + 1, y0) * tx) * (1 - ty) +
                                            (at(x0, y1) * (1 - tx) + at(x0 + 1, y1) * tx) * ty;
                        sum += std::fabs(want - face.pixel(i, j)[c]);
                        ++count;
                    }
                }
        }
        return sum / double(count);
    };
    const double once = meanError(uploadRgb(deep));
    const double twice = meanError(uploadRgb(roundRgb16(deep)));
    // Measured on llvmpipe: 0.30 and 0.50 (its filter weights add a little).
    EXPECT_LT(once, 0.36);
    EXPECT_GT(twice, 0.45);
}

TEST(FinishCubeFacesGL, TilePyramid)
{
    support::TempDir dir;
    const std::string tiles = dir / "tiles/";
    writeCubeFacesJpeg(directionPanorama(1024, 512, false), 2048, CubeJpegNames(tiles), TileEncoding());
    // Levels 2, 1 and 0 with 16, 4 and 1 tiles of 512 x 512 per face.
    std::set<std::string> expected, found;
    for (int f = 0; f < 6; ++f)
        for (int l = 0; l <= 2; ++l)
            for (int r = 0; r < (1 << l); ++r)
                for (int c = 0; c < (1 << l); ++c)
                    expected.insert(pyramidTileName(l, kCubeFaces[f].letter, r, c, "jpg"));
    expected.insert({"preview-strip.jpg", "preview.jpg", "pannellum"});
    for (const auto& entry : fs::directory_iterator(tiles))
        found.insert(entry.path().filename().string());
    EXPECT_EQ(found, expected);
    // A level-0 tile is the whole face halved twice (about 3 units lost): its
    // centre shows the face's forward direction; a crop would be 50 off.
    const Image whole = readJpeg(tiles + "0_f_00_00.jpg");
    ASSERT_EQ(whole.width(), 512);
    const Vec centre = directionColour(cubeFaceDirection(5, 1023.5, 1023.5, 2048));
    for (int k = 0; k < 3; ++k)
        EXPECT_NEAR(whole.pixel(256, 256)[k], centre[k] - 3, 5) << k;
    // The preview strip holds the faces at 256 in the order b d f l r u, and
    // preview.jpg the front one: near each face's centre its forward
    // direction (three truncating halvings lose up to 3 units, JPEG a few
    // more); a face in the wrong slot is 100 off in some channel.
    const Image strip = readJpeg(tiles + "preview-strip.jpg");
    const Image front = readJpeg(tiles + "preview.jpg");
    ASSERT_EQ(strip.width(), 6 * 256);
    ASSERT_EQ(strip.height(), 256);
    ASSERT_EQ(front.width(), 256);
    const std::string order = "bdflru";
    for (int f = 0; f < 6; ++f) {
        const int slot = int(order.find(kCubeFaces[f].letter));
        const Vec want = directionColour(cubeFaceDirection(f, 1027.5, 1027.5, 2048));
        for (int k = 0; k < 3; ++k) {
            EXPECT_NEAR(strip.pixel(slot * 256 + 128, 128)[k], want[k], 8) << kCubeFaces[f].letter << k;
            if (order[slot] == 'f') {
                EXPECT_NEAR(front.pixel(128, 128)[k], want[k], 8) << k;
            }
        }
    }

    // WebP tiles of a face size that is no power of two, read back by libwebp's dwebp.
    const std::string webp = dir / "webp/";
    writeCubeFacesJpeg(directionPanorama(1024, 512, false), 1000, CubeJpegNames(webp, "webp"),
                       TileEncoding{TileFormat::Webp, 80});
    EXPECT_TRUE(fs::exists(webp + "0_u_00_00.webp") && fs::exists(webp + "preview.jpg"));
    ASSERT_EQ(std::system(("dwebp -quiet '" + webp + "1_f_00_00.webp' -ppm -o '" + webp + "t.ppm'").c_str()), 0);
    FILE* ppm = std::fopen((webp + "t.ppm").c_str(), "rb");
    ASSERT_TRUE(ppm);
    const Image tile = readPpm(ppm, [](int w, int h) { EXPECT_EQ(w * 10000 + h, 500 * 10000 + 500); });
    std::fclose(ppm);
    // Its last pixel is the one left above the face's centre; lossy WebP of
    // a smooth field at quality 80 stays within a few units.
    const Vec corner = directionColour(cubeFaceDirection(5, 499, 499, 1000));
    for (int k = 0; k < 3; ++k)
        EXPECT_NEAR(tile.pixel(499, 499)[k], corner[k], 5) << k;
}

// The logo as a viewer sees it: in the d face, round, centred, upright and
// not mirrored; only its band of the panorama changes; HDR output is RGBE of
// the logo at its white level.
TEST(FinishLogoGL, RoundCentredAndUprightInTheDownFace)
{
    support::TempDir dir;
    // White, a red disc of radius 100 in the middle, a blue square in the
    // top-left quadrant that shows which way up it is.
    Image logo(400, 400, 3);
    for (int y = 0; y < 400; ++y)
        for (int x = 0; x < 400; ++x) {
            const bool disc = std::hypot(x - 199.5, y - 199.5) < 100;
            const bool marker = x >= 140 && x < 170 && y >= 140 && y < 170;
            uint8_t* p = logo.pixel(x, y);
            p[0] = marker ? 0 : 255;
            p[1] = disc || marker ? 0 : 255;
            p[2] = disc && !marker ? 0 : 255;
        }
    const std::string logoPath = dir / "logo.jpg";
    writeJpeg(logo, logoPath);

    Image pano(2000, 1000, 3);
    std::fill(pano.data(), pano.data() + pano.byteSize(), uint8_t(90));
    drawLogo(pano.mutableView(), logoPath, false);
    int changed = 0;
    for (int x = 0; x < 2000; ++x)
        changed += (pano.pixel(x, 999)[0] != 90) + 2 * (pano.pixel(x, 899)[0] != 90);
    EXPECT_EQ(changed, 2000);  // 18 degrees: rows 900 to 999 only

    const int s = 512;
    writeCubeFacesJpeg(pano, s, CubeJpegNames(dir / "pano"), TileEncoding());
    const Image down = readJpeg(dir / "pano_d.jpg");
    double n = 0, sx = 0, sy = 0, sxx = 0, syy = 0, sxy = 0, bx = 0, by = 0, bn = 0;
    for (int j = 0; j < s; ++j)
        for (int i = 0; i < s; ++i) {
            const uint8_t* p = down.pixel(i, j);
            if (p[0] > 160 && p[1] < 100 && p[2] < 100)
                n += 1, sx += i, sy += j, sxx += double(i) * i, syy += double(j) * j, sxy += double(i) * j;
            if (p[2] > 160 && p[0] < 100 && p[1] < 100)
                bx += i, by += j, bn += 1;
        }
    ASSERT_GT(n, 1000);
    const double cx = sx / n, cy = sy / n, vxx = sxx / n - cx * cx, vyy = syy / n - cy * cy, vxy = sxy / n - cx * cy;
    // Radius 100 of the 200-pixel inscribed radius, which spans tan(18
    // degrees) of the face's half width: 41.6 face pixels. The marker moves
    // the centroid by about half a pixel; 0.5 degrees off the nadir would
    // move it by 2.5.
    const double radius = 0.5 * std::tan(18 * M_PI / 180) * s / 2;
    EXPECT_NEAR(cx, (s - 1) / 2.0, 1.5);
    EXPECT_NEAR(cy, (s - 1) / 2.0, 1.5);
    EXPECT_NEAR(vxx / vyy, 1.0, 0.04);
    EXPECT_LT(std::fabs(vxy) / vxx, 0.04);
    EXPECT_NEAR(n, M_PI * radius * radius - std::pow(0.3 * radius, 2), 0.08 * n);
    ASSERT_GT(bn, 20);
    EXPECT_LT(bx / bn, cx - 5);  // the marker is up and to the left
    EXPECT_LT(by / bn, cy - 5);

    Image hdr(2000, 1000, 4);  // black RGBE
    drawLogo(hdr.mutableView(), logoPath, true);
    float rgb[3];
    rgbeToFloat(hdr.pixel(1000, 999), rgb);  // the disc's middle: red at 4.0 linear
    EXPECT_NEAR(rgb[0], 4.0f, 0.1f);
    EXPECT_LT(rgb[1], 0.05f);
    rgbeToFloat(hdr.pixel(10, 900), rgb);  // the white rim
    EXPECT_NEAR(rgb[2], 4.0f, 0.1f);
    rgbeToFloat(hdr.pixel(10, 899), rgb);
    EXPECT_EQ(rgb[0], 0.0f);

    Image grey(1000, 500, 3);
    EXPECT_THROW(drawLogo(grey.mutableView(), dir / "missing.jpg", false), std::runtime_error);
}
