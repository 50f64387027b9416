// Panorama pictures: the kind by content, the PNG and TIFF readers against
// files written by libpng and libtiff, damaged files, Photo Sphere XMP, and
// how a picture input is planned.
#include <gtest/gtest.h>

#include <tiffio.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "app/RenderPlan.h"
#include "image/Jpeg.h"
#include "image/Picture.h"
#include "image/Png.h"
#include "image/Rgbe.h"
#include "image/Tiff.h"
#include "support/Support.h"

namespace {

using support::errorOf;

std::string xmpPacket(int fullWidth, int fullHeight, int left, int top)
{
    return "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"><rdf:RDF><rdf:Description GPano:FullPanoWidthPixels=\"" +
           std::to_string(fullWidth) + "\" GPano:CroppedAreaLeftPixels='" + std::to_string(left) +
           "'><GPano:FullPanoHeightPixels>" + std::to_string(fullHeight) +
           "</GPano:FullPanoHeightPixels><GPano:CroppedAreaTopPixels> " + std::to_string(top) +
           " </GPano:CroppedAreaTopPixels></rdf:Description></rdf:RDF></x:xmpmeta>";
}

TEST(Picture, KindFromTheFirstBytes)
{
    const struct {
        std::string head;
        PictureKind kind;
    } cases[] = {
        {"\xFF\xD8\xFF\xE0", PictureKind::Jpeg},
        {"\xFF\xD8", PictureKind::Unknown},  // too short
        {"\x89PNG\r\n\x1A\n", PictureKind::Png},
        {"\x89PNG\r\n\x1A", PictureKind::Unknown},
        {std::string("II*\0", 4), PictureKind::Tiff},
        {std::string("MM\0*", 4), PictureKind::Tiff},
        {std::string("II\0*", 4), PictureKind::Unknown},
        {"#?RADIANCE\n", PictureKind::Radiance},
        {"\x76\x2F\x31\x01\x02", PictureKind::OpenExr},
        {"# pts script", PictureKind::Unknown},
        {"", PictureKind::Unknown},
    };
    for (const auto& c : cases)
        EXPECT_EQ(pictureKindOf(reinterpret_cast<const uint8_t*>(c.head.data()), c.head.size()), c.kind) << c.head;
}

// Every layout the readers take, written by the libraries' own writers and
// read back: 8 and 16-bit samples exactly (the 16-bit ones rounded to the
// nearest 8-bit value by roundRgb16), floats to RGBE (decoded within its
// truncation, under 1/128 relative).
TEST(Picture, PngAndTiffRoundTrips)
{
    support::TempDir dir;
    const int w = 37, h = 21;  // not a multiple of the tile or strip sizes
    const struct {
        const char* name;
        int channels, bits;
        support::TiffLayout tiff;  // unused for PNG
    } cases[] = {
        {"grey8.png", 1, 8, {}},           {"grey-alpha8.png", 2, 8, {}},
        {"rgb8.png", 3, 8, {}},            {"rgba16.png", 4, 16, {}},
        {"rgb16.png", 3, 16, {}},          {"grey16.tif", 1, 16, {1, 16, 0, COMPRESSION_LZW}},
        {"rgb8.tif", 3, 8, {3, 8, 0, COMPRESSION_NONE, 5}},
        {"rgba8-tiled.tif", 4, 8, {4, 8, 16, COMPRESSION_ADOBE_DEFLATE}},
        {"rgb16-tiled.tif", 3, 16, {3, 16, 16, COMPRESSION_LZW}},
        {"float.tif", 3, 32, {3, 32, 0, COMPRESSION_ADOBE_DEFLATE, 4}},
        {"float-tiled.tif", 4, 32, {4, 32, 32, COMPRESSION_NONE}},
    };
    for (const auto& c : cases) {
        std::vector<float> samples(size_t(w) * h * c.channels);
        for (size_t i = 0; i < samples.size(); ++i) {
            // Alpha opaque: libpng's writer takes 16-bit colour with alpha as premultiplied.
            const bool alpha = c.channels % 2 == 0 && i % c.channels == size_t(c.channels - 1);
            const double wave = alpha ? 1.0 : 0.5 + 0.5 * std::sin(double(i) * 0.37);
            samples[i] = c.bits == 8 ? float(int(255 * wave)) : c.bits == 16 ? float(int(65535 * wave))
                                                                              : float(40 * wave * wave);
        }
        const std::string path = dir / c.name;
        const bool png = path.back() == 'g';
        if (png)
            support::writePngFile(path, w, h, c.channels, c.bits, samples);
        else
            support::writeTiffFile(path, w, h, c.tiff, samples);
        const PictureKind kind = png ? PictureKind::Png : PictureKind::Tiff;
        ASSERT_EQ(sniffPictureKind(path), kind) << c.name;
        const PictureInfo info = readPictureInfo(path, kind);
        EXPECT_EQ(info.width, w);
        EXPECT_EQ(info.height, h);
        EXPECT_EQ(info.hdr, c.bits == 32) << c.name;
        const Image image = readPicture(path, kind);
        ASSERT_EQ(image.channels(), c.bits == 32 ? 4 : c.bits == 16 ? kRgb16Channels : 3) << c.name;
        const Image rounded = c.bits == 16 ? roundRgb16(image) : Image();
        int worst = 0, worst16 = 0;
        double worstRelative = 0;
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const float* in = &samples[(size_t(y) * w + x) * c.channels];
                const uint8_t* out = image.pixel(x, y);
                float decoded[3] = {0, 0, 0};
                if (c.bits == 32)
                    rgbeToFloat(out, decoded);
                for (int k = 0; k < 3; ++k) {
                    const float v = in[c.channels >= 3 ? k : 0];
                    if (c.bits == 32) {
                        worstRelative = std::max(worstRelative, std::fabs(decoded[k] - v) / (1e-3 + in[0] + in[1] + in[2]));
                    } else if (c.bits == 16) {
                        uint16_t v16;
                        std::memcpy(&v16, out + 2 * k, 2);
                        worst16 = std::max(worst16, std::abs(int(v16) - int(v)));
                        worst = std::max(worst, std::abs(rounded.pixel(x, y)[k] - int(std::lround(v / 257.0))));
                    } else {
                        worst = std::max(worst, std::abs(out[k] - int(v)));
                    }
                }
            }
        EXPECT_EQ(worst16, 0) << c.name;
        EXPECT_EQ(worst, 0) << c.name;
        EXPECT_LT(worstRelative, 1.0 / 128) << c.name;
    }

