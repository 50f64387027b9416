#include "Support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <stdexcept>

#include <png.h>
#include <tiffio.h>
#include <zlib.h>

#include "image/Rgbe.h"

namespace fs = std::filesystem;

namespace support {

namespace {
const bool g_subreaper = prctl(PR_SET_CHILD_SUBREAPER, 1) == 0;
}

TempDir::TempDir()
{
    std::error_code ec;
    const fs::path base = !std::getenv("TMPDIR") && fs::is_directory("/dev/shm", ec) ? fs::path("/dev/shm")
                                                                                     : fs::temp_directory_path();
    std::string pattern = (base / "tessara-test-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::error_code ec;
    fs::remove_all(path_, ec);
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void writeFile(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), std::streamsize(bytes.size()));
    if (!out)
        throw std::runtime_error("cannot write " + path);
}

std::string sourcePath(const std::string& relative) { return std::string(TESSARA_SOURCE_DIR) + "/tests/" + relative; }
std::string binPath(const std::string& name) { return std::string(TESSARA_BIN_DIR) + "/" + name; }

ParseAction parseArgs(std::vector<std::string> args, JobOptions& options)
{
    std::vector<char*> argv;
    for (auto& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    return parseOptions(int(args.size()), argv.data(), options);
}

std::string errorOf(const std::function<void()>& f)
{
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "no error";
}

Image makeRgbeImage(int32_t w, int32_t h, uint32_t seed, int eMin, int eMax)
{
    Image img(w, h, 4);
    std::mt19937 rng(seed);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            uint8_t* p = img.pixel(x, y);
            if (((x / 13) + (y / 5)) % 3 == 0) {
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
    return img;
}

bool samePixels(const ImageView& a, const ImageView& b, int channels)
{
    if (a.width() != b.width() || a.height() != b.height())
        return false;
    for (int32_t y = 0; y < a.height(); ++y)
        for (int32_t x = 0; x < a.width(); ++x)
            if (std::memcmp(a.pixel(x, y), b.pixel(x, y), size_t(channels)) != 0)
                return false;
    return true;
}

std::vector<LensRow> lensVectors()
{
    std::ifstream in(sourcePath("data/lens/lens-vectors.tsv"));
    std::string line;
    std::getline(in, line);  // header
    std::vector<LensRow> rows;
    for (LensRow r; in >> r.camera;) {
        LensModel& l = r.lens;
        int type = 0;
        in >> l.w >> l.h >> type >> l.v >> l.a >> l.b >> l.c >> l.d >> l.e >> l.yaw >> l.pitch >> l.roll >> r.x >> r.y >>
            r.lon >> r.lat;
        in.ignore(1 << 16, '\n');  // the angle off the axis
        l.projection = type != 0 ? Projection::FullFrameFisheye : Projection::Rectilinear;
        rows.push_back(r);
    }
    EXPECT_FALSE(in.bad());
    return rows;
}

std::pair<double, double> rgbeError(const ImageView& a, const ImageView& b)
{
    if (a.width() != b.width() || a.height() != b.height())
        return {1e9, 1e9};
    double worst = 0, sum = 0;
    for (int32_t y = 0; y < a.height(); ++y)
        for (int32_t x = 0; x < a.width(); ++x) {
            float p[3], q[3];
            rgbeToFloat(a.pixel(x, y), p);
            rgbeToFloat(b.pixel(x, y), q);
            const double top = std::max({p[0], p[1], p[2], 1e-30f});
            for (int c = 0; c < 3; ++c) {
                worst = std::max(worst, std::abs(double(p[c]) - q[c]) / top);
                sum += std::abs(double(p[c]) - q[c]) / top;
            }
        }
    return {worst, sum / (3.0 * a.width() * a.height())};
}

RunResult runProgram(const std::vector<std::string>& args, const std::vector<std::string>& env)
{
    RunResult result;
    EXPECT_TRUE(g_subreaper);
    TempDir dir;
    const std::string outPath = dir / "stdout", errPath = dir / "stderr";
    std::vector<char*> argv;
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
        ADD_FAILURE() << "fork: " << std::strerror(errno);
        return result;
    }
    if (pid == 0) {
        const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int in = open("/dev/null", O_RDONLY);
        if (out < 0 || err < 0 || in < 0)
            _exit(126);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        unsetenv("DISPLAY");
        for (const auto& e : env)
            putenv(const_cast<char*>(e.c_str()));
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    EXPECT_NE(result.status, 127) << "could not start " << args[0];
    result.out = readFile(outPath);
    result.err = readFile(errPath);
    return result;
}

RunResult runRenderer(const std::vector<std::string>& args, const std::vector<std::string>& env)
{
    std::vector<std::string> full{binPath("tessara-render")};
    full.insert(full.end(), args.begin(), args.end());
    return runProgram(full, env);
}

std::vector<int> takeOrphansNamed(const std::string& comm)
{
    std::vector<int> found;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/proc", ec)) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        // "pid (comm) state ppid ..."; comm may hold blanks.
        const std::string stat = readFile(entry.path().string() + "/stat");
        const auto open = stat.find('('), close = stat.rfind(')');
        if (open == std::string::npos || close == std::string::npos)
            continue;
        std::istringstream rest(stat.substr(close + 1));
        char state = 0;
        int ppid = 0;
        rest >> state >> ppid;
        if (ppid == getpid() && stat.substr(open + 1, close - open - 1) == comm)
            found.push_back(std::stoi(name));
    }
    for (const int pid : found) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    return found;
}

int countLinesWith(const std::string& text, const std::string& needle)
{
    std::istringstream in(text);
    int n = 0;
    for (std::string line; std::getline(in, line);)
        n += line.find(needle) != std::string::npos;
    return n;
}

int countMatches(const std::string& text, const std::string& regex)
{
    const std::regex re(regex);
    return int(std::distance(std::sregex_iterator(text.begin(), text.end(), re), std::sregex_iterator()));
}

void expectCleanFailure(const RunResult& r, const std::string& messagePart)
{
    EXPECT_EQ(r.status, 255) << r.err;
    EXPECT_EQ(countLinesWith(r.err, "Error ("), 1) << r.err;
    const size_t lastStart = r.err.size() < 2 ? 0 : r.err.rfind('\n', r.err.size() - 2) + 1;
    const std::string lastLine = r.err.substr(lastStart);
    EXPECT_EQ(lastLine.rfind("Error (", 0), 0u) << r.err;
    EXPECT_NE(lastLine.find(messagePart), std::string::npos) << r.err;
    EXPECT_TRUE(takeOrphansNamed("Xvfb").empty()) << "an Xvfb outlived the renderer";
}

void writePngFile(const std::string& path, int w, int h, int channels, int bits, const std::vector<float>& samples,
                  const std::string& xmp)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = png_uint_32(w);
    image.height = png_uint_32(h);
    const png_uint_32 colour = channels >= 3 ? PNG_FORMAT_FLAG_COLOR : 0;
    const png_uint_32 alpha = channels % 2 == 0 ? PNG_FORMAT_FLAG_ALPHA : 0;
    image.format = colour | alpha | (bits == 16 ? PNG_FORMAT_FLAG_LINEAR : 0);
    std::vector<uint16_t> wide(samples.begin(), samples.end());
    std::vector<uint8_t> narrow(samples.begin(), samples.end());
    png_alloc_size_t size = 0;
    const void* pixels = bits == 16 ? static_cast<const void*>(wide.data()) : narrow.data();
    ASSERT_TRUE(png_image_write_get_memory_size(image, size, 0, pixels, 0, nullptr)) << image.message;
    std::string bytes(size, '\0');
    ASSERT_TRUE(png_image_write_to_memory(&image, &bytes[0], &size, 0, pixels, 0, nullptr)) << image.message;
    bytes.resize(size);
    if (!xmp.empty()) {
        // An uncompressed iTXt chunk right after IHDR (8 + 25 bytes in).
        std::string data = std::string("iTXt") + "XML:com.adobe.xmp" + std::string(5, '\0') + xmp;
        const uint32_t crc = uint32_t(crc32(0, reinterpret_cast<const Bytef*>(data.data()), uInt(data.size())));
        std::string chunk;
        for (uint32_t v : {uint32_t(data.size() - 4)})
            for (int k = 3; k >= 0; --k)
                chunk += char(v >> (8 * k));
        chunk += data;
        for (int k = 3; k >= 0; --k)
            chunk += char(crc >> (8 * k));
        bytes.insert(33, chunk);
    }
    writeFile(path, bytes);
}

void writeTiffFile(const std::string& path, int w, int h, const TiffLayout& layout, const std::vector<float>& samples)
{
    TIFF* tif = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(tif, nullptr) << path;
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, uint32_t(w));
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, uint32_t(h));
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, uint16_t(layout.channels));
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, uint16_t(layout.bits));
    TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT, uint16_t(layout.bits == 32 ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT));
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, uint16_t(layout.channels >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK));
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, uint16_t(PLANARCONFIG_CONTIG));
    TIFFSetField(tif, TIFFTAG_COMPRESSION, uint16_t(layout.compression));
    if (layout.channels == 4 || layout.channels == 2) {
        const uint16_t extra = EXTRASAMPLE_UNASSALPHA;
        TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, uint16_t(1), &extra);
    }
    const size_t bytes = size_t(layout.bits / 8);
    const size_t rowBytes = size_t(w) * layout.channels * bytes;
    std::vector<uint8_t> rows(rowBytes * h);
    for (size_t i = 0; i < samples.size(); ++i) {
        if (layout.bits == 8)
            rows[i] = uint8_t(samples[i]);
        else if (layout.bits == 16) {
            const uint16_t v = uint16_t(samples[i]);
            std::memcpy(&rows[2 * i], &v, 2);
        } else
            std::memcpy(&rows[4 * i], &samples[i], 4);
    }
    if (layout.tile > 0) {
        TIFFSetField(tif, TIFFTAG_TILEWIDTH, uint32_t(layout.tile));
        TIFFSetField(tif, TIFFTAG_TILELENGTH, uint32_t(layout.tile));
        const size_t pixel = size_t(layout.channels) * bytes;
        std::vector<uint8_t> tile(size_t(layout.tile) * layout.tile * pixel);
        for (int y = 0; y < h; y += layout.tile)
            for (int x = 0; x < w; x += layout.tile) {
                std::fill(tile.begin(), tile.end(), 0);
                for (int r = 0; r < layout.tile && y + r < h; ++r)
                    std::memcpy(&tile[size_t(r) * layout.tile * pixel], &rows[size_t(y + r) * rowBytes + x * pixel],
                                size_t(std::min(layout.tile, w - x)) * pixel);
                ASSERT_GE(TIFFWriteTile(tif, tile.data(), uint32_t(x), uint32_t(y), 0, 0), 0);
            }
    } else {
        TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, uint32_t(layout.rowsPerStrip));
        for (int y = 0; y < h; ++y)
            ASSERT_EQ(TIFFWriteScanline(tif, &rows[size_t(y) * rowBytes], uint32_t(y), 0), 1);
    }
    TIFFClose(tif);
}

}  // namespace support
