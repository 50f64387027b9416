#pragma once
// The file format of cube faces and pyramid tiles: JPEG (the default, at the
// quality of every other JPEG) or lossy WebP.
#include <string>

#include "image/ImageView.h"
#include "image/Jpeg.h"

enum class TileFormat { Jpeg, Webp };

struct TileEncoding {
    TileFormat format = TileFormat::Jpeg;
    int quality = kJpegQuality;  // 1 to 100

    // The file name extension without its dot: "jpg" or "webp".
    const char* extension() const { return format == TileFormat::Webp ? "webp" : "jpg"; }
};

// "jpg" or "webp"; throws std::invalid_argument "invalid tile format '%s'" for anything else.
TileFormat parseTileFormat(const std::string& text);

// Writes the 8-bit RGB view to `path` in `encoding`.
void writeTile(const ImageView& rgb, const std::string& path, const TileEncoding& encoding);
