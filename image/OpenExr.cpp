#include "image/OpenExr.h"

#include <omp.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <vector>

#include <ImfIO.h>
#include <ImfRgbaFile.h>
#include <ImfStandardAttributes.h>
#include <ImfStdIO.h>
#include <ImfStringAttribute.h>
#include <ImfThreading.h>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include "image/FormatText.h"
#include "image/OutputFile.h"
#include "image/Rgbe.h"

void TessaraBinaryAttribute::writeValueTo(Imf::OStream& os, int) const
{
    os.write(value_.data(), int(value_.size()));
}

void TessaraBinaryAttribute::readValueFrom(Imf::IStream& is, int size, int)
{
    // Grow with what actually arrives, so a size field that promises more
    // than the file holds fails at the end of the file, not in the allocator.
    value_.clear();
    constexpr int kChunk = 1 << 16;
    char chunk[kChunk];
    while (size > 0) {
        const int n = std::min(size, kChunk);
        is.read(chunk, n);
        value_.append(chunk, size_t(n));
        size -= n;
    }
}

void TessaraBinaryAttribute::copyValueFrom(const Imf::Attribute& other)
{
    const auto* typed = dynamic_cast<const TessaraBinaryAttribute*>(&other);
    if (!typed)
        throw std::runtime_error(std::string("Cannot copy the value of an attribute of type ") + other.typeName() +
                                 " into an attribute of type " + staticTypeName());
    value_ = typed->value_;
}

void registerExrAttributeTypes()
{
    static std::once_flag once;
    std::call_once(once, [] {
        if (!Imf::Attribute::knownType(TessaraBinaryAttribute::staticTypeName()))
            TessaraBinaryAttribute::registerAttributeType();
    });
}

namespace {

namespace fs = std::filesystem;
namespace pt = boost::property_tree;

constexpr int kStripRows = 256;
// Files embedded into the header: a thumbnail JPEG and a JSON document.
// Attribute sizes are 32-bit; anything near that is not one of those.
constexpr uintmax_t kMaxEmbeddedFile = uintmax_t(1) << 30;

bool isExistingFile(const std::string& path)
{
    std::error_code ec;
    return !path.empty() && fs::exists(path, ec);
}

// The whole content of an existing file; "Error opening file '%s'" when it
// cannot be read (a directory, no permission, too large).
std::string readWholeFile(const std::string& path)
{
    std::error_code ec;
    const uintmax_t size = fs::file_size(path, ec);
    std::ifstream in(path, std::ios::binary);
    if (ec || size > kMaxEmbeddedFile || !in)
        throw std::runtime_error(formatText("Error opening file '%s'", path.c_str()));
    std::string bytes(size_t(size), '\0');
    in.read(&bytes[0], std::streamsize(size));
    if (size_t(in.gcount()) != bytes.size() || in.peek() != std::char_traits<char>::eof())
        throw std::runtime_error(formatText("Error opening file '%s'", path.c_str()));
    return bytes;
}

Imf::Compression compressionFromOption(const std::string& text)
{
    if (text == "b44")
        return Imf::B44_COMPRESSION;
    if (text == "zip")
        return Imf::ZIPS_COMPRESSION;
    if (text == "piz")
        return Imf::PIZ_COMPRESSION;
    return Imf::DWAB_COMPRESSION;
}

void addProjectAttributes(Imf::Header& header, const std::string& projectPath)
{
    header.insert("tessaraMetaData", Imf::StringAttribute(readWholeFile(projectPath)));

    pt::ptree doc;
    pt::read_json(projectPath, doc);
    std::string date = doc.get<std::string>("timestamp");
    std::replace(date.begin(), date.end(), '-', ':');
    std::replace(date.begin(), date.end(), 'T', ' ');
    const std::string captureTime = doc.get<std::string>("capture-time");
    const std::string aperture = doc.get<std::string>("ui.aperture");
    const std::string maxIso = doc.get<std::string>("ui.max-iso");
    const std::string baseExposure = doc.get<std::string>("ui.base-exp-time");
    const std::string hdrMode = doc.get<std::string>("ui.hdr-mode");
    Imf::addCapDate(header, date);
    Imf::addComments(header, "Tessara Panorama. HDR mode: " + hdrMode + ", Base exposure time: " + baseExposure +
                                 ", Max ISO: " + maxIso + ", Aperture: " + aperture +
                                 ". Capture time: " + captureTime);
    if (const auto gps = doc.get_child_optional("gps")) {
        Imf::addLatitude(header, gps->get<float>("latitude"));
        Imf::addLongitude(header, gps->get<float>("longitude"));
        if (const auto altitude = gps->get_optional<float>("altitude"))
            Imf::addAltitude(header, *altitude);
    }
}

// Frame buffer base such that pixel (x, y) of the file is at
// base + x + (y - firstRow) * width for a strip starting at file row firstRow
// and column firstColumn. Computed on integers: the base lies outside the strip.
template <typename T>
T* stripBase(T* strip, int64_t firstColumn, int64_t firstRow, int64_t width)
{
    const intptr_t offset = intptr_t(firstColumn + firstRow * width) * intptr_t(sizeof(Imf::Rgba));
    return reinterpret_cast<T*>(reinterpret_cast<intptr_t>(strip) - offset);
}

// Half of every RGBE channel value: entry E * 256 + byte holds the bits of
// half(byte * 2^(E - 136)) (0 for E = 0), the same as decoding to float and
// converting that to half, for one table lookup a channel.
const uint16_t* rgbeToHalfTable()
{
    static const std::vector<uint16_t> table = [] {
        std::vector<uint16_t> t(256 * 256);
        const float* scale = rgbeExponentTable();
        for (int e = 1; e < 256; ++e)
            for (int b = 0; b < 256; ++b)
                t[size_t(e) * 256 + size_t(b)] = half(float(b) * scale[e]).bits();
        return t;
    }();
    return table.data();
}

int64_t conversionChunk(int64_t pixels)
{
    return std::max<int64_t>(1, std::min<int64_t>(64, pixels / std::max(1, omp_get_max_threads())));
}

}  // namespace

