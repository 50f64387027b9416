// OpenEXR: round trips, the header attributes, other data windows and
// damaged files.
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <ImfFloatAttribute.h>
#include <ImfInputFile.h>
#include <ImfRgbaFile.h>
#include <ImfChannelList.h>
#include <ImfStandardAttributes.h>
#include <ImfStringAttribute.h>
#include <boost/property_tree/ptree.hpp>
#include <gtest/gtest.h>

#include "image/OpenExr.h"
#include "image/Rgbe.h"
#include "image_test_util.h"

namespace {

using testutil::TempDir;

const char* kProject = R"({
  "timestamp": "2021-01-05T10:20:30",
  "capture-time": "12.4 s",
  "preview-ev": "0",
  "ui": { "aperture": "f/8", "max-iso": "400", "base-exp-time": "1/60", "hdr-mode": "7 EV" },
  "gps": { "latitude": 48.25, "longitude": -11.5, "altitude": 512.5 }
})";

const char* kProjectNoAltitude = R"({
  "timestamp": "2020-12-31T23:59:59", "capture-time": "t",
  "ui": { "aperture": "a", "max-iso": "i", "base-exp-time": "b", "hdr-mode": "h" },
  "gps": { "latitude": "1.5", "longitude": "2.5" }
})";

const char* kProjectNoGps = R"({
  "timestamp": "2020-12-31T23:59:59", "capture-time": "t",
  "ui": { "aperture": "a", "max-iso": "i", "base-exp-time": "b", "hdr-mode": "h" }
})";

Imf::Header headerOf(const std::string& path)
{
    registerExrAttributeTypes();
    return Imf::InputFile(path.c_str()).header();
}

std::string run(const std::string& command)
{
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe)
        return out;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, pipe)) > 0)
        out.append(buf, n);
    pclose(pipe);
    return out;
}

TEST(OpenExr, LosslessRoundTripOverStripBoundaries)
{
    // RGBE with E in [112, 144] is exactly representable as half, so with a
    // lossless compression the file reads back bit for bit. Heights around
    // the 256-row strip exercise full, short and single-row last strips.
    TempDir dir;
    for (const int32_t h : {1, 255, 256, 257, 513}) {
        for (const char* compression : {"zip", "piz"}) {
            SCOPED_TRACE(std::to_string(h) + " rows, " + compression);
            const Image src = testutil::makeRgbeImage(37, h, uint32_t(h), 112, 144);
            const std::string path = dir.file("rt.exr");
            writeEquirectExr(src, path, compression, "", "");
            const Image back = readExr(path);
            EXPECT_EQ(back.step(), 4);
            EXPECT_TRUE(testutil::samePixels(src, back, 4));
        }
    }
}

TEST(OpenExr, LossyCompressionsStayCloseToTheImage)
{
    TempDir dir;
    // A smooth panorama-like image: DWA and B44 are made for such content.
    Image src(300, 150, 4);
    for (int32_t y = 0; y < 150; ++y)
        for (int32_t x = 0; x < 300; ++x)
            floatToRgbe(0.5f + 8.0f * x / 300, 0.2f + float(y) / 150, 1.0f + 0.5f * std::sin(x * 0.05f),
                        src.pixel(x, y));
    for (const char* compression : {"dwa", "b44"}) {
        SCOPED_TRACE(compression);
        const std::string path = dir.file("lossy.exr");
        writeEquirectExr(src, path, compression, "", "");
        const Image back = readExr(path);
        double maxErr = 0, sumErr = 0;
        for (int32_t y = 0; y < 150; ++y)
            for (int32_t x = 0; x < 300; ++x) {
                float a[3], b[3];
                rgbeToFloat(src.pixel(x, y), a);
                rgbeToFloat(back.pixel(x, y), b);
                const float top = std::max(a[0], std::max(a[1], a[2]));
                for (int c = 0; c < 3; ++c) {
                    const double err = std::abs(double(a[c]) - b[c]) / top;
                    maxErr = std::max(maxErr, err);
                    sumErr += err;
                }
            }
        // Errors relative to the pixel's brightest channel, as DWA quantises
        // in a luminance/chroma space where a dim channel beside a bright one
        // gets no more than the bright one's precision. DWA at level 300
        // measures about 3 % at worst and 0.3 % on average on this image;
        // the bounds leave room for other library versions, while a wrong
        // strip placement or channel order gives errors of order 1.
        EXPECT_LE(maxErr, 0.06);
        EXPECT_LE(sumErr / (3.0 * 300 * 150), 0.01);
    }
}

