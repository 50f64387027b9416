#include "image/OpenExr.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <utility>
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
#include "image/JsonDocument.h"

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
// Rows handed to the library per write: the library compresses the chunks of
// one write in parallel, and a DWAB chunk holds 256 rows, so 1024 rows keep
// its threads busy where 256 would leave all but one idle. The file's bytes
// do not depend on it.
constexpr int kWriteRows = 1024;
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
    readJsonDocument(projectPath, doc);
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

// What a file of a given length can justify. The library trusts the header:
// it allocates an attribute's value, the table of chunk offsets and the
// buffers of one chunk at the sizes the header declares, before reading any
// of the data they stand for. The header is therefore walked here first
// (name\0 type\0 int32 size, value; an empty name ends a header, an empty
// header ends the list of a multi-part file) and refused when
//   - an attribute's value is longer than the rest of the file,
//   - a part's chunk offset table (8 bytes a chunk) does not fit in the file,
//   - the decoded image (4 bytes a pixel), our conversion strip or one chunk's
//     uncompressed data exceed max(64 MiB, 1024 x the file's length).
// The last rule lets the compressors reach 1:1024 on large images (zip and
// piz stay far below on photographs); a uniform DWA-compressed panorama of
// more than 16 million pixels can compress further and is refused.
constexpr uint64_t kExrMinBudget = uint64_t(64) << 20;
constexpr uint64_t kExrExpansion = 1024;

struct ExrPart {
    bool hasWindow = false;
    int64_t width = 0, height = 0;
    int compression = -1;
    int64_t tileWidth = 0, tileHeight = 0;  // 0: scanline part
    int64_t chunkCount = -1;                // the multi-part attribute
    int64_t bytesPerPixel = 0;              // all channels, full resolution
};

// Scanlines per chunk of each compression (in Imf::Compression order).
int linesPerChunk(int compression)
{
    static const int lines[] = {1, 1, 1, 16, 32, 16, 32, 32, 32, 256};
    return compression >= 0 && compression < int(sizeof lines / sizeof lines[0]) ? lines[compression] : 1;
}

class HeaderWalker {
public:
    HeaderWalker(Imf::IStream& is, uint64_t length, const std::string& path) : is_(is), length_(length), path_(path)
    {
    }

    void check()
    {
        char magic[8];
        if (length_ < 8)
            return;  // the library reports what is wrong with such a file
        is_.read(magic, 8);
        pos_ = 8;
        if (le32(magic) != 20000630)
            return;
        const uint32_t flags = le32(magic + 4);
        const bool multiPart = flags & 0x1000;
        const bool tiled = flags & 0x200;
        std::vector<ExrPart> parts;
        for (;;) {
            ExrPart part;
            bool any = false;
            std::string name;
            while (readString(name) && !name.empty()) {
                any = true;
                std::string type;
                if (!readString(type) || length_ - pos_ < 4)
                    return;
                char sizeBytes[4];
                is_.read(sizeBytes, 4);
                pos_ += 4;
                const int32_t size = int32_t(le32(sizeBytes));
                if (size < 0 || uint64_t(size) > length_ - pos_)
                    fail(formatText("attribute '%s' declares %d bytes, more than the file holds", name.c_str(),
                                    size));
                readAttribute(part, name, type, uint32_t(size));
                pos_ += uint32_t(size);
                is_.seekg(pos_);
            }
            if (name.size() != 0 || (!any && !parts.empty()))
                break;  // end of the header list, or a name the library will refuse
            if (tiled && !multiPart && part.tileWidth == 0)
                part.tileWidth = -1;  // a tiled file without a tile description: the library's to report
            parts.push_back(part);
            if (!multiPart)
                break;
        }
        for (size_t i = 0; i < parts.size(); ++i)
            checkPart(parts[i], multiPart, i == 0);
    }

private:
    static uint32_t le32(const char* p)
    {
        const auto* b = reinterpret_cast<const unsigned char*>(p);
        return uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
    }

    [[noreturn]] void fail(const std::string& why) const
    {
        throw std::runtime_error(formatText("Failed to read file '%s': %s", path_.c_str(), why.c_str()));
    }

    // A NUL-terminated name of at most 255 characters (the library reads that
    // many whatever the long-names flag says); false at the end of the file
    // or for a longer name (left to the library to report).
    bool readString(std::string& text)
    {
        text.clear();
        for (;;) {
            if (pos_ >= length_)
                return false;
            char c;
            is_.read(&c, 1);
            ++pos_;
            if (c == '\0')
                return true;
            if (text.size() == 255)
                return false;
            text.push_back(c);
        }
    }

