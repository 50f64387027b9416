#pragma once
// OpenEXR output and input of RGBE panoramas through the library's RGBA
// interface, and the header every written file carries (compression, envmap,
// the JPEG preview and the project document with the capture metadata).
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include <ImfAttribute.h>
#include <ImfEnvmap.h>
#include <ImfHeader.h>
#include <ImfIO.h>
#include <ImfRgba.h>

#include "image/ImageView.h"

// Attribute type "tessaraBinary": an opaque byte string, stored as raw bytes
// (the attribute size is the byte count). Holds the JPEG preview.
class TessaraBinaryAttribute : public Imf::Attribute {
public:
    TessaraBinaryAttribute() = default;
    explicit TessaraBinaryAttribute(std::string bytes) : value_(std::move(bytes)) {}

    static const char* staticTypeName() { return "tessaraBinary"; }
    static Imf::Attribute* makeNewAttribute() { return new TessaraBinaryAttribute; }
    static void registerAttributeType() { Imf::Attribute::registerAttributeType(staticTypeName(), makeNewAttribute); }

    const char* typeName() const override { return staticTypeName(); }
    Imf::Attribute* copy() const override { return new TessaraBinaryAttribute(value_); }
    void writeValueTo(Imf::OStream& os, int version) const override;
    void readValueFrom(Imf::IStream& is, int size, int version) override;
    void copyValueFrom(const Imf::Attribute& other) override;

    const std::string& value() const { return value_; }

private:
    std::string value_;
};

// Registers "tessaraBinary" with the library (once per process; further calls
// do nothing). Called by the functions below; call it before reading headers
// by other means to get TessaraBinaryAttribute instead of an opaque attribute.
void registerExrAttributeTypes();

// Header for a width x height file: data and display window from (0, 0),
// compression "b44" -> B44, "zip" -> ZIPS, "piz" -> PIZ, anything else -> DWAB
// with DWA compression level 300; the envmap attribute. When previewPath names
// an existing file its bytes become "tessaraJpegPreview" (throws "Error opening
// file '%s'" when it cannot be read). When projectPath names an existing file
// its text becomes "tessaraMetaData", and the capture date, comments and GPS
// position are taken from it (JSON reader errors pass through unchanged).
Imf::Header buildExrHeader(int width, int height, Imf::Envmap envmap, const std::string& compression,
                           const std::string& previewPath, const std::string& projectPath);

// Writes an RGBE view as a latitude-longitude scanline file with channels R, G,
// B, converting 256 rows at a time. Written through an AtomicOutputFile.
void writeEquirectExr(const ImageView& rgbe, const std::string& path, const std::string& compression,
                      const std::string& previewPath, const std::string& projectPath);

// Writes an OpenEXR file complete or not at all (AtomicOutputFile): `fill`
// gets a stream on the temporary file whose library messages name `path`.
void writeExrFile(const std::string& path, const std::function<void(Imf::OStream&)>& fill);

// Reads any RGBA-readable OpenEXR file into a packed RGBE image; the top-left
// pixel of the data window becomes pixel (0, 0). Alpha is ignored.
// Before the library reads the header, it is checked against the file's
// length (attribute sizes, chunk table, image and chunk sizes; see the
// source); a header that asks for more than the file can hold throws
// "Failed to read file '%s': ..." without allocating for it.
Image readExr(const std::string& path);

// Width and height of a .exr file's data window, after the same header checks
// as readExr, without reading its pixels.
std::pair<int32_t, int32_t> exrSize(const std::string& path);

// Strip conversions (OpenMP). rgbeToHalf writes width * height packed pixels
// (alpha set to 1); halfToRgbe reads width * height packed pixels into the view.
void rgbeToHalf(const ImageView& rgbe, Imf::Rgba* out);
void halfToRgbe(const Imf::Rgba* in, const MutableImageView& rgbe);
