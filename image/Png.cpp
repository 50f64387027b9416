#include "image/Png.h"

#include <sys/stat.h>

#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include <png.h>

#include "image/FormatText.h"
#include "image/Jpeg.h"

namespace {

// libpng reports errors through a callback that must not return. Ours keeps
// the message and longjmps back into the function that called the library;
// functions holding a setjmp keep only trivially destructible locals, so no
// destructor is skipped.
struct PngReader {
    png_structp png = nullptr;
    png_infop info = nullptr;
    char message[256] = "";
};

void onError(png_structp png, png_const_charp text)
{
    PngReader* reader = static_cast<PngReader*>(png_get_error_ptr(png));
    std::snprintf(reader->message, sizeof reader->message, "%s", text);
    png_longjmp(png, 1);
}

void onWarning(png_structp, png_const_charp) {}

struct PngHead {
    png_uint_32 width = 0, height = 0;
    int bitDepth = 0, colourType = 0;
    const char* xmp = nullptr;  // inside the info struct
    size_t xmpLength = 0;
};

bool readHead(PngReader* r, FILE* file, PngHead* head)
{
    if (setjmp(png_jmpbuf(r->png)))
        return false;
    png_init_io(r->png, file);
    // Text chunks are inflated by the library: bound what one may claim.
    png_set_chunk_malloc_max(r->png, 1 << 20);
    png_read_info(r->png, r->info);
    int interlace = 0;
    png_get_IHDR(r->png, r->info, &head->width, &head->height, &head->bitDepth, &head->colourType, &interlace,
                 nullptr, nullptr);
    png_textp texts = nullptr;
    const int count = png_get_text(r->png, r->info, &texts, nullptr);
    for (int i = 0; i < count; ++i)
        if (std::strcmp(texts[i].key, "XML:com.adobe.xmp") == 0) {
            head->xmp = texts[i].text;
            head->xmpLength = texts[i].compression >= PNG_ITXT_COMPRESSION_NONE ? texts[i].itxt_length
                                                                                : texts[i].text_length;
        }
    return true;
}

// Decodes every row into `rgb` (packed, 3 bytes a pixel, or kRgb16Channels
// in native byte order for 16-bit samples), pass by pass for an interlaced
// file, then reads the chunks after the image data so that a file cut short
// or with a damaged chunk fails.
bool decodeRows(PngReader* r, const MutableImageView* rgb)
{
    if (setjmp(png_jmpbuf(r->png)))
        return false;
    png_set_expand(r->png);
    if (rgb->channels() == kRgb16Channels) {
        const uint16_t one = 1;
        if (*reinterpret_cast<const uint8_t*>(&one) == 1)
            png_set_swap(r->png);  // PNG stores big-endian samples
    }
    png_set_strip_alpha(r->png);
    png_set_gray_to_rgb(r->png);
    const int passes = png_set_interlace_handling(r->png);
    png_read_update_info(r->png, r->info);
    if (png_get_rowbytes(r->png, r->info) != size_t(rgb->width()) * size_t(rgb->channels()))
        png_error(r->png, "unexpected row layout after conversion to RGB");
    for (int pass = 0; pass < passes; ++pass)
        for (int32_t y = 0; y < rgb->height(); ++y)
            png_read_row(r->png, rgb->row(y), nullptr);
    png_read_end(r->png, nullptr);
    return true;
}

class Reader {
public:
    explicit Reader(const std::string& path) : path_(path), file_(openFile(path, "rb"))
    {
        struct stat st;
        length_ = fstat(fileno(file_.get()), &st) == 0 && S_ISREG(st.st_mode) ? uint64_t(st.st_size) : 0;
        r_.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, static_cast<PngReader*>(&r_), onError, onWarning);
        if (r_.png)
            r_.info = png_create_info_struct(r_.png);
        if (!r_.info)
            fail("out of memory");
        if (!readHead(&r_, file_.get(), &head_))
            fail(r_.message);
        const uint64_t pixels = uint64_t(head_.width) * head_.height;
        if (pixels > kMaxPicturePixels)
            fail(formatText("image of %ux%u pixels is too large", unsigned(head_.width), unsigned(head_.height)));
        if (!decodedSizeFits(3 * pixels, length_))
            fail(formatText("image of %ux%u pixels needs more data than the file's %llu bytes", unsigned(head_.width),
                            unsigned(head_.height), static_cast<unsigned long long>(length_)));
    }

    PictureInfo info() const
    {
        PictureInfo info;
        info.width = int32_t(head_.width);
        info.height = int32_t(head_.height);
        if (head_.xmp)
            info.xmp.assign(head_.xmp, head_.xmpLength);
        return info;
    }

    Image decode()
    {
        Image rgb(int32_t(head_.width), int32_t(head_.height), head_.bitDepth == 16 ? kRgb16Channels : 3);
        const MutableImageView view = rgb.mutableView();
        if (!decodeRows(&r_, &view))
            fail(r_.message);
        return rgb;
    }

private:
    [[noreturn]] void fail(const std::string& why) const
    {
        throw std::runtime_error(formatText("Error reading PNG file '%s': %s", path_.c_str(), why.c_str()));
    }

    struct Close {
        void operator()(FILE* f) const { std::fclose(f); }
    };
    // The library's structures, released whether or not the constructor ends.
    struct Structs : PngReader {
        Structs() = default;
        Structs(const Structs&) = delete;
        Structs& operator=(const Structs&) = delete;
        ~Structs() { png_destroy_read_struct(&png, &info, nullptr); }
    };

    std::string path_;
    std::unique_ptr<FILE, Close> file_;
    uint64_t length_ = 0;
    Structs r_;
    PngHead head_;
};

}  // namespace

PictureInfo readPngInfo(const std::string& path) { return Reader(path).info(); }

Image readPng(const std::string& path) { return Reader(path).decode(); }