    // Bytes the library reads for a value of a fixed-size type, whatever the
    // size field says; 0 for the other types.
    static uint32_t fixedSize(const std::string& type)
    {
        static const std::map<std::string, uint32_t> sizes = {
            {"box2i", 16}, {"box2f", 16}, {"chromaticities", 32}, {"compression", 1}, {"deepImageState", 1},
            {"double", 8}, {"envmap", 1},  {"float", 4},           {"int", 4},          {"keycode", 28},
            {"lineOrder", 1}, {"m33f", 36}, {"m33d", 72},         {"m44f", 64},        {"m44d", 128},
            {"rational", 8}, {"tiledesc", 9}, {"timecode", 8},    {"v2i", 8},          {"v2f", 8},
            {"v2d", 16},     {"v3i", 12},     {"v3f", 12},        {"v3d", 24}};
        const auto found = sizes.find(type);
        return found == sizes.end() ? 0 : found->second;
    }

    // The library reads some values by their own structure rather than by the
    // size field: fixed-size types, the channel list (up to its empty name),
    // the preview (width x height x 4 bytes from two numbers) and string
    // vectors (length-prefixed). Where structure and size disagree, the
    // library would read past the value or allocate what its numbers say, so
    // such a value is refused here.
    void readAttribute(ExrPart& part, const std::string& name, const std::string& type, uint32_t size)
    {
        std::vector<char> v(size);
        const uint32_t fixed = fixedSize(type);
        if (fixed && size != fixed)
            malformed(name, type);
        if (fixed || type == "chlist" || type == "preview" || type == "stringvector") {
            if (size)
                is_.read(v.data(), int(size));
        } else {
            if (type == "floatvector" && size % 4 != 0)
                malformed(name, type);
            return;  // read by its size: strings, opaque and unknown types, our own
        }
        if (type == "chlist") {
            // name\0, int32 pixel type, 4 bytes, int32 x and y sampling; "" ends.
            size_t at = 0;
            int64_t bytes = 0;
            while (at < v.size() && v[at] != '\0') {
                const size_t end = std::find(v.begin() + long(at), v.end(), '\0') - v.begin();
                if (end - at > 255 || v.size() - end < 17)
                    malformed(name, type);
                bytes += le32(&v[end + 1]) == 1 ? 2 : 4;
                at = end + 17;
            }
            if (at + 1 != v.size())
                malformed(name, type);
            if (name == "channels")
                part.bytesPerPixel = bytes;
        } else if (type == "preview") {
            if (size < 8 || uint64_t(le32(&v[0])) * le32(&v[4]) * 4 != size - 8)
                malformed(name, type);
        } else if (type == "stringvector") {
            for (uint32_t at = 0; at < size;) {
                const uint32_t length = size - at >= 4 ? le32(&v[at]) : UINT32_MAX;
                if (length > size - at - 4)
                    malformed(name, type);
                at += 4 + length;
            }
        } else if (name == "dataWindow" && type == "box2i") {
            part.hasWindow = true;
            part.width = int64_t(int32_t(le32(&v[8]))) - int32_t(le32(&v[0])) + 1;
            part.height = int64_t(int32_t(le32(&v[12]))) - int32_t(le32(&v[4])) + 1;
        } else if (name == "compression" && type == "compression") {
            part.compression = static_cast<unsigned char>(v[0]);
        } else if (name == "tiles" && type == "tiledesc") {
            part.tileWidth = le32(&v[0]);
            part.tileHeight = le32(&v[4]);
        } else if (name == "chunkCount" && type == "int") {
            part.chunkCount = int32_t(le32(&v[0]));
        }
    }

    [[noreturn]] void malformed(const std::string& name, const std::string& type) const
    {
        fail(formatText("attribute '%s' of type '%s' is malformed", name.c_str(), type.c_str()));
    }

    void checkPart(const ExrPart& part, bool multiPart, bool decoded) const
    {
        if (!part.hasWindow || part.width <= 0 || part.height <= 0)
            return;  // the library reports a missing or empty data window
        const uint64_t rest = length_ - pos_;
        // Products in double: the sizes are 32-bit, their products are not.
        double chunks = 0, chunkBytes = 0;
        if (multiPart) {
            chunks = double(std::max<int64_t>(part.chunkCount, 0));
        } else if (part.tileWidth > 0 && part.tileHeight > 0) {
            chunks = std::ceil(double(part.width) / double(part.tileWidth)) *
                     std::ceil(double(part.height) / double(part.tileHeight));
        } else if (part.tileWidth == 0) {
            chunks = std::ceil(double(part.height) / linesPerChunk(part.compression));
        }
        if (part.tileWidth > 0 && part.tileHeight > 0)
            chunkBytes = double(part.tileWidth) * double(part.tileHeight) * double(part.bytesPerPixel);
        else
            chunkBytes = double(linesPerChunk(part.compression)) * double(part.width) * double(part.bytesPerPixel);
        if (chunks * 8 > double(rest))
            fail(formatText("its table of %.0f chunks does not fit in the file", chunks));
        const double budget = double(std::max(kExrMinBudget, kExrExpansion * length_));
        const double pixels = double(part.width) * double(part.height);
        const double strip = double(part.width) * double(std::min<int64_t>(part.height, kStripRows)) * 8;
        if (chunkBytes > budget || (decoded && (pixels * 4 > budget || strip > budget)))
            fail(formatText("%lldx%lld pixels are more than a file of %llu bytes can hold",
                            static_cast<long long>(part.width), static_cast<long long>(part.height),
                            static_cast<unsigned long long>(length_)));
    }

