#include "image/Jpeg.h"

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstring>
#include <utility>
#include <memory>
#include <stdexcept>
#include <vector>

#include <sys/stat.h>

#include <jerror.h>
#include <jpeglib.h>

#include "image/FormatText.h"
#include "image/OutputFile.h"

namespace {

// libjpeg's default error_exit calls exit(). Ours formats the message and
// longjmps back into the function that called the library; that function
// then reports failure and its C++ caller throws. Functions holding a setjmp
// keep only trivially destructible locals, since longjmp skips destructors.
struct ErrorManager {
    jpeg_error_mgr pub;
    void (*defaultEmitMessage)(j_common_ptr, int);
    jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
};

void errorExit(j_common_ptr cinfo)
{
    ErrorManager* err = reinterpret_cast<ErrorManager*>(cinfo->err);
    (*cinfo->err->format_message)(cinfo, err->message);
    std::longjmp(err->jump, 1);
}

// A file cut short only raises a warning (libjpeg pads the data with an EOI
// marker and the rest of the image comes out grey). Treat it as an error so a
// truncated photograph is never used; other warnings keep libjpeg's handling.
void emitMessage(j_common_ptr cinfo, int level)
{
    if (level < 0 && cinfo->err->msg_code == JWRN_JPEG_EOF)
        errorExit(cinfo);
    ErrorManager* err = reinterpret_cast<ErrorManager*>(cinfo->err);
    err->defaultEmitMessage(cinfo, level);
}

void setupErrorManager(ErrorManager& err)
{
    jpeg_std_error(&err.pub);
    err.pub.error_exit = errorExit;
    err.defaultEmitMessage = err.pub.emit_message;
    err.pub.emit_message = emitMessage;
    err.message[0] = '\0';
}

// Limit on libjpeg's working memory (coefficient buffers of progressive
// files); beyond it the library fails with its own message instead of
// allocating whatever a corrupt header declares.
constexpr long kMaxJpegWorkingMemory = 2L << 30;

bool readJpegHeader(jpeg_decompress_struct* cinfo, ErrorManager* err, FILE* file, bool* created, int eighths,
                    bool rgba, bool keepApp1)
{
    if (setjmp(err->jump))
        return false;
    jpeg_create_decompress(cinfo);
    *created = true;
    cinfo->mem->max_memory_to_use = kMaxJpegWorkingMemory;
    jpeg_stdio_src(cinfo, file);
    if (keepApp1)
        jpeg_save_markers(cinfo, JPEG_APP0 + 1, 0xFFFF);
    jpeg_read_header(cinfo, TRUE);
    // The smallest of libjpeg's DCT scalings from M/8 up that shrinks the
    // image to whole pixels, so that every output pixel stands for the same
    // area of the source and the grid stays aligned with it.
    for (unsigned m = unsigned(std::max(eighths, 1)); m < 8; ++m)
        if (cinfo->image_width * m % 8 == 0 && cinfo->image_height * m % 8 == 0) {
            cinfo->scale_num = m;
            cinfo->scale_denom = 8;
            break;
        }
    // libjpeg-turbo's colour converter writes the fourth byte itself (255);
    // other colour spaces stay as they are and are refused as before.
    if (rgba && cinfo->out_color_space == JCS_RGB)
        cinfo->out_color_space = JCS_EXT_RGBA;
    jpeg_calc_output_dimensions(cinfo);
    return true;
}

// A frame must be one the file can hold. Every 8 x 8 block of every
// component costs at least one bit of entropy-coded data: a Huffman code is
// one bit or longer, and each block needs at least its DC code (baseline and
// sequential files also an end-of-block code; progressive files send the DC
// of every block in their first scan and may skip the AC scans with runs of
// end-of-block codes). So a file of L bytes holds at most 8 L blocks in all
// components together, i.e. at most 512 L pixels of a one-component plane
// and fewer with colour. libjpeg does not check this itself: where the data
// ends early it pads the rest of the frame with zeros and carries on, so a
// few hundred bytes could declare a frame of gigabytes. An arithmetic-coded
// frame can code a flat block in a fraction of a bit; it is held to the same
// rule, which photographs exceed many times over. Unusual sampling factors
// make a block stand for more pixels, so the decoded RGB bytes are also held
// to decodedSizeFits. And a frame may not decode to more than
// kMaxPicturePixels pixels, whatever its length.

// Empty when the frame fits, else the reason it does not. `fileLength` is 0
// when unknown (not a regular file): then only the pixel limit applies.
std::string frameProblem(const jpeg_decompress_struct& cinfo, uint64_t fileLength)
{
    uint64_t blocks = 0;
    for (int c = 0; c < cinfo.num_components; ++c)
        blocks += uint64_t(cinfo.comp_info[c].width_in_blocks) * cinfo.comp_info[c].height_in_blocks;
    const uint64_t decoded = uint64_t(cinfo.output_width) * cinfo.output_height * 3;
    if (fileLength > 0 && (blocks > 8 * fileLength || !decodedSizeFits(decoded, fileLength)))
        return formatText("frame of %ux%u pixels needs more data than the file's %llu bytes", cinfo.image_width,
                          cinfo.image_height, static_cast<unsigned long long>(fileLength));
    if (uint64_t(cinfo.output_width) * cinfo.output_height > kMaxPicturePixels)
        return formatText("frame of %ux%u pixels is too large", cinfo.output_width, cinfo.output_height);
    return std::string();
}

// Decodes the rows [firstRow, firstRow + image->height()) into `image` and
// skips the others. The last row is always decoded (into `scratch`, one row,
// when it is not wanted): libjpeg skips to the end of the frame without
// reading the data, which would hide a file cut short.
bool decodeJpegRows(jpeg_decompress_struct* cinfo, ErrorManager* err, const MutableImageView* image,
                    JDIMENSION firstRow, JSAMPROW scratch)
{
    if (setjmp(err->jump))
        return false;
    jpeg_start_decompress(cinfo);
    if (firstRow > 0)
        jpeg_skip_scanlines(cinfo, firstRow);
    const JDIMENSION end = firstRow + JDIMENSION(image->height());
    while (cinfo->output_scanline < end) {
        JSAMPROW row = image->row(int32_t(cinfo->output_scanline - firstRow));
        jpeg_read_scanlines(cinfo, &row, 1);
    }
    if (cinfo->output_scanline + 1 < cinfo->output_height)
        jpeg_skip_scanlines(cinfo, cinfo->output_height - 1 - cinfo->output_scanline);
    if (cinfo->output_scanline < cinfo->output_height)
        jpeg_read_scanlines(cinfo, &scratch, 1);
    jpeg_finish_decompress(cinfo);
    return true;
}

// Decodes every row, `band->height()` at a time into `band`, handing each
// band to `use` with its first row.
bool decodeJpegBands(jpeg_decompress_struct* cinfo, ErrorManager* err, const MutableImageView* band,
                     const JpegBandUse* use)
{
    if (setjmp(err->jump))
        return false;
    jpeg_start_decompress(cinfo);
    while (cinfo->output_scanline < cinfo->output_height) {
        const JDIMENSION first = cinfo->output_scanline;
        const JDIMENSION rows = std::min(cinfo->output_height - first, JDIMENSION(band->height()));
        while (cinfo->output_scanline < first + rows) {
            JSAMPROW row = band->row(int32_t(cinfo->output_scanline - first));
            jpeg_read_scanlines(cinfo, &row, 1);
        }
        (*use)(band->subView(0, 0, band->width(), int32_t(rows)), int32_t(first));
    }
    jpeg_finish_decompress(cinfo);
    return true;
}

struct RowSource {
    const ImageView* view;
    // One packed RGB row: libjpeg takes rows through non-const pointers, so
    // every row goes through this copy instead of being handed over in place.
    uint8_t* scratch;
    const std::vector<JpegMarker>* markers;
    int quality;
};

bool encodeJpeg(jpeg_compress_struct* cinfo, ErrorManager* err, FILE* file, const RowSource* src, bool* created)
{
    if (setjmp(err->jump))
        return false;
    jpeg_create_compress(cinfo);
    *created = true;
    jpeg_stdio_dest(cinfo, file);
    const ImageView& v = *src->view;
    cinfo->image_width = JDIMENSION(v.width());
    cinfo->image_height = JDIMENSION(v.height());
    cinfo->input_components = 3;
    cinfo->in_color_space = JCS_RGB;
    jpeg_set_defaults(cinfo);
    jpeg_set_quality(cinfo, src->quality, TRUE);
    jpeg_start_compress(cinfo, TRUE);
    for (const JpegMarker& m : *src->markers)
        jpeg_write_marker(cinfo, m.code, reinterpret_cast<const JOCTET*>(m.payload.data()),
                          unsigned(m.payload.size()));
    const int32_t step = v.channels();
    JSAMPROW row = src->scratch;
    for (int32_t y = 0; y < v.height(); ++y) {
        const uint8_t* p = v.row(y);
        if (step == 3) {
            std::memcpy(row, p, 3 * size_t(v.width()));
        } else {
            for (int32_t x = 0; x < v.width(); ++x, p += step)
                std::memcpy(row + 3 * size_t(x), p, 3);
        }
        jpeg_write_scanlines(cinfo, &row, 1);
    }
    jpeg_finish_compress(cinfo);
    return true;
}

struct FileCloser {
    void operator()(FILE* f) const
    {
        if (f && f != stdout)
            std::fclose(f);
    }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

FILE* openFileNamed(const std::string& path, const char* mode, const std::string& shownName)
{
    if (path == "-")
        return stdout;  // binary mode is the only mode on this platform
    FILE* f = std::fopen(path.c_str(), mode);
    if (!f)
        throw std::runtime_error(formatText("Error opening file '%s' (with mode '%s'): %s", shownName.c_str(),
                                            mode, std::strerror(errno)));
    return f;
}

void writeJpegTo(FILE* file, const ImageView& rgb, const std::string& path, const std::vector<JpegMarker>& markers,
                 int quality)
{
    if (rgb.width() <= 0 || rgb.height() <= 0 || rgb.width() > JPEG_MAX_DIMENSION || rgb.height() > JPEG_MAX_DIMENSION)
        throw std::runtime_error(formatText("Error writing JPEG file '%s': unsupported image size %dx%d",
                                            path.c_str(), rgb.width(), rgb.height()));
    if (rgb.channels() < 3)
        throw std::runtime_error(formatText("Error writing JPEG file '%s': pixels are not RGB", path.c_str()));
    std::vector<uint8_t> scratch(size_t(rgb.width()) * 3);
    for (const JpegMarker& m : markers)
        if (m.payload.size() > 65533)
            throw std::runtime_error(formatText("Error writing JPEG file '%s': a metadata segment of %zu bytes "
                                                "does not fit in one marker",
                                                path.c_str(), m.payload.size()));
    RowSource src{&rgb, scratch.data(), &markers, quality};

    jpeg_compress_struct cinfo;
    ErrorManager err;
    setupErrorManager(err);
    cinfo.err = &err.pub;
    bool created = false;
    const bool ok = encodeJpeg(&cinfo, &err, file, &src, &created);
    if (created)
        jpeg_destroy_compress(&cinfo);
    if (!ok)
        throw std::runtime_error(formatText("Error writing JPEG file '%s': %s", path.c_str(), err.message));
}

}  // namespace

FILE* openFile(const std::string& path, const char* mode)
{
    return openFileNamed(path, mode, path);
}

namespace {

// The standard XMP segment: this namespace URI and a zero byte, then the packet.
const char kXmpSignature[] = "http://ns.adobe.com/xap/1.0/";

// The orientation (tag 0x0112) in IFD0 of an APP1 Exif segment's payload; 1
// when the segment holds none or a value outside 1 to 8.
int exifOrientation(const uint8_t* data, size_t size)
{
    static const char kExif[6] = {'E', 'x', 'i', 'f', 0, 0};
    if (size < 6 + 8 || std::memcmp(data, kExif, 6) != 0)
        return 1;
    const uint8_t* tiff = data + 6;
    const size_t length = size - 6;
    const bool big = tiff[0] == 'M' && tiff[1] == 'M';
    if (!big && !(tiff[0] == 'I' && tiff[1] == 'I'))
        return 1;
    const auto u16 = [&](size_t at) { return big ? tiff[at] << 8 | tiff[at + 1] : tiff[at + 1] << 8 | tiff[at]; };
    const auto u32 = [&](size_t at) {
        return big ? uint32_t(u16(at)) << 16 | uint32_t(u16(at + 2)) : uint32_t(u16(at + 2)) << 16 | uint32_t(u16(at));
    };
    const uint32_t ifd = u32(4);
    if (u16(2) != 42 || ifd > length - 2)
        return 1;
    const size_t entries = size_t(u16(ifd));
    for (size_t i = 0; i < entries && ifd + 2 + 12 * (i + 1) <= length; ++i) {
        const size_t entry = ifd + 2 + 12 * i;
        if (u16(entry) == 0x0112 && u16(entry + 2) == 3) {  // SHORT
            const int value = u16(entry + 8);
            return value >= 1 && value <= 8 ? value : 1;
        }
    }
    return 1;
}

// Decodes the rows `choose` asks for (all without it). With `info` it reads
// the header only: the frame's size and its XMP packet go there and no row is
// decoded.
JpegRows decodeJpeg(FILE* file, uint64_t fileLength, const std::string& path, int eighths,
                    const JpegRowChoice& choose, bool rgba, PictureInfo* info = nullptr,
                    const JpegBandUse* bands = nullptr)
{
    jpeg_decompress_struct cinfo;
    ErrorManager err;
    setupErrorManager(err);
    cinfo.err = &err.pub;
    bool created = false;
    struct Destroy {
        jpeg_decompress_struct* cinfo;
        const bool* created;
        ~Destroy()
        {
            if (*created)
                jpeg_destroy_decompress(cinfo);
        }
    } destroy{&cinfo, &created};

    if (!readJpegHeader(&cinfo, &err, file, &created, eighths, rgba, info != nullptr))
        throw std::runtime_error(formatText("Error reading JPEG file '%s': %s", path.c_str(), err.message));
    // A CMYK file has four components too; only RGB made RGBA passes.
    const int channels = rgba ? 4 : 3;
    if (cinfo.output_components != channels || (rgba && cinfo.out_color_space != JCS_EXT_RGBA))
        throw std::runtime_error("can not open JPEG with color format other than RGB");
    JpegRows result;
    result.eighths = int(8 * cinfo.scale_num / cinfo.scale_denom);
    const std::string problem = frameProblem(cinfo, fileLength);
    if (!problem.empty())
        throw std::runtime_error(formatText("Error reading JPEG file '%s': %s", path.c_str(), problem.c_str()));
    result.width = int32_t(cinfo.output_width);
    result.height = int32_t(cinfo.output_height);
    if (info) {
        info->width = result.width;
        info->height = result.height;
        for (jpeg_saved_marker_ptr m = cinfo.marker_list; m; m = m->next) {
            if (m->data_length > sizeof kXmpSignature &&
                std::memcmp(m->data, kXmpSignature, sizeof kXmpSignature) == 0)
                info->xmp.assign(reinterpret_cast<const char*>(m->data) + sizeof kXmpSignature,
                                 m->data_length - sizeof kXmpSignature);
            else if (info->orientation == 1)
                info->orientation = exifOrientation(m->data, m->data_length);
        }
        if (info->orientation >= 5)
            std::swap(info->width, info->height);
        return result;
    }
    if (bands) {
        Image band(result.width, std::min(result.height, kJpegBandRows), channels);
        const MutableImageView view = band.mutableView();
        if (!decodeJpegBands(&cinfo, &err, &view, bands))
            throw std::runtime_error(formatText("Error reading JPEG file '%s': %s", path.c_str(), err.message));
        return result;
    }
    int32_t first = 0, end = result.height;
    if (choose) {
        const std::pair<int32_t, int32_t> rows = choose(result.width, result.height, result.eighths);
        first = std::clamp(rows.first, 0, result.height - 1);
        end = std::clamp(rows.second, first + 1, result.height);
    }
    result.firstRow = first;
    // Image checks the size against the allocation limit itself.
    result.rows = Image(result.width, end - first, channels);
    const MutableImageView pixels = result.rows.mutableView();
    std::vector<JSAMPLE> scratch(size_t(result.width) * size_t(channels));
    if (!decodeJpegRows(&cinfo, &err, &pixels, JDIMENSION(first), scratch.data()))
        throw std::runtime_error(formatText("Error reading JPEG file '%s': %s", path.c_str(), err.message));
    return result;
}

FILE* openJpeg(const std::string& path, uint64_t* length)
{
    FILE* file = openFile(path, "rb");
    struct stat st;
    const bool regular = fstat(fileno(file), &st) == 0 && S_ISREG(st.st_mode);
    *length = regular ? uint64_t(st.st_size) : 0;
    return file;
}

}  // namespace

Image readJpeg(const std::string& path, int eighths, int* decodedEighths)
{
    uint64_t length = 0;
    FilePtr file(openJpeg(path, &length));
    return readJpeg(file.get(), length, path, eighths, decodedEighths);
}

Image readJpeg(FILE* file, uint64_t fileLength, const std::string& path, int eighths, int* decodedEighths)
{
    JpegRows decoded = decodeJpeg(file, fileLength, path, eighths, nullptr, false);
    if (decodedEighths)
        *decodedEighths = decoded.eighths;
    return std::move(decoded.rows);
}

PictureInfo readJpegInfo(const std::string& path)
{
    uint64_t length = 0;
    FilePtr file(openJpeg(path, &length));
    PictureInfo info;
    decodeJpeg(file.get(), length, path, 8, nullptr, false, &info);
    return info;
}

void readJpegBands(const std::string& path, const JpegBandUse& use)
{
    uint64_t length = 0;
    FilePtr file(openJpeg(path, &length));
    decodeJpeg(file.get(), length, path, 8, nullptr, false, nullptr, &use);
}

JpegRows readJpegRows(const std::string& path, int eighths, const JpegRowChoice& choose, bool rgba)
{
    uint64_t length = 0;
    FilePtr file(openJpeg(path, &length));
    return decodeJpeg(file.get(), length, path, eighths, choose, rgba);
}

void writeJpeg(const ImageView& rgb, const std::string& path, const std::vector<JpegMarker>& markers, int quality)
{
    if (path == "-") {
        writeJpegTo(stdout, rgb, path, markers, quality);
        if (std::fflush(stdout) != 0)
            throw std::runtime_error(
                formatText("Error writing JPEG file '%s': %s", path.c_str(), std::strerror(errno)));
        return;
    }
    AtomicOutputFile out(path);
    FilePtr file(openFileNamed(out.tempPath(), "wb", path));
    writeJpegTo(file.get(), rgb, path, markers, quality);
    FILE* f = file.release();
    const bool failed = std::ferror(f) != 0;
    if (std::fclose(f) != 0 || failed)
        throw std::runtime_error(formatText("Error writing JPEG file '%s': %s", path.c_str(), std::strerror(errno)));
    out.commit();
}

JpegMarker photoSphereXmp(int width, int height)
{
    std::string xmp(kXmpSignature, sizeof kXmpSignature);
    xmp += formatText(
        "<?xpacket begin=\"\xEF\xBB\xBF\" id=\"W5M0MpCehiHzreSzNTczkc9d\"?>\n"
        "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\">\n"
        " <rdf:RDF xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\">\n"
        "  <rdf:Description rdf:about=\"\" xmlns:GPano=\"http://ns.google.com/photos/1.0/panorama/\">\n"
        "   <GPano:ProjectionType>equirectangular</GPano:ProjectionType>\n"
        "   <GPano:UsePanoramaViewer>True</GPano:UsePanoramaViewer>\n"
        "   <GPano:CroppedAreaImageWidthPixels>%d</GPano:CroppedAreaImageWidthPixels>\n"
        "   <GPano:CroppedAreaImageHeightPixels>%d</GPano:CroppedAreaImageHeightPixels>\n"
        "   <GPano:FullPanoWidthPixels>%d</GPano:FullPanoWidthPixels>\n"
        "   <GPano:FullPanoHeightPixels>%d</GPano:FullPanoHeightPixels>\n"
        "   <GPano:CroppedAreaLeftPixels>0</GPano:CroppedAreaLeftPixels>\n"
        "   <GPano:CroppedAreaTopPixels>0</GPano:CroppedAreaTopPixels>\n"
        "   <GPano:PosePitchDegrees>0</GPano:PosePitchDegrees>\n"
        "   <GPano:PoseRollDegrees>0</GPano:PoseRollDegrees>\n"
        "  </rdf:Description>\n"
        " </rdf:RDF>\n"
        "</x:xmpmeta>\n"
        "<?xpacket end=\"r\"?>",
        width, height, width, height);
    return {JPEG_APP0 + 1, xmp};
}