TEST(OpenExr, CompressionOptionMapping)
{
    const struct {
        const char* option;
        Imf::Compression expected;
    } cases[] = {{"b44", Imf::B44_COMPRESSION},  {"zip", Imf::ZIPS_COMPRESSION}, {"piz", Imf::PIZ_COMPRESSION},
                 {"dwa", Imf::DWAB_COMPRESSION}, {"", Imf::DWAB_COMPRESSION},    {"ZIP", Imf::DWAB_COMPRESSION},
                 {"lzw", Imf::DWAB_COMPRESSION}};
    TempDir dir;
    const Image img = testutil::makeRgbeImage(16, 8, 1);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.option);
        const std::string path = dir.file("c.exr");
        writeEquirectExr(img, path, c.option, "", "");
        const Imf::Header h = headerOf(path);
        EXPECT_EQ(h.compression(), c.expected);
        const auto* level = h.findTypedAttribute<Imf::FloatAttribute>("dwaCompressionLevel");
        if (c.expected == Imf::DWAB_COMPRESSION) {
            ASSERT_NE(level, nullptr);
            EXPECT_EQ(level->value(), 300.0f);
        } else {
            EXPECT_EQ(level, nullptr);
        }
        EXPECT_EQ(h.dataWindow(), Imath::Box2i(Imath::V2i(0, 0), Imath::V2i(15, 7)));
        EXPECT_EQ(h.displayWindow(), h.dataWindow());
        EXPECT_EQ(h.lineOrder(), Imf::INCREASING_Y);
        ASSERT_TRUE(Imf::hasEnvmap(h));
        EXPECT_EQ(Imf::envmap(h), Imf::ENVMAP_LATLONG);
        EXPECT_NE(h.channels().findChannel("R"), nullptr);
        EXPECT_EQ(h.channels().findChannel("A"), nullptr);
    }
}

TEST(OpenExr, MetadataFromPreviewAndProject)
{
    TempDir dir;
    std::string preview = "\xFF\xD8\xFF\xE0 binary preview with \0 zero bytes";
    preview.push_back('\0');
    testutil::writeFile(dir.file("thumb.jpg"), preview);
    testutil::writeFile(dir.file("pano.tsp"), kProject);
    const std::string path = dir.file("meta.exr");
    writeEquirectExr(testutil::makeRgbeImage(20, 10, 2), path, "dwa", dir.file("thumb.jpg"), dir.file("pano.tsp"));

    const Imf::Header h = headerOf(path);
    const auto* jpeg = h.findTypedAttribute<TessaraBinaryAttribute>("tessaraJpegPreview");
    ASSERT_NE(jpeg, nullptr);
    EXPECT_EQ(jpeg->value(), preview);
    const auto* meta = h.findTypedAttribute<Imf::StringAttribute>("tessaraMetaData");
    ASSERT_NE(meta, nullptr);
    EXPECT_EQ(meta->value(), kProject);
    EXPECT_EQ(Imf::capDate(h), "2021:01:05 10:20:30");
    EXPECT_EQ(Imf::comments(h),
              "Tessara Panorama. HDR mode: 7 EV, Base exposure time: 1/60, Max ISO: 400, Aperture: f/8. "
              "Capture time: 12.4 s");
    EXPECT_EQ(Imf::latitude(h), 48.25f);
    EXPECT_EQ(Imf::longitude(h), -11.5f);
    EXPECT_EQ(Imf::altitude(h), 512.5f);

    // The library's own tool reads the file and shows every attribute.
    const std::string listing = run("exrheader '" + path + "'");
    for (const char* expected : {"tessaraJpegPreview (type tessaraBinary)", "tessaraMetaData (type string)",
                                 "capDate (type string): \"2021:01:05 10:20:30\"", "comments (type string)",
                                 "latitude (type float): 48.25", "longitude (type float): -11.5",
                                 "altitude (type float): 512.5", "envmap (type envmap): latitude-longitude map",
                                 "dwaCompressionLevel (type float): 300", "compression (type compression): dwa, medium scanline blocks"})
        EXPECT_NE(listing.find(expected), std::string::npos) << expected << "\n" << listing;
}

TEST(OpenExr, OptionalGpsParts)
{
    TempDir dir;
    testutil::writeFile(dir.file("a.tsp"), kProjectNoAltitude);
    const Imf::Header a = buildExrHeader(8, 4, Imf::ENVMAP_CUBE, "zip", "", dir.file("a.tsp"));
    EXPECT_EQ(Imf::latitude(a), 1.5f);
    EXPECT_EQ(Imf::longitude(a), 2.5f);
    EXPECT_FALSE(Imf::hasAltitude(a));
    EXPECT_EQ(Imf::envmap(a), Imf::ENVMAP_CUBE);
    EXPECT_EQ(Imf::capDate(a), "2020:12:31 23:59:59");

    testutil::writeFile(dir.file("b.tsp"), kProjectNoGps);
    const Imf::Header b = buildExrHeader(8, 4, Imf::ENVMAP_LATLONG, "zip", dir.file("none.jpg"), dir.file("b.tsp"));
    EXPECT_FALSE(Imf::hasLatitude(b) || Imf::hasLongitude(b) || Imf::hasAltitude(b));
    EXPECT_EQ(b.findTypedAttribute<TessaraBinaryAttribute>("tessaraJpegPreview"), nullptr);

    // Paths naming no file add nothing.
    const Imf::Header c = buildExrHeader(8, 4, Imf::ENVMAP_LATLONG, "dwa", dir.file("x.jpg"), dir.file("x.tsp"));
    EXPECT_FALSE(Imf::hasCapDate(c) || Imf::hasComments(c));
    EXPECT_EQ(c.findTypedAttribute<Imf::StringAttribute>("tessaraMetaData"), nullptr);
}