    Imf::IStream& is_;
    const uint64_t length_;
    const std::string& path_;
    uint64_t pos_ = 0;
};

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
    const int64_t width = rgbe.width();
    const int64_t pixels = width * rgbe.height();
    const int64_t chunk = conversionChunk(pixels);
    const bool packed = rgbe.channels() == 4 && rgbe.packed();
    const uint8_t* data = rgbe.data();
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

void halfToRgbe(const Imf::Rgba* in, const MutableImageView& rgbe)
{
    const int64_t width = rgbe.width();
    const int64_t pixels = width * rgbe.height();
    const int64_t chunk = conversionChunk(pixels);
    const bool packed = rgbe.channels() == 4 && rgbe.packed();
    uint8_t* data = rgbe.data();
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
        buildExrHeader(rgbe.width(), rgbe.height(), Imf::ENVMAP_LATLONG, compression, previewPath, projectPath);
    writeExrFile(path, [&](Imf::OStream& stream) {
        Imf::RgbaOutputFile out(stream, header, Imf::WRITE_RGB, Imf::globalThreadCount());
        const int64_t width = rgbe.width();
        std::vector<Imf::Rgba> strip(size_t(std::min(kWriteRows, rgbe.height())) * size_t(width));
        for (int32_t y = 0; y < rgbe.height(); y += kWriteRows) {
            const int32_t rows = std::min(kWriteRows, rgbe.height() - y);
            rgbeToHalf(rgbe.subView(0, y, rgbe.width(), rows), strip.data());
            out.setFrameBuffer(stripBase(strip.data(), 0, y, width), 1, size_t(width));
            out.writePixels(rows);
        }
    });
}

void writeExrFile(const std::string& path, const std::function<void(Imf::OStream&)>& fill)
{
    AtomicOutputFile(path).write([&](std::ofstream& os) {
        // Library messages name the final path, not the temporary one.
        Imf::StdOFStream stream(os, path.c_str());
        fill(stream);
    });
}

namespace {

Image readRgba(Imf::RgbaInputFile& in, const std::string& path);

// Opens a .exr file for reading once its header has been walked and checked.
std::unique_ptr<Imf::RgbaInputFile> openExr(const std::string& path)
{
    registerExrAttributeTypes();
    // A file that cannot be opened is left to the library, whose message
    // names it.
    std::error_code ec;
    const uintmax_t length = fs::file_size(path, ec);
    std::ifstream file(path, std::ios::binary);
    if (!ec && length > 0 && file) {
        Imf::StdIFStream stream(file, path.c_str());
        HeaderWalker(stream, uint64_t(length), path).check();
    }
    file.close();
    return std::make_unique<Imf::RgbaInputFile>(path.c_str(), Imf::globalThreadCount());
}

// The size of the data window, refused when its pixels could not be held.
std::pair<int64_t, int64_t> dataSize(const Imf::RgbaInputFile& in, const std::string& path)
{
    const Imath::Box2i window = in.dataWindow();
    const int64_t width = std::max<int64_t>(1, int64_t(window.max.x) - window.min.x + 1);
    const int64_t height = std::max<int64_t>(1, int64_t(window.max.y) - window.min.y + 1);
    if (uint64_t(width) * uint64_t(height) * 4 > kMaxImageBytes)
        throw std::runtime_error(formatText("Image size %lldx%lld of OpenEXR file '%s' is too large",
                                            static_cast<long long>(width), static_cast<long long>(height),
                                            path.c_str()));
    return {width, height};
}

}  // namespace

Image readExr(const std::string& path)
{
    return readRgba(*openExr(path), path);
}

std::pair<int32_t, int32_t> exrSize(const std::string& path)
{
    const auto [width, height] = dataSize(*openExr(path), path);
    return {int32_t(width), int32_t(height)};
}

namespace {

Image readRgba(Imf::RgbaInputFile& in, const std::string& path)
{
    const Imath::Box2i window = in.dataWindow();
    const auto [width, height] = dataSize(in, path);
    // Missing chunks would only show once their rows are read; a file that
    // cannot hold what its header declares is refused before allocating.
    if (!in.isComplete())
        throw std::runtime_error(formatText("Failed to read file '%s': incomplete OpenEXR file", path.c_str()));

    Image image(int32_t(width), int32_t(height), 4);
    const int32_t stripRows = int32_t(std::min<int64_t>(kStripRows, height));
    std::vector<Imf::Rgba> strip(size_t(stripRows) * size_t(width));
    for (int32_t y = 0; y < image.height(); y += stripRows) {
        const int32_t rows = std::min(stripRows, image.height() - y);
        const int64_t firstRow = int64_t(window.min.y) + y;
        in.setFrameBuffer(stripBase(strip.data(), window.min.x, firstRow, width), 1, size_t(width));
        in.readPixels(int(firstRow), int(firstRow + rows - 1));
        halfToRgbe(strip.data(), image.mutableView().subView(0, y, image.width(), rows));
    }
    return image;
}

}  // namespace