Imf::Header buildExrHeader(int width, int height, Imf::Envmap envmap, const std::string& compression,
                           const std::string& previewPath, const std::string& projectPath)
{
    registerExrAttributeTypes();
    const Imf::Compression c = compressionFromOption(compression);
    Imf::Header header(width, height, 1.0f, Imath::V2f(0, 0), 1.0f, Imf::INCREASING_Y, c);
    if (c == Imf::DWAB_COMPRESSION) {
        // The header field drives the compressor; the attribute records the
        // level in the file, where readers and exrheader show it.
        header.dwaCompressionLevel() = 300.0f;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        Imf::addDwaCompressionLevel(header, 300.0f);
#pragma GCC diagnostic pop
    }
    Imf::addEnvmap(header, envmap);
    if (isExistingFile(previewPath))
        header.insert("tessaraJpegPreview", TessaraBinaryAttribute(readWholeFile(previewPath)));
    if (isExistingFile(projectPath))
        addProjectAttributes(header, projectPath);
    return header;
}

void rgbeToHalf(const ImageView& rgbe, Imf::Rgba* out)
{
    const int64_t width = rgbe.width;
    const int64_t pixels = width * rgbe.height;
    const int64_t chunk = conversionChunk(pixels);
    const bool packed = rgbe.step() == 4 && rgbe.stride() == 4 * rgbe.width;
    const uint8_t* data = rgbe.data;
    const uint16_t* table = rgbeToHalfTable();
    const uint16_t one = half(1.0f).bits();
#pragma omp parallel for schedule(static, chunk) if (pixels > 256)
    for (int64_t i = 0; i < pixels; ++i) {
        const uint8_t* p = packed ? data + 4 * i : rgbe.pixel(int32_t(i % width), int32_t(i / width));
        const uint16_t* row = table + size_t(p[3]) * 256;
        out[i].r.setBits(row[p[0]]);
        out[i].g.setBits(row[p[1]]);
        out[i].b.setBits(row[p[2]]);
        out[i].a.setBits(one);
    }
}

