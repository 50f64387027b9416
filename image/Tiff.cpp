#include "image/Tiff.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include <tiffio.h>

#include "image/FormatText.h"
#include "image/Rgbe.h"

namespace {

// Largest single allocation libtiff may make for one strip or tile.
constexpr tmsize_t kMaxTiffAllocation = tmsize_t(256) << 20;

// The first error libtiff reports for one file (its handler is per file, so
// readers on other threads never mix their messages).
struct ErrorText {
    char text[256] = "";
};

int onError(TIFF*, void* user, const char* module, const char* fmt, va_list args)
{
    ErrorText* error = static_cast<ErrorText*>(user);
    if (error->text[0] == '\0')
        std::vsnprintf(error->text, sizeof error->text, fmt, args);
    return 1;
}

int onWarning(TIFF*, void*, const char*, const char*, va_list) { return 1; }

struct CloseTiff {
    void operator()(TIFF* tif) const { TIFFClose(tif); }
};

class Reader {
public:
    explicit Reader(const std::string& path) : path_(path)
    {
        struct stat st;
        if (stat(path.c_str(), &st) != 0)
            throw std::runtime_error(formatText("Error opening file '%s' (with mode 'rb'): %s", path.c_str(),
                                                std::strerror(errno)));
        length_ = S_ISREG(st.st_mode) ? uint64_t(st.st_size) : 0;
        TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
        TIFFOpenOptionsSetMaxSingleMemAlloc(options, kMaxTiffAllocation);
        TIFFOpenOptionsSetErrorHandlerExtR(options, onError, &error_);
        TIFFOpenOptionsSetWarningHandlerExtR(options, onWarning, nullptr);
        tif_.reset(TIFFOpenExt(path.c_str(), "rm", options));
        TIFFOpenOptionsFree(options);
        if (!tif_)
            fail();

        uint32_t w = 0, h = 0;
        if (!TIFFGetField(tif_.get(), TIFFTAG_IMAGEWIDTH, &w) || !TIFFGetField(tif_.get(), TIFFTAG_IMAGELENGTH, &h) ||
            w == 0 || h == 0)
            fail("no image size");
        uint16_t planar = PLANARCONFIG_CONTIG, photometric = 0;
        TIFFGetFieldDefaulted(tif_.get(), TIFFTAG_SAMPLESPERPIXEL, &samples_);
        TIFFGetFieldDefaulted(tif_.get(), TIFFTAG_BITSPERSAMPLE, &bits_);
        TIFFGetFieldDefaulted(tif_.get(), TIFFTAG_SAMPLEFORMAT, &format_);
        TIFFGetFieldDefaulted(tif_.get(), TIFFTAG_PLANARCONFIG, &planar);
        if (!TIFFGetField(tif_.get(), TIFFTAG_PHOTOMETRIC, &photometric))
            photometric = samples_ >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
        const bool integer = format_ == SAMPLEFORMAT_UINT && (bits_ == 8 || bits_ == 16);
        const bool floating = format_ == SAMPLEFORMAT_IEEEFP && bits_ == 32;
        const bool colour = photometric == PHOTOMETRIC_RGB && samples_ >= 3;
        const bool grey = photometric == PHOTOMETRIC_MINISBLACK && samples_ >= 1;
        if (!(integer || floating) || !(colour || grey) || (samples_ > 1 && planar != PLANARCONFIG_CONTIG))
            fail(formatText("unsupported layout (%u samples of %u bits, sample format %u, photometric %u, "
                            "planar configuration %u): expected contiguous grey, RGB or RGBA samples of 8 or 16 "
                            "bits or 32-bit floats",
                            unsigned(samples_), unsigned(bits_), unsigned(format_), unsigned(photometric),
                            unsigned(planar)));
        info_.width = int32_t(std::min<uint32_t>(w, INT32_MAX));
        info_.height = int32_t(std::min<uint32_t>(h, INT32_MAX));
        info_.hdr = floating;
        const uint64_t pixels = uint64_t(w) * h;
        if (pixels > kMaxPicturePixels)
            fail(formatText("image of %ux%u pixels is too large", unsigned(w), unsigned(h)));
        const uint64_t stored = pixels * samples_ * (bits_ / 8);
        if (!decodedSizeFits(std::max<uint64_t>(stored, pixels * outChannels()), length_))
            fail(formatText("image of %ux%u pixels needs more data than the file's %llu bytes", unsigned(w),
                            unsigned(h), static_cast<unsigned long long>(length_)));

        uint32_t xmpLength = 0;
        const char* xmp = nullptr;
        if (TIFFGetField(tif_.get(), TIFFTAG_XMLPACKET, &xmpLength, &xmp) && xmp)
            info_.xmp.assign(xmp, xmpLength);
    }

    const PictureInfo& info() const { return info_; }