TEST(OpenExr, HeaderFailures)
{
    TempDir dir;
    // An existing preview path that cannot be read as a file.
    std::filesystem::create_directory(dir.file("thumb.jpg"));
    try {
        buildExrHeader(8, 4, Imf::ENVMAP_LATLONG, "dwa", dir.file("thumb.jpg"), "");
        FAIL() << "no error";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), "Error opening file '" + dir.file("thumb.jpg") + "'");
    }
    // Missing keys and broken JSON fail in the property-tree library.
    testutil::writeFile(dir.file("p.tsp"), R"({"timestamp": "2021-01-01T00:00:00", "capture-time": "x",
                                              "ui": {"max-iso": "1"}})");
    try {
        buildExrHeader(8, 4, Imf::ENVMAP_LATLONG, "dwa", "", dir.file("p.tsp"));
        FAIL() << "no error";
    } catch (const boost::property_tree::ptree_bad_path& e) {
        EXPECT_EQ(std::string(e.what()), "No such node (ui.aperture)");
    }
    testutil::writeFile(dir.file("q.tsp"), "{ \"timestamp\": ");
    EXPECT_THROW(buildExrHeader(8, 4, Imf::ENVMAP_LATLONG, "dwa", "", dir.file("q.tsp")),
                 boost::property_tree::ptree_error);
    // No half-written output is left under the final name.
    EXPECT_THROW(writeEquirectExr(testutil::makeRgbeImage(8, 4, 1), dir.file("o.exr"), "dwa", "", dir.file("q.tsp")),
                 boost::property_tree::ptree_error);
    EXPECT_FALSE(std::filesystem::exists(dir.file("o.exr")));
}

TEST(OpenExr, ReadsAnyDataWindow)
{
    TempDir dir;
    const std::string path = dir.file("window.exr");
    // Data window (-3, 7) .. (6, 12): 10 x 6 pixels, value = column + 100 * row.
    const Imath::Box2i display(Imath::V2i(0, 0), Imath::V2i(19, 19));
    const Imath::Box2i data(Imath::V2i(-3, 7), Imath::V2i(6, 12));
    std::vector<Imf::Rgba> pixels(60);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 10; ++x)
            pixels[size_t(y * 10 + x)] = Imf::Rgba(float(x), float(y), 1.0f, 1.0f);
    {
        Imf::RgbaOutputFile out(path.c_str(), display, data, Imf::WRITE_RGBA);
        out.setFrameBuffer(pixels.data() + 3 - 7 * 10, 1, 10);
        out.writePixels(6);
    }
    const Image img = readExr(path);
    ASSERT_EQ(img.width, 10);
    ASSERT_EQ(img.height, 6);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 10; ++x) {
            float rgb[3];
            rgbeToFloat(img.pixel(x, y), rgb);
            EXPECT_EQ(rgb[0], float(x));
            EXPECT_EQ(rgb[1], float(y));
            EXPECT_EQ(rgb[2], 1.0f);
        }
}

TEST(OpenExr, DamagedFilesFailCleanly)
{
    TempDir dir;
    const std::string good = dir.file("good.exr");
    writeEquirectExr(testutil::makeRgbeImage(64, 300, 4), good, "dwa", "", "");
    const std::string bytes = testutil::readFile(good);
    const std::string path = dir.file("cut.exr");
    for (size_t length = 0; length < bytes.size(); length += 1 + length / 3) {
        testutil::writeFile(path, bytes.substr(0, length));
        EXPECT_THROW(readExr(path), std::exception) << length;
    }

    // Headers that declare far more pixels than the file holds are refused
    // before the image is allocated.
    for (const int size : {100000, 30000}) {
        const std::string huge = dir.file("huge.exr");
        {
            Imf::Header h(size, size);
            h.compression() = Imf::DWAB_COMPRESSION;
            Imf::RgbaOutputFile out(huge.c_str(), h, Imf::WRITE_RGB);
        }  // no pixels written
        EXPECT_THROW(readExr(huge), std::runtime_error) << size;
    }
}

}  // namespace
