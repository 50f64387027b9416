#pragma once
// Helpers shared by all test binaries: scratch folders, whole-file I/O,
// deterministic images, exception messages and child processes.
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "app/Options.h"
#include "image/ImageView.h"
#include "project/LensModel.h"

namespace support {

// A fresh empty folder, memory-backed where possible, removed with its
// contents by the destructor.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

std::string readFile(const std::string& path);  // "" when it cannot be read
void writeFile(const std::string& path, const std::string& bytes);
std::string sourcePath(const std::string& relative);  // tests/<relative> in the source tree
std::string binPath(const std::string& name);         // build/bin/<name>

// parseOptions over `args` (args[0] names the program).
ParseAction parseArgs(std::vector<std::string> args, JobOptions& options);

// The what() of the std::exception `f` throws, or "no error".
std::string errorOf(const std::function<void()>& f);

// RGBE image like a panorama: smooth gradients (long runs once encoded),
// noisy patches and a few black pixels, exponents in [eMin, eMax].
Image makeRgbeImage(int32_t w, int32_t h, uint32_t seed, int eMin = 112, int eMax = 144);
bool samePixels(const ImageView& a, const ImageView& b, int channels);
// Largest and mean difference of the decoded values of two RGBE images,
// relative to the brightest channel of each pixel of `a`; 1e9 for different sizes.
std::pair<double, double> rgbeError(const ImageView& a, const ImageView& b);

// Pictures written by the libraries themselves, for the readers' round
// trips. `samples` holds w * h * channels values, rows top first: 0..255 or
// 0..65535 integers for 8 or 16 bits, any float for floating-point TIFF.
// The PNG gets `xmp`, when given, as its "XML:com.adobe.xmp" iTXt chunk.
void writePngFile(const std::string& path, int w, int h, int channels, int bits, const std::vector<float>& samples,
                  const std::string& xmp = "");
struct TiffLayout {
    int channels = 3;
    int bits = 8;               // 8, 16 or 32 (floating point)
    int tile = 0;               // tile side (a multiple of 16), 0 for strips
    int compression = 1;        // COMPRESSION_*
    int rowsPerStrip = 3;
};
void writeTiffFile(const std::string& path, int w, int h, const TiffLayout& layout, const std::vector<float>& samples);

// The lens reference vectors (tests/data/lens): camera setup, source pixel
// and direction.
struct LensRow {
    std::string camera;
    LensModel lens;
    double x = 0, y = 0, lon = 0, lat = 0;
};
std::vector<LensRow> lensVectors();

struct RunResult {
    int status = -1;  // exit status 0..255; -1 when killed by a signal
    std::string out, err;
};

// Runs args[0] with DISPLAY removed and `env` ("NAME=value") added, stdin
// from /dev/null. Fails the current test when it cannot be started.
RunResult runProgram(const std::vector<std::string>& args, const std::vector<std::string>& env = {});
RunResult runRenderer(const std::vector<std::string>& args, const std::vector<std::string>& env = {});

// Processes named `comm` whose parent is this process (a child subreaper, so
// leftovers of finished children count); they are killed and reaped.
std::vector<int> takeOrphansNamed(const std::string& comm);

int countLinesWith(const std::string& text, const std::string& needle);
int countMatches(const std::string& text, const std::string& regex);

// The renderer's failure contract: status 255, exactly one "Error (" line,
// which is the last line of standard error and contains `messagePart`, and no
// private X server left behind.
void expectCleanFailure(const RunResult& r, const std::string& messagePart);

}  // namespace support
