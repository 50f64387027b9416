// The image loader: extension dispatch, JPEG and Radiance sources, and camera
// raw files through `dcraw | djpeg` (stand-in tools found through PATH).
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "image/ImageLoader.h"
#include "image/Jpeg.h"
#include "libglutil/BesideExecutable.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/GLError.h"
#include "libglutil/Texture.h"
#include "support/Support.h"

namespace fs = std::filesystem;
using support::errorOf;

namespace {

// Gradients and a checker: JPEG-friendly with some hard edges.
Image picture(int w, int h)
{
    Image img(w, h, 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t* q = img.pixel(x, y);
            q[0] = uint8_t(x * 255 / (w - 1));
            q[1] = uint8_t(y * 255 / (h - 1));
            q[2] = uint8_t(((x / 40 + y / 40) % 2) ? 200 : 40);
        }
    return img;
}

std::vector<uint8_t> readBack(const Texture& tex, GLenum format)
{
    std::vector<uint8_t> back(size_t(tex.width()) * tex.height() * (format == GL_RGB ? 3 : 4));
    Framebuffer(tex).read(back.data(), format, GL_UNSIGNED_BYTE, tex.width(), tex.height());
    return back;
}

// PATH with `dir` in front for the lifetime of the object.
class PathPrefix {
public:
    explicit PathPrefix(const std::string& dir, bool only = false) : old_(std::getenv("PATH"))
    {
        setenv("PATH", only ? dir.c_str() : (dir + ":" + old_).c_str(), 1);
    }
    ~PathPrefix() { setenv("PATH", old_.c_str(), 1); }

private:
    std::string old_;
};

void writeTool(const std::string& path, const std::string& script)
{
    support::writeFile(path, script);
    chmod(path.c_str(), 0755);
}

}  // namespace

TEST(LoaderDispatch, JpegRadianceAndUnsupportedTypes)
{
    support::TempDir dir;
    // JPEG extensions in any case, decoded as the JPEG reader does.
    const Image pic = picture(200, 120);
    for (const char* name : {"IMG_0001.JPG", "img.Jpeg"}) {
        writeJpeg(pic, dir / name);
        Texture tex = loadImage(dir / name);
        EXPECT_FALSE(tex.isHDR());
        const Image want = readJpeg(dir / name);
        EXPECT_EQ(readBack(tex, GL_RGB), std::vector<uint8_t>(want.data(), want.data() + want.byteSize())) << name;
    }
    for (const std::string name : {"scan.png", "pano.exr", "no_extension", "dir.jpg/file"})
        EXPECT_EQ(errorOf([&] { loadImage(dir / name); }), "failed to open file '" + (dir / name) + "': unsupported file type");

    // A Radiance source is an RGBA8 texture of its RGBE bytes with the
    // exponent statistics printed and kept as linear factors (the only lit
    // pixel has E = 130: M = 2, m stays 128), its stages timed under "[T]".
    const std::string pixels("\0\0\0\0" "\10\20\40\202" "\0\0\0\0" "\1\2\3\0" "\0\0\0\0" "\0\0\0\0", 24);
    support::writeFile(dir / "pano.HDR", "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 2 +X 3\n" + pixels);
    testing::internal::CaptureStderr();
    Texture hdr = loadImage(dir / "pano.HDR");
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("3x2, M: 2, m: 128 -> -126 f-stops, mean: 2\n"), std::string::npos) << log;
    EXPECT_NE(log.find("[T]                 read: "), std::string::npos) << log;
    EXPECT_NE(log.find("[T]           cpu -> gpu: "), std::string::npos) << log;
    EXPECT_TRUE(hdr.isRGBE());
    EXPECT_DOUBLE_EQ(hdr.maxLevel(), 4.0);
    EXPECT_DOUBLE_EQ(hdr.meanLevel(), 4.0);
    EXPECT_DOUBLE_EQ(hdr.minLevel(), std::ldexp(1.0, 128));
    const auto back = readBack(hdr, GL_RGBA);
    EXPECT_EQ(std::string(back.begin(), back.end()), pixels);

    // Tools come from beside the executable first, then from PATH.
    EXPECT_EQ(fs::canonical(toolPath("gl_tests")), fs::canonical("/proc/self/exe"));
    EXPECT_EQ(fs::path(toolPath("sh")).filename(), "sh");
    EXPECT_EQ(toolPath("no-such-tool-here"), besideExecutable("no-such-tool-here"));
    EXPECT_EQ(glErrorReport(__FILE__, __LINE__), "");
}