void halfToRgbe(const Imf::Rgba* in, const ImageView& rgbe)
{
    const int64_t width = rgbe.width;
    const int64_t pixels = width * rgbe.height;
    const int64_t chunk = conversionChunk(pixels);
    const bool packed = rgbe.step() == 4 && rgbe.stride() == 4 * rgbe.width;
    uint8_t* data = rgbe.data;
#pragma omp parallel for schedule(static, chunk) if (pixels > 256)
    for (int64_t i = 0; i < pixels; ++i) {
        uint8_t* p = packed ? data + 4 * i : rgbe.pixel(int32_t(i % width), int32_t(i / width));
        floatToRgbe(float(in[i].r), float(in[i].g), float(in[i].b), p);
    }
}

void writeEquirectExr(const ImageView& rgbe, const std::string& path, const std::string& compression,
                      const std::string& previewPath, const std::string& projectPath)
{
    const Imf::Header header =
        buildExrHeader(rgbe.width, rgbe.height, Imf::ENVMAP_LATLONG, compression, previewPath, projectPath);
    AtomicOutputFile file(path);
    std::ofstream os(file.tempPath(), std::ios::binary);
    if (!os)
        throw std::runtime_error(formatText("Failed to open file '%s': %s", path.c_str(), std::strerror(errno)));
    {
        // Library messages name the final path, not the temporary one.
        Imf::StdOFStream exrStream(os, path.c_str());
        Imf::RgbaOutputFile out(exrStream, header, Imf::WRITE_RGB, Imf::globalThreadCount());
        const int64_t width = rgbe.width;
        std::vector<Imf::Rgba> strip(size_t(std::min(kStripRows, rgbe.height)) * size_t(width));
        for (int32_t y = 0; y < rgbe.height; y += kStripRows) {
            const int32_t rows = std::min(kStripRows, rgbe.height - y);
            rgbeToHalf(rgbe.subView(0, y, rgbe.width, rows), strip.data());
            out.setFrameBuffer(stripBase(strip.data(), 0, y, width), 1, size_t(width));
            out.writePixels(rows);
        }
    }
    os.close();
    if (os.fail())
        throw std::runtime_error(formatText("Failed to write file '%s'", path.c_str()));
    file.commit();
}

Image readExr(const std::string& path)
{
    registerExrAttributeTypes();
    Imf::RgbaInputFile in(path.c_str(), Imf::globalThreadCount());
    const Imath::Box2i window = in.dataWindow();
    const int64_t width = std::max<int64_t>(1, int64_t(window.max.x) - window.min.x + 1);
    const int64_t height = std::max<int64_t>(1, int64_t(window.max.y) - window.min.y + 1);
    if (uint64_t(width) * uint64_t(height) * 4 > kMaxImageBytes)
        throw std::runtime_error(formatText("Image size %lldx%lld of OpenEXR file '%s' is too large",
                                            static_cast<long long>(width), static_cast<long long>(height),
                                            path.c_str()));
    // Missing chunks would only show once their rows are read; a file that
    // cannot hold what its header declares is refused before allocating.
    if (!in.isComplete())
        throw std::runtime_error(formatText("Failed to read file '%s': incomplete OpenEXR file", path.c_str()));

    Image image(int32_t(width), int32_t(height), 4);
    const int32_t stripRows = int32_t(std::min<int64_t>(kStripRows, height));
    std::vector<Imf::Rgba> strip(size_t(stripRows) * size_t(width));
    for (int32_t y = 0; y < image.height; y += stripRows) {
        const int32_t rows = std::min(stripRows, image.height - y);
        const int64_t firstRow = int64_t(window.min.y) + y;
        in.setFrameBuffer(stripBase(strip.data(), window.min.x, firstRow, width), 1, size_t(width));
        in.readPixels(int(firstRow), int(firstRow + rows - 1));
        halfToRgbe(strip.data(), image.subView(0, y, image.width, rows));
    }
    return image;
}
