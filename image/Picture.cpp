#include "image/Picture.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <stdexcept>

#include "image/Jpeg.h"
#include "image/Png.h"
#include "image/Tiff.h"

PictureKind pictureKindOf(const uint8_t* head, size_t size)
{
    const struct {
        const char* magic;
        size_t length;
        PictureKind kind;
    } kinds[] = {
        {"\xFF\xD8\xFF", 3, PictureKind::Jpeg},
        {"\x89PNG\r\n\x1A\n", 8, PictureKind::Png},
        {"II*\0", 4, PictureKind::Tiff},
        {"MM\0*", 4, PictureKind::Tiff},
        {"#?", 2, PictureKind::Radiance},
        {"\x76\x2F\x31\x01", 4, PictureKind::OpenExr},
    };
    for (const auto& k : kinds)
        if (size >= k.length && std::memcmp(head, k.magic, k.length) == 0)
            return k.kind;
    return PictureKind::Unknown;
}

PictureKind sniffPictureKind(const std::string& path)
{
    uint8_t head[8] = {};
    FILE* file = std::fopen(path.c_str(), "rb");
    if (!file)
        return PictureKind::Unknown;
    const size_t n = std::fread(head, 1, sizeof head, file);
    std::fclose(file);
    return pictureKindOf(head, n);
}

const char* pictureKindName(PictureKind kind)
{
    switch (kind) {
    case PictureKind::Jpeg: return "JPEG";
    case PictureKind::Png: return "PNG";
    case PictureKind::Tiff: return "TIFF";
    case PictureKind::Radiance: return "Radiance";
    case PictureKind::OpenExr: return "OpenEXR";
    case PictureKind::Unknown: break;
    }
    return "unknown";
}

namespace {

// The value of GPano:<field>, written as an element (<GPano:F>v</GPano:F>) or
// as an attribute (GPano:F="v"); -1 when absent or not a plain integer.
int64_t gpanoField(const std::string& xmp, const char* field)
{
    const std::regex pattern(std::string("GPano:") + field + "\\s*(?:>|=\\s*[\"'])\\s*([0-9]{1,9})\\s*[<\"']");
    std::smatch match;
    if (!std::regex_search(xmp, match, pattern))
        return -1;
    return std::strtoll(match[1].str().c_str(), nullptr, 10);
}

}  // namespace

PanoramaPlacement photoSphereXmpPlacement(const std::string& xmp)
{
    PanoramaPlacement placement;
    const int64_t fullWidth = gpanoField(xmp, "FullPanoWidthPixels");
    const int64_t fullHeight = gpanoField(xmp, "FullPanoHeightPixels");
    if (fullWidth <= 0 || fullHeight <= 0)
        return placement;
    placement.fullWidth = int32_t(fullWidth);
    placement.fullHeight = int32_t(fullHeight);
    placement.left = int32_t(std::max<int64_t>(0, gpanoField(xmp, "CroppedAreaLeftPixels")));
    placement.top = int32_t(std::max<int64_t>(0, gpanoField(xmp, "CroppedAreaTopPixels")));
    return placement;
}

PictureInfo readPictureInfo(const std::string& path, PictureKind kind)
{
    switch (kind) {
    case PictureKind::Jpeg: return readJpegInfo(path);
    case PictureKind::Png: return readPngInfo(path);
    case PictureKind::Tiff: return readTiffInfo(path);
    default: throw std::logic_error("readPictureInfo: not a JPEG, PNG or TIFF file");
    }
}

Image readPicture(const std::string& path, PictureKind kind)
{
    switch (kind) {
    case PictureKind::Jpeg: return orientPicture(readJpeg(path), readJpegInfo(path).orientation);
    case PictureKind::Png: return readPng(path);
    case PictureKind::Tiff: return readTiff(path);
    default: throw std::logic_error("readPicture: not a JPEG, PNG or TIFF file");
    }
}

Image roundRgb16(const ImageView& rgb16)
{
    Image rgb(rgb16.width(), rgb16.height(), 3);
    for (int32_t y = 0; y < rgb16.height(); ++y) {
        const uint8_t* in = rgb16.row(y);
        uint8_t* out = rgb.pixel(0, y);
        for (int32_t i = 0; i < 3 * rgb16.width(); ++i) {
            uint16_t v;
            std::memcpy(&v, in + 2 * i, 2);
            out[i] = uint8_t((uint32_t(v) + 128) / 257);
        }
    }
    return rgb;
}

Image orientPicture(Image stored, int orientation)
{
    if (orientation <= 1 || orientation > 8)
        return stored;
    const int32_t w = stored.width(), h = stored.height(), n = stored.channels();
    const bool swap = orientation >= 5;
    Image shown(swap ? h : w, swap ? w : h, n);
    for (int32_t y = 0; y < shown.height(); ++y)
        for (int32_t x = 0; x < shown.width(); ++x) {
            // Where the shown pixel lies in the stored image.
            int32_t sx = x, sy = y;
            switch (orientation) {
            case 2: sx = w - 1 - x; break;
            case 3: sx = w - 1 - x, sy = h - 1 - y; break;
            case 4: sy = h - 1 - y; break;
            case 5: sx = y, sy = x; break;
            case 6: sx = y, sy = h - 1 - x; break;
            case 7: sx = w - 1 - y, sy = h - 1 - x; break;
            case 8: sx = w - 1 - y, sy = x; break;
            }
            std::memcpy(shown.pixel(x, y), stored.pixel(sx, sy), size_t(n));
        }
    return shown;
}