    Image decode()
    {
        Image out(info_.width, info_.height, outChannels());
        TIFF* tif = tif_.get();
        const size_t pixelBytes = size_t(samples_) * (bits_ / 8);
        if (TIFFIsTiled(tif)) {
            uint32_t tw = 0, th = 0;
            TIFFGetField(tif, TIFFTAG_TILEWIDTH, &tw);
            TIFFGetField(tif, TIFFTAG_TILELENGTH, &th);
            const tmsize_t tileSize = TIFFTileSize(tif);
            if (tw == 0 || th == 0 || tileSize <= 0 || uint64_t(tileSize) != uint64_t(tw) * th * pixelBytes)
                fail("bad tile size");
            // Edge tiles may reach past the image, but a tile may not ask for
            // more memory than the file can justify.
            if (tileSize > kMaxTiffAllocation || !decodedSizeFits(uint64_t(tileSize), length_))
                fail(formatText("tiles of %ux%u pixels are too large", unsigned(tw), unsigned(th)));
            std::vector<uint8_t> tile(size_t(tileSize), 0);
            for (uint32_t y = 0; y < uint32_t(info_.height); y += th)
                for (uint32_t x = 0; x < uint32_t(info_.width); x += tw) {
                    if (TIFFReadEncodedTile(tif, TIFFComputeTile(tif, x, y, 0, 0), tile.data(), tileSize) < 0)
                        fail();
                    const uint32_t rows = std::min(th, uint32_t(info_.height) - y);
                    const uint32_t columns = std::min(tw, uint32_t(info_.width) - x);
                    for (uint32_t r = 0; r < rows; ++r)
                        convert(tile.data() + size_t(r) * tw * pixelBytes, columns, out.pixel(int32_t(x), int32_t(y + r)));
                }
        } else {
            uint32_t rowsPerStrip = 0;
            TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &rowsPerStrip);
            rowsPerStrip = std::clamp<uint32_t>(rowsPerStrip, 1, uint32_t(info_.height));
            const size_t rowBytes = size_t(info_.width) * pixelBytes;
            if (uint64_t(rowBytes) * rowsPerStrip > uint64_t(kMaxTiffAllocation))
                fail("strips too large");
            std::vector<uint8_t> strip(rowBytes * rowsPerStrip, 0);
            for (uint32_t y = 0; y < uint32_t(info_.height); y += rowsPerStrip) {
                const uint32_t rows = std::min(rowsPerStrip, uint32_t(info_.height) - y);
                const tmsize_t want = tmsize_t(rowBytes * rows);
                if (TIFFReadEncodedStrip(tif, TIFFComputeStrip(tif, y, 0), strip.data(), want) != want)
                    fail();
                for (uint32_t r = 0; r < rows; ++r)
                    convert(strip.data() + r * rowBytes, uint32_t(info_.width), out.pixel(0, int32_t(y + r)));
            }
        }
        return out;
    }

private:
    int32_t outChannels() const { return info_.hdr ? 4 : bits_ == 16 ? kRgb16Channels : 3; }

    // `count` pixels of the file's samples (native byte order) to packed RGB,
    // 16-bit RGB or RGBE.
    void convert(const uint8_t* in, uint32_t count, uint8_t* out) const
    {
        const int colour = samples_ >= 3 ? 1 : 0;
        for (uint32_t i = 0; i < count; ++i, out += outChannels()) {
            if (bits_ == 8) {
                const uint8_t* p = in + size_t(i) * samples_;
                out[0] = p[0], out[1] = p[colour], out[2] = p[2 * colour];
            } else if (bits_ == 16) {
                for (int c = 0; c < 3; ++c)
                    std::memcpy(out + 2 * c, in + (size_t(i) * samples_ + size_t(c * colour)) * 2, 2);
            } else {
                float p[3];
                for (int c = 0; c < 3; ++c) {
                    std::memcpy(&p[c], in + (size_t(i) * samples_ + size_t(c * colour)) * 4, 4);
                    if (!(p[c] > 0.0f) || !std::isfinite(p[c]))
                        p[c] = 0.0f;
                }
                floatToRgbe(p[0], p[1], p[2], out);
            }
        }
    }

    [[noreturn]] void fail(const std::string& why = std::string()) const
    {
        const std::string text = !why.empty() ? why : error_.text[0] ? error_.text : "unreadable data";
        throw std::runtime_error(formatText("Error reading TIFF file '%s': %s", path_.c_str(), text.c_str()));
    }

    std::string path_;
    uint64_t length_ = 0;
    ErrorText error_;
    std::unique_ptr<TIFF, CloseTiff> tif_;
    PictureInfo info_;
    uint16_t samples_ = 1, bits_ = 1, format_ = SAMPLEFORMAT_UINT;
};

}  // namespace

PictureInfo readTiffInfo(const std::string& path) { return Reader(path).info(); }

Image readTiff(const std::string& path) { return Reader(path).decode(); }
