// OpenEXR: round trips, compressions, header attributes, data windows and
// damaged files.
#include <gtest/gtest.h>

#include <ImfChannelList.h>
#include <ImfFloatAttribute.h>
#include <ImfInputFile.h>
#include <ImfRgbaFile.h>
#include <ImfStandardAttributes.h>
#include <ImfStringAttribute.h>
#include <boost/property_tree/ptree.hpp>

#include <cmath>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "image/OpenExr.h"
#include "image/Rgbe.h"
#include "support/Support.h"

namespace {

const char* kProject = R"({
  "timestamp": "2021-01-05T10:20:30", "capture-time": "12.4 s", "preview-ev": "0",
  "ui": { "aperture": "f/8", "max-iso": "400", "base-exp-time": "1/60", "hdr-mode": "7 EV" },
  "gps": { "latitude": 48.25, "longitude": -11.5, "altitude": 512.5 }
})";

Imf::Header headerOf(const std::string& path)
{
    registerExrAttributeTypes();
    return Imf::InputFile(path.c_str()).header();
}

}  // namespace

TEST(OpenExr, CompressionsRoundTripAndHeader)
{
    support::TempDir dir;
    const std::string path = dir / "rt.exr";
    // RGBE with E in [112, 144] is exact in half: lossless compressions read
    // back bit for bit, over full, short and single-row last 256-row strips.
    for (const int32_t h : {1, 256, 257})
        for (const char* compression : {"zip", "piz"}) {
            const Image src = support::makeRgbeImage(37, h, uint32_t(h));
            writeEquirectExr(src, path, compression, "", "");
            EXPECT_TRUE(support::samePixels(src, readExr(path), 4)) << h << " rows, " << compression;
        }

    // DWA (level 300) and B44 stay close on smooth content: about 3 % at worst
    // and 0.3 % on average; a misplaced strip or channel gives errors of order 1.
    Image smooth(300, 150, 4);
    for (int32_t y = 0; y < 150; ++y)
        for (int32_t x = 0; x < 300; ++x)
            floatToRgbe(0.5f + 8.0f * x / 300, 0.2f + float(y) / 150, 1.0f + 0.5f * std::sin(x * 0.05f),
                        smooth.pixel(x, y));
    for (const char* compression : {"dwa", "b44"}) {
        writeEquirectExr(smooth, path, compression, "", "");
        const auto err = support::rgbeError(smooth, readExr(path));
        EXPECT_LE(err.first, 0.06) << compression;
        EXPECT_LE(err.second, 0.01) << compression;
    }

    const struct { const char* option; Imf::Compression expected; } cases[] = {
        {"b44", Imf::B44_COMPRESSION}, {"zip", Imf::ZIPS_COMPRESSION}, {"piz", Imf::PIZ_COMPRESSION},
        {"dwa", Imf::DWAB_COMPRESSION}, {"ZIP", Imf::DWAB_COMPRESSION}, {"", Imf::DWAB_COMPRESSION}};
    for (const auto& c : cases) {
        writeEquirectExr(support::makeRgbeImage(16, 8, 1), path, c.option, "", "");
        const Imf::Header h = headerOf(path);
        EXPECT_EQ(h.compression(), c.expected) << c.option;
        const auto* level = h.findTypedAttribute<Imf::FloatAttribute>("dwaCompressionLevel");
        EXPECT_EQ(level ? level->value() : 0.0f, c.expected == Imf::DWAB_COMPRESSION ? 300.0f : 0.0f) << c.option;
        EXPECT_EQ(h.dataWindow(), Imath::Box2i(Imath::V2i(0, 0), Imath::V2i(15, 7)));
        EXPECT_EQ(h.displayWindow(), h.dataWindow());
        EXPECT_EQ(Imf::envmap(h), Imf::ENVMAP_LATLONG);
        EXPECT_EQ(h.channels().findChannel("A"), nullptr);
    }
}

TEST(OpenExr, MetadataFromPreviewAndProject)
{
    support::TempDir dir;
    const char raw[] = "\xFF\xD8\xFF\xE0 preview with \0 zero bytes";
    const std::string preview(raw, sizeof raw);  // the terminating zero too
    support::writeFile(dir / "thumb.jpg", preview);
    support::writeFile(dir / "pano.tsp", kProject);
    const std::string path = dir / "meta.exr";
    writeEquirectExr(support::makeRgbeImage(20, 10, 2), path, "dwa", dir / "thumb.jpg", dir / "pano.tsp");
    const Imf::Header h = headerOf(path);
    const auto* jpeg = h.findTypedAttribute<TessaraBinaryAttribute>("tessaraJpegPreview");
    ASSERT_NE(jpeg, nullptr);
    EXPECT_EQ(jpeg->value(), preview);
    EXPECT_EQ(h.typedAttribute<Imf::StringAttribute>("tessaraMetaData").value(), kProject);
    EXPECT_EQ(Imf::capDate(h), "2021:01:05 10:20:30");
    EXPECT_EQ(Imf::comments(h), "Tessara Panorama. HDR mode: 7 EV, Base exposure time: 1/60, Max ISO: 400, "
                                "Aperture: f/8. Capture time: 12.4 s");
    EXPECT_EQ(Imf::latitude(h), 48.25f);
    EXPECT_EQ(Imf::longitude(h), -11.5f);
    EXPECT_EQ(Imf::altitude(h), 512.5f);

    // GPS parts are optional; paths naming no file add nothing.
    support::writeFile(dir / "a.tsp", R"({"timestamp": "2020-12-31T23:59:59", "capture-time": "t",
        "ui": {"aperture": "a", "max-iso": "i", "base-exp-time": "b", "hdr-mode": "h"},
        "gps": {"latitude": "1.5", "longitude": "2.5"}})");
    const Imf::Header a = buildExrHeader(8, 4, Imf::ENVMAP_CUBE, "zip", dir / "none.jpg", dir / "a.tsp");
    EXPECT_EQ(Imf::latitude(a), 1.5f);
    EXPECT_FALSE(Imf::hasAltitude(a));
    EXPECT_EQ(Imf::envmap(a), Imf::ENVMAP_CUBE);
    EXPECT_EQ(a.findTypedAttribute<TessaraBinaryAttribute>("tessaraJpegPreview"), nullptr);
}