    // XMP of a PNG's iTXt chunk and of a JPEG's APP1 segment.
    const std::string xmp = xmpPacket(200, 100, 30, 40);
    support::writePngFile(dir / "xmp.png", 2, 2, 3, 8, std::vector<float>(12, 9.0f), xmp);
    EXPECT_EQ(readPngInfo(dir / "xmp.png").xmp, xmp);
    writeJpeg(Image(16, 8, 3), dir / "xmp.jpg", {{0xE1, std::string("http://ns.adobe.com/xap/1.0/", 29) + xmp}});
    EXPECT_EQ(readJpegInfo(dir / "xmp.jpg").xmp, xmp);
}

// Files cut short, damaged headers and sizes beyond the limits end with one
// clean error naming the file, before anything large is allocated.
TEST(Picture, DamagedAndOversizedFiles)
{
    support::TempDir dir;
    const std::string corpus = std::string(TESSARA_SOURCE_DIR) + "/fuzz/corpus/";
    const struct {
        const char* seed;
        size_t keep;          // bytes kept, 0: all
        uint32_t size;        // width and height set in a PNG's header (its checksum made good), 0: kept
        const char* message;  // after "Error reading <KIND> file '<path>': "
    } cases[] = {
        {"png/rgb8-16x8.png", 20, 0, ""},
        {"png/rgb8-16x8.png", 90, 0, ""},
        {"png/rgba16-interlaced.png", 400, 0, ""},
        {"png/rgba16-interlaced.png", 0, 20000, "image of 20000x20000 pixels needs more data than the file's 658 bytes"},
        {"png/rgb8-16x8.png", 0, 40000, "image of 40000x40000 pixels is too large"},
        {"tiff/rgb8-strips.tif", 100, 0, ""},  // inside the directory
        {"tiff/rgb8-strips.tif", 400, 0, ""},  // inside the strips
        {"tiff/float-rgba.tif", 1000, 0, ""},
        {"tiff/rgb8-lzw.tif", 300, 0, ""},
        {"tiff/float-tiled.tif", 500, 0, ""},
    };
    for (const auto& c : cases) {
        std::string bytes = support::readFile(corpus + c.seed);
        ASSERT_FALSE(bytes.empty()) << c.seed;
        if (c.keep)
            bytes.resize(c.keep);
        if (c.size) {
            for (int k = 0; k < 8; ++k)
                bytes[16 + k] = char(c.size >> (8 * (3 - k % 4)));
            const uint32_t crc = uint32_t(crc32(0, reinterpret_cast<const Bytef*>(&bytes[12]), 17));
            for (int k = 0; k < 4; ++k)
                bytes[29 + k] = char(crc >> (8 * (3 - k)));
        }
        const std::string path = dir / "damaged";
        support::writeFile(path, bytes);
        const PictureKind kind = sniffPictureKind(path);
        const std::string prefix = std::string("Error reading ") + pictureKindName(kind) + " file '" + path + "': ";
        const std::string error = errorOf([&] { readPicture(path, kind); });
        EXPECT_EQ(error.rfind(prefix + c.message, 0), 0u) << c.seed << " " << c.keep << ": " << error;
    }
    // The seeds themselves read.
    for (const char* seed : {"png/grey8-xmp.png", "png/rgba16-interlaced.png", "tiff/rgb8-bigendian.tif",
                             "tiff/rgb8-lzw.tif", "tiff/float-tiled.tif"})
        EXPECT_EQ(errorOf([&] { readPicture(corpus + seed, sniffPictureKind(corpus + seed)); }), "no error") << seed;
}

