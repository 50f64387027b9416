#include "image/TileEncoding.h"

#include <stdexcept>

#include "image/Webp.h"

TileFormat parseTileFormat(const std::string& text)
{
    if (text == "jpg")
        return TileFormat::Jpeg;
    if (text == "webp")
        return TileFormat::Webp;
    throw std::invalid_argument("invalid tile format '" + text + "'");
}

void writeTile(const ImageView& rgb, const std::string& path, const TileEncoding& encoding)
{
    if (encoding.format == TileFormat::Webp)
        writeWebp(rgb, path, encoding.quality);
    else
        writeJpeg(rgb, path, {}, encoding.quality);
}