TEST(OpenExr, BrokenProjectLeavesNoOutput)
{
    support::TempDir dir;
    support::writeFile(dir / "q.tsp", "{ \"timestamp\": ");
    EXPECT_THROW(writeEquirectExr(support::makeRgbeImage(8, 4, 1), dir / "o.exr", "dwa", "", dir / "q.tsp"),
                 boost::property_tree::ptree_error);
    EXPECT_FALSE(std::filesystem::exists(dir / "o.exr"));
}

TEST(OpenExr, ReadsAnyDataWindowAndRefusesDamage)
{
    support::TempDir dir;
    const std::string path = dir / "window.exr";
    // Data window (-3, 7) .. (6, 12) inside a 20 x 20 display window.
    std::vector<Imf::Rgba> pixels(60);
    for (int i = 0; i < 60; ++i)
        pixels[size_t(i)] = Imf::Rgba(float(i % 10), float(i / 10), 1.0f, 1.0f);
    {
        Imf::RgbaOutputFile out(path.c_str(), Imath::Box2i(Imath::V2i(0, 0), Imath::V2i(19, 19)),
                                Imath::Box2i(Imath::V2i(-3, 7), Imath::V2i(6, 12)), Imf::WRITE_RGBA);
        out.setFrameBuffer(pixels.data() + 3 - 7 * 10, 1, 10);
        out.writePixels(6);
    }
    const Image img = readExr(path);
    ASSERT_EQ(img.width(), 10);
    ASSERT_EQ(img.height(), 6);
    for (int i = 0; i < 60; ++i) {
        float rgb[3];
        rgbeToFloat(img.pixel(i % 10, i / 10), rgb);
        EXPECT_EQ(rgb[0] + 100 * rgb[1], float(i % 10 + 100 * (i / 10))) << i;
    }

    writeEquirectExr(support::makeRgbeImage(64, 300, 4), path, "dwa", "", "");
    const std::string bytes = support::readFile(path);
    for (size_t length = 0; length < bytes.size(); length += 1 + length / 3) {
        support::writeFile(dir / "cut.exr", bytes.substr(0, length));
        EXPECT_THROW(readExr(dir / "cut.exr"), std::exception) << length;
    }
    // Far more pixels declared than the file holds: refused before allocating.
    for (const int size : {100000, 30000}) {
        {
            Imf::Header h(size, size);
            h.compression() = Imf::DWAB_COMPRESSION;
            Imf::RgbaOutputFile out((dir / "huge.exr").c_str(), h, Imf::WRITE_RGB);
        }
        EXPECT_THROW(readExr(dir / "huge.exr"), std::runtime_error) << size;
    }
}

TEST(OpenExr, HeadersAskingMoreThanTheFileHoldsAreRefused)
{
    // The library allocated what a header declared before reading it: 2 GB
    // for an unknown attribute of a 1 KB file, line buffers for a data window
    // widened to 50 million columns. Single-part and multi-part files.
    support::TempDir dir;
    const std::string single = dir / "single.exr";
    writeEquirectExr(support::makeRgbeImage(64, 20, 2), single, "dwa", "", "");
    // The seed file of the fuzzing corpus: two parts.
    const std::string multi = std::string(TESSARA_SOURCE_DIR) + "/fuzz/corpus/exr/multipart.exr";
    const std::string bogus("bogus\0bogusType\0\xFF\xFF\xFF\x7F", 20);  // 2 GB value, none present
    auto withAttribute = [&](const std::string& file, int header) {
        std::string bytes = support::readFile(file);
        size_t at = 8;
        for (int i = 0; i < header; ++i)
            at = bytes.find(std::string("channels\0chlist", 15), at + 1);
        return bytes.insert(at, bogus);
    };
    std::string wide = support::readFile(single);
    const size_t window = wide.find(std::string("dataWindow\0box2i", 16)) + 16 + 1 + 4;
    wide.replace(window + 8, 4, std::string("\x80\xF0\xFA\x02", 4));  // xMax = 50,000,000
    // A channel list without its closing empty name: the library would read
    // on past the value into whatever follows.
    std::string channels = support::readFile(single);
    const size_t list = channels.find(std::string("channels\0chlist", 15)) + 16;
    channels[list + 4 + size_t(uint8_t(channels[list])) - 1] = 'X';
    const struct {
        std::string bytes;
        std::string message;
    } cases[] = {
        {withAttribute(single, 0), "attribute 'bogus' declares 2147483647 bytes"},
        {withAttribute(multi, 1), "attribute 'bogus' declares 2147483647 bytes"},
        {wide, "50000001x20 pixels are more than a file of "},
        {channels, "attribute 'channels' of type 'chlist' is malformed"},
    };
    const std::string path = dir / "bad.exr";
    for (const auto& c : cases) {
        support::writeFile(path, c.bytes);
        EXPECT_EQ(support::errorOf([&] { readExr(path); }).rfind("Failed to read file '" + path + "': " + c.message, 0),
                  0u)
            << support::errorOf([&] { readExr(path); });
    }
    EXPECT_NO_THROW(readExr(multi));  // the unpatched multi-part file passes the check
}
