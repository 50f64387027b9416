#pragma once
// Helpers shared by the image format tests: a scratch directory, whole-file
// I/O and deterministic RGBE content.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "image/ImageView.h"

namespace testutil {

class TempDir {
public:
    TempDir()
    {
        // Memory-backed when available: the damage tests write thousands of small files.
        std::error_code ec;
        const std::filesystem::path base = !std::getenv("TMPDIR") && std::filesystem::is_directory("/dev/shm", ec)
                                               ? std::filesystem::path("/dev/shm")
                                               : std::filesystem::temp_directory_path();
        std::string tmpl = (base / "tessara-test-XXXXXX").string();
        path_ = ::mkdtemp(&tmpl[0]) ? tmpl : std::string();
    }
    ~TempDir()
    {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

inline std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

inline void writeFile(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), std::streamsize(bytes.size()));
}

// RGBE image with content like a panorama: smooth gradients (long runs after
// encoding) broken by noisy patches and a few black pixels, exponents between
// eMin and eMax.
inline Image makeRgbeImage(int32_t w, int32_t h, uint32_t seed, int eMin = 112, int eMax = 144)
{
    Image img(w, h, 4);
    std::mt19937 rng(seed);
    for (int32_t y = 0; y < h; ++y) {
        for (int32_t x = 0; x < w; ++x) {
            uint8_t* p = img.pixel(x, y);
            const bool noisy = ((x / 13) + (y / 5)) % 3 == 0;
            if (noisy) {
                p[0] = uint8_t(rng());
                p[1] = uint8_t(rng());
                p[2] = uint8_t(128 + rng() % 128);
                p[3] = uint8_t(eMin + int(rng() % unsigned(eMax - eMin + 1)));
            } else {
                p[0] = uint8_t(128 + (x / 16) % 128);
                p[1] = uint8_t(64 + (y * 3) % 64);
                p[2] = 200;
                p[3] = uint8_t(eMin + (x / 40 + y / 7) % (eMax - eMin + 1));
            }
            if ((x * 7 + y * 3) % 97 == 0)
                p[0] = p[1] = p[2] = p[3] = 0;
        }
    }
    return img;
}

inline bool samePixels(const ImageView& a, const ImageView& b, int channels)
{
    if (a.width != b.width || a.height != b.height)
        return false;
    for (int32_t y = 0; y < a.height; ++y)
        for (int32_t x = 0; x < a.width; ++x)
            for (int c = 0; c < channels; ++c)
                if (a.pixel(x, y)[c] != b.pixel(x, y)[c])
                    return false;
    return true;
}

}  // namespace testutil
