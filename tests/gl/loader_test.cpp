// Image loader: extension dispatch, JPEG and Radiance sources, tool lookup.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "glutil_helpers.h"
#include "image/ImageLoader.h"
#include "libglutil/GLError.h"
#include "libglutil/Shader.h"
#include "libglutil/Texture.h"
#include "loader_helpers.h"

namespace fs = std::filesystem;

namespace {

std::string expectError(const std::string& path)
{
    try {
        loadImage(path);
    } catch (const std::exception& e) {
        return e.what();
    }
    return "no exception";
}

}  // namespace

// Upper- and mixed-case JPEG extensions load through the JPEG decoder into an
// 8-bit RGB texture holding the picture. Thresholds: quality 95 JPEG with 4:2:0
// chroma keeps smooth areas within a few levels but smears the hard edges of
// the checker pattern (max 64), the mean stays low.
TEST(LoaderDispatch, JpegByExtensionInAnyCase)
{
    const std::string dir = makeScratchDir("loader");
    const int w = 200, h = 120;
    const auto picture = smoothPicture(w, h);
    for (const char* name : {"IMG_0001.JPG", "img.Jpeg"}) {
        SCOPED_TRACE(name);
        const std::string path = dir + "/" + name;
        writeTestJpeg(path, w, h, 3, picture);
        Texture tex = loadImage(path);
        EXPECT_EQ(tex.width(), w);
        EXPECT_EQ(tex.height(), h);
        EXPECT_FALSE(tex.isHDR());
        EXPECT_EQ(tex.meanLevel, 0.0);
        std::vector<uint8_t> back(size_t(w) * h * 3);
        tex.readPixels(back.data(), GL_RGB);
        double maxErr = 0, sum = 0;
        for (size_t i = 0; i < back.size(); ++i) {
            const double err = std::abs(double(back[i]) - double(picture[i]));
            maxErr = std::max(maxErr, err);
            sum += err;
        }
        EXPECT_LE(maxErr, 64.0);
        EXPECT_LT(sum / double(back.size()), 2.0);
    }
    fs::remove_all(dir);
}

TEST(LoaderDispatch, UnsupportedTypesAndGreyJpeg)
{
    const std::string dir = makeScratchDir("loader");
    for (const std::string name : {"scan.png", "pano.exr", "no_extension", "dir.jpg/file"}) {
        const std::string path = dir + "/" + name;
        EXPECT_EQ(expectError(path), "failed to open file '" + path + "': unsupported file type");
    }
    const std::string grey = dir + "/grey.jpg";
    writeTestJpeg(grey, 16, 16, 1, std::vector<uint8_t>(256, 128));
    EXPECT_EQ(expectError(grey), "can not open JPEG with color format other than RGB");
    EXPECT_EQ(glErrorReport(__FILE__, __LINE__), "");
    fs::remove_all(dir);
}

// A Radiance source becomes an RGBA8 texture of its RGBE bytes, with the
// exponent statistics printed and stored as linear factors, and its two
// stages timed under "[T]". The only non-zero pixel has E = 130: M = 2, and m
// stays at its start value 128 because that pixel raised M.
TEST(LoaderRadiance, RgbeBytesStatisticsAndTimerLines)
{
    const std::string dir = makeScratchDir("loader");
    const std::string path = dir + "/pano.HDR";
    const std::string pixels("\0\0\0\0" "\10\20\40\202" "\0\0\0\0" "\1\2\3\0" "\0\0\0\0" "\0\0\0\0", 24);
    writeFile(path, "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 2 +X 3\n" + pixels);
    testing::internal::CaptureStderr();
    Texture tex = loadImage(path);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("3x2, M: 2, m: 128 -> -126 f-stops, mean: 2\n"), std::string::npos) << err;
    for (const char* stage : {"read", "cpu -> gpu"}) {
        char line[64];
        std::snprintf(line, sizeof line, "[T] %20s: ", stage);
        EXPECT_NE(err.find(line), std::string::npos) << err;
    }
    EXPECT_TRUE(tex.isRGBE());
    EXPECT_TRUE(tex.isHDR());
    EXPECT_DOUBLE_EQ(tex.maxLevel, 4.0);
    EXPECT_DOUBLE_EQ(tex.meanLevel, 4.0);
    EXPECT_DOUBLE_EQ(tex.minLevel, std::ldexp(1.0, 128));
    std::string back(24, '\0');
    tex.readPixels(&back[0], GL_RGBA);
    EXPECT_EQ(back, pixels);
    fs::remove_all(dir);
}

// Tools are taken from beside the executable first, then from PATH; a tool
// found nowhere gets the path beside the executable (which then fails to run).
TEST(LoaderTools, ToolPathLookup)
{
    EXPECT_EQ(fs::canonical(toolPath("gl_tests")), fs::canonical(selfExecutable()));
    const std::string sh = toolPath("sh");
    EXPECT_EQ(fs::path(sh).filename(), "sh");
    EXPECT_NE(fs::path(sh).parent_path(), fs::path(selfExecutable()).parent_path());
    EXPECT_EQ(toolPath("no-such-tool-here"), Shader::filePath("no-such-tool-here"));
}