// Every EXIF orientation of a JPEG (its Exif segment in either byte order)
// shows the four coloured quadrants where the orientation's description puts
// them; a turned 2:1 picture is 1:2 and refused, and only an upright one is
// decoded straight into the faces' texture.
TEST(Picture, ExifOrientation)
{
    support::TempDir dir;
    const uint8_t colours[4][3] = {{230, 20, 20}, {20, 230, 20}, {20, 20, 230}, {230, 230, 230}};
    enum { R, G, B, W };
    Image stored(32, 16, 3);  // quadrants: red, green / blue, white
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 32; ++x)
            std::copy_n(colours[(y / 8) * 2 + x / 16], 3, stored.pixel(x, y));
    const struct {
        int orientation;
        int shown[4];  // top left, top right, bottom left, bottom right
    } cases[] = {
        {1, {R, G, B, W}}, {2, {G, R, W, B}}, {3, {W, B, G, R}}, {4, {B, W, R, G}},
        {5, {R, B, G, W}}, {6, {B, R, W, G}}, {7, {W, G, B, R}}, {8, {G, W, R, B}},
    };
    for (const auto& c : cases) {
        const bool big = c.orientation % 2 == 1;
        const auto u16 = [&](int v) { return big ? std::string{char(v >> 8), char(v & 255)} : std::string{char(v & 255), char(v >> 8)}; };
        const auto u32 = [&](int v) { return big ? u16(0) + u16(v) : u16(v) + u16(0); };
        const std::string exif = std::string("Exif\0\0", 6) + (big ? "MM" : "II") + u16(42) + u32(8) + u16(1) +
                                 u16(0x0112) + u16(3) + u32(1) + u16(c.orientation) + u16(0) + u32(0);
        const std::string path = dir / ("o" + std::to_string(c.orientation) + ".jpg");
        writeJpeg(stored, path, {{0xE1, exif}});
        const PictureInfo info = readPictureInfo(path, PictureKind::Jpeg);
        EXPECT_EQ(info.orientation, c.orientation);
        const Image shown = readPicture(path, PictureKind::Jpeg);
        const int w = c.orientation >= 5 ? 16 : 32, h = 48 - w;
        ASSERT_EQ(shown.width(), w) << c.orientation;
        ASSERT_EQ(shown.height(), h) << c.orientation;
        EXPECT_EQ(info.width, w);
        for (int q = 0; q < 4; ++q) {
            const uint8_t* p = shown.pixel((q % 2) * w / 2 + w / 4, (q / 2) * h / 2 + h / 4);
            for (int k = 0; k < 3; ++k)
                EXPECT_NEAR(p[k], colours[c.shown[q]][k], 8) << "orientation " << c.orientation << " quadrant " << q;
        }
        RenderPlan plan;
        plan.picture = PictureKind::Jpeg;
        plan.options.writeCfJpg = true;
        const std::string error = errorOf([&] { planPictureInput(plan, info); });
        if (c.orientation >= 5)
            EXPECT_NE(error.find("is 16x32 pixels: expected a 2:1"), std::string::npos) << error;
        else
            EXPECT_EQ(plan.decodeToTexture, c.orientation == 1);
    }
}