// A raw file reaches dcraw as one argument whatever its name holds, and the
// texture is its preview decoded like `djpeg -fast -scale 1/8`; streams that
// are not 8-bit binary PPM, or absent tools, fail with the reader's message.
TEST(LoaderRaw, PreviewThroughDcrawAndDjpeg)
{
    support::TempDir dir;
    const std::string tools = dir / "bin";
    fs::create_directory(tools);
    PathPrefix path(tools);
    // dcraw reads an argument starting with '-' or '+' as an option; the
    // stand-in refuses such a file name as the real one would misread it.
    writeTool(tools + "/dcraw", "#!/bin/sh\n"
                                "[ $# -eq 3 ] && [ \"$1\" = -e ] && [ \"$2\" = -c ] || { echo \"bad: $*\" >&2; exit 3; }\n"
                                "case \"$3\" in [-+]*) echo \"option-like name: $3\" >&2; exit 3;; esac\n"
                                "exec cat -- \"$3\"\n");
    const std::string raw = dir / "my \"best\" 'shot' $HOME  `x` .CR2";
    writeJpeg(picture(333, 250), raw);
    Texture tex = loadImage(raw);
    const support::RunResult ppm = support::runProgram({"/usr/bin/djpeg", "-fast", "-ppm", "-scale", "1/8", raw});
    ASSERT_EQ(ppm.out.substr(0, 13), "P6\n42 32\n255\n");
    ASSERT_EQ(tex.width(), 42);
    ASSERT_EQ(tex.height(), 32);
    const auto back = readBack(tex, GL_RGB);
    EXPECT_EQ(std::string(back.begin(), back.end()), ppm.out.substr(13));  // same library, same options

    // Relative names that look like options reach dcraw as files ("./-e.cr2").
    const fs::path cwd = fs::current_path();
    fs::current_path(dir.path());
    for (const char* name : {"-e.cr2", "--help.cr2", "+x.cr2"}) {
        fs::copy_file(raw, name);
        EXPECT_EQ(loadImage(name).width(), 42) << name;
    }
    fs::current_path(cwd);

    const struct { const char* djpeg; std::string error; } cases[] = {
        {"P6\\n2 2\\n65535\\n%024d", "PNM file has wrong max value: 65535"},
        {"P6\\n4 4\\n255\\n0123456789", "Failed to read PNM file data: 10 != 48 -> 1"},
        {"P5\\n4 4\\n255\\n0123456789012345", "Failed to parse PNM file header."},
        {"P6\\n-4 4\\n255\\n", "Failed to parse PNM file header."},
        {"", "Failed to parse PNM file header."},  // dcraw found no preview
        {"P6\\n900000 900000\\n255\\n", "Maximum texture size of GPU is too small (900000x900000 > "},
    };
    for (const auto& c : cases) {
        writeTool(tools + "/djpeg", std::string("#!/bin/sh\ncat > /dev/null\nprintf '") + c.djpeg + "' 0\n");
        EXPECT_EQ(errorOf([&] { loadImage(raw); }).rfind(c.error, 0), 0u) << c.djpeg << ": " << errorOf([&] { loadImage(raw); });
    }
    // Neither tool anywhere: nothing starts, the same header message follows, nothing hangs.
    PathPrefix none(dir / "empty", true);
    EXPECT_EQ(errorOf([&] { loadImage(raw); }), "Failed to parse PNM file header.");
}
