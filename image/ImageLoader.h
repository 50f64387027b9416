#pragma once
// Turns a source picture into a GPU texture, choosing the decoder by the file
// name's extension (lower-cased, dispatched through optionHash):
//   "jpg", "jpeg"  JPEG decoded in-process          -> GL_RGB8
//   "cr2"          camera raw: its embedded JPEG preview, extracted by `dcraw`
//                  and decoded at 1/8 size by `djpeg` -> GL_RGB8
//   "hdr"          Radiance RGBE, bytes unchanged   -> GL_RGBA8 (texIsRGBE), with
//                  the exposure figures (2^mean, 2^min, 2^max exponent) filled in
// Anything else throws "failed to open file '<path>': unsupported file type".
// Needs a current GL context; failures are std::runtime_error (opengl_error
// for GPU limits).
#include <functional>
#include <future>
#include <string>

#include "image/ExponentStats.h"
#include "image/ImageView.h"
#include "image/Jpeg.h"
#include "libglutil/Texture.h"

// `eighths` below 8 lets a JPEG be decoded at that many eighths of its size
// (see readJpeg), and a Radiance image be shrunk right after decoding to 1/2,
// 1/4 or 1/8 of its size, the largest factor up to 8 / eighths that divides
// its sides, each pixel the mean of a block (the same pixel grid as a JPEG
// decoded at that scale); `decodedEighths`, when given, receives the scale
// used (8 for full size and for camera raw files).
Texture loadImage(const std::string& path, int eighths = 8, int* decodedEighths = nullptr);

// A source image on its way to the GPU, for callers that have other work to
// do meanwhile: the file is decoded into memory on a worker thread (JPEG and
// Radiance, whose decoders need no GL context; other types are decoded by
// take() itself), and take() uploads it on the calling thread, which owns the
// context. take() prints what loadImage prints (the "[T]" lines of a Radiance
// source, timing what take() waited for, and its statistics line) and throws
// what loadImage throws. Destroying a pending image waits for its decoder.
class PendingImage {
public:
    struct Decoded {
        // Rows [firstRow, firstRow + pixels.height()): packed RGB (RGBA with a
        // Process step), or RGBE for a Radiance file.
        Image pixels;
        int32_t firstRow = 0;
        int32_t width = 0, height = 0;  // the decoded image's size
        int eighths = 8;
        // Radiance: the file's size and exponent statistics (the loader's
        // line tells of the file, whatever size it was decoded at).
        int fileWidth = 0, fileHeight = 0;
        ExponentStats stats;
        // Set by a Process step that made the pixels ready to draw: take()
        // uploads only the pixels [x0, x1) x [y0, y1) of the image (within
        // the rows held), into a GL_RGBA8 texture (alpha 1).
        bool ready = false;
        int32_t x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    };
    // Work on a decoded JPEG before it is uploaded, done on the decoding
    // thread (see Decoded::ready). With one, a JPEG is decoded to RGBA
    // (alpha 255), the layout of the texture its result goes to.
    using Process = std::function<void(Decoded&)>;

    PendingImage() = default;
    // Starts decoding `path`; `eighths` as for loadImage. Without
    // `inBackground` everything happens in take(). `rows`, when given, is
    // asked on the decoding thread (with the decoded size and scale) which
    // rows of a JPEG the caller will read: only those are decoded (see
    // readJpegRows) and uploaded, the texture's other rows are left
    // undefined. Other types are decoded and uploaded whole.
    PendingImage(const std::string& path, int eighths, bool inBackground = true, JpegRowChoice rows = {},
                 Process process = {});
    PendingImage(PendingImage&&) = default;
    PendingImage& operator=(PendingImage&&) = default;

    bool pending() const { return decoded_.valid(); }
    // Waits until the file is decoded (not for the Process step) and throws
    // what decoding threw; returns at once when decoding is left to take().
    void waitDecoded();
    // Once, on the thread that owns the GL context. `reuse`, a texture this
    // loader made before, is filled instead of making a new one when it has
    // the decoded size and format (saving the allocation), else released.
    Texture take(int* decodedEighths = nullptr, Texture reuse = Texture());

private:
    bool radiance_ = false;
    std::future<void> decodedSignal_;
    std::future<Decoded> decoded_;
};

// Throws now what loadImage(path) would throw for a file it certainly cannot
// load: an unsupported file type, or a JPEG file that cannot be opened. Lets
// a job refuse a bad logo before its long stitching instead of after it.
void checkLoadable(const std::string& path);

// Runs `dcraw -e -c <path> | djpeg -fast -ppm -scale 1/8` (two processes joined
// by a pipe, no shell: the path reaches dcraw as one argument whatever it
// contains, a relative one prefixed with "./" so that it never reads as an
// option) and reads the binary PPM that djpeg prints: "P6\n<w> <h>\n255\n"
// then w * h * 3 bytes. Throws "Failed to parse PNM file header.",
// "PNM file has wrong max value: <n>", "Failed to read PNM file data: <got> !=
// <expected> -> <eof>", or "Error opening/executing '<command>': <reason>" when
// the processes cannot be set up. A tool that is missing or cannot run leaves
// the pipe empty (the header message).
Image readRawPreview(const std::string& path);

// `name` in the directory of the running executable if an executable file is
// there, else the first executable of that name on PATH, else the path beside
// the executable (which then fails to start).
std::string toolPath(const std::string& name);

// Uploads an 8-bit RGB image as a GL_RGB8 texture, or a 16-bit one
// (kRgb16Channels) as GL_RGB16, filtered by the hardware (split in two pieces
// when wider than the GPU allows).
Texture uploadRgb(const ImageView& rgb);

// The same texture from a JPEG file of width x height pixels, decoded band by
// band straight into it (readJpegBands): no copy of the image is held in
// memory. Throws what readJpeg throws, and for a file of another size.
Texture loadRgbJpeg(const std::string& path, int32_t width, int32_t height);

// Uploads an RGBE image as a GL_RGBA8 texture after printing its exponent
// statistics line and storing 2^mean, 2^min and 2^max in the texture.
Texture uploadRgbe(const ImageView& rgbe);