// The input kind comes from the content except for projects, and a picture
// is planned from its header: 2:1 as it is, else where its XMP places it
// (fields as elements or attributes, blanks around the numbers).
TEST(Picture, InputKindAndPlan)
{
    support::TempDir dir;
    writeJpeg(Image(16, 8, 3), dir / "named.pts");
    writeJpeg(Image(16, 8, 3), dir / "pano");
    support::writeFile(dir / "text.jpg", "not a picture");
    JobOptions options;
    options.inputPath = dir / "named.pts";
    EXPECT_EQ(planInput(options).input, InputKind::PtsScript);
    options.inputPath = dir / "pano";
    const RenderPlan plan = planInput(options);
    EXPECT_EQ(plan.input, InputKind::PictureImage);
    EXPECT_EQ(plan.picture, PictureKind::Jpeg);
    std::ostringstream printed;
    std::ostringstream log;
    printPlan(planJob(options, log), printed);  // from the header alone, as tessara-batch --plan does
    EXPECT_EQ(printed.str().rfind("input: " + dir / "pano" + " (JPEG image)\nmode: LDR\nequirect: 16 x 8\n", 0), 0u)
        << printed.str();
    // .hdr/.exr images of any 2:1 size are reprojected only when asked to be.
    for (const bool any : {false, true}) {
        RenderPlan exr = plan;
        exr.options.reprojectAnySize = any;
        planImageInput(exr, 1024, 512);
        EXPECT_EQ(exr.tonemapOnly, !any);
        planImageInput(exr, 1024, 500);
        EXPECT_TRUE(exr.tonemapOnly);
    }
    options.inputPath = dir / "text.jpg";
    EXPECT_EQ(errorOf([&] { planInput(options); }),
              "'" + dir / "text.jpg" + "' is neither a project nor a readable image; " + kExpectedInput +
                  " (JPEG, PNG, TIFF, Radiance or OpenEXR)");

    const struct {
        int width, height;
        std::string xmp;
        int planWidth, left, top;  // planWidth 0: refused
        const char* error;
    } cases[] = {
        {6000, 3000, "", 6000, 0, 0, ""},
        {6000, 2000, "", 0, 0, 0, "is 6000x2000 pixels: expected a 2:1 equirectangular panorama"},
        // XMP without both full sizes as plain positive integers places nothing.
        {600, 200, "<GPano:FullPanoWidthPixels>600</GPano:FullPanoWidthPixels>", 0, 0, 0, "is 600x200 pixels"},
        {600, 200, "GPano:FullPanoWidthPixels=\"-600\" GPano:FullPanoHeightPixels=\"300\"", 0, 0, 0, "is 600x200"},
        {600, 200, "GPano:FullPanoWidthPixels=\"6e2\" GPano:FullPanoHeightPixels=\"300\"", 0, 0, 0, "is 600x200"},
        {600, 200, "<GPano:FullPanoWidthPixels>600</GPano:FullPanoWidthPixels><GPano:FullPanoHeightPixels>300"
                   "</GPano:FullPanoHeightPixels>", 600, 0, 0, ""},
        {6000, 2000, xmpPacket(8000, 4000, 100, 1000), 8000, 100, 1000, ""},
        {8000, 4000, xmpPacket(8000, 4000, 0, 0), 8000, 0, 0, ""},
        {6000, 2000, xmpPacket(8000, 4000, 2001, 0), 0, 0, 0, "places 6000x2000 pixels at 2001,0 in a panorama"},
        {6000, 2000, xmpPacket(8000, 3000, 0, 0), 0, 0, 0, "in a panorama of 8000x3000; expected a 2:1"},
        {600, 200, xmpPacket(40000, 20000, 0, 0), 0, 0, 0, "panorama of 40000x20000 pixels is too large"},
    };
    for (const auto& c : cases) {
        RenderPlan p = plan;
        PictureInfo info;
        info.width = c.width;
        info.height = c.height;
        info.xmp = c.xmp;
        const std::string error = errorOf([&] { planPictureInput(p, info); });
        if (c.planWidth == 0) {
            EXPECT_NE(error.find(c.error), std::string::npos) << error;
            continue;
        }
        EXPECT_EQ(error, "no error");
        EXPECT_EQ(p.width, c.planWidth);
        EXPECT_EQ(p.height, c.planWidth / 2);
        EXPECT_EQ(p.placement.present(), c.width != c.planWidth || 2 * c.height != c.planWidth);
        EXPECT_EQ(p.placement.left, c.left);
        EXPECT_EQ(p.placement.top, c.top);
    }
}

}  // namespace
