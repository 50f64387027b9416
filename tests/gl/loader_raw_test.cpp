// Camera raw loading through `dcraw | djpeg`. The real djpeg is used; dcraw is
// a stand-in script placed beside a copy of this test binary (the loader looks
// for its tools beside the executable), and the copy is run as a child process
// that loads the file and checks the result (LoaderRawChild.Load).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "glutil_helpers.h"
#include "image/ImageLoader.h"
#include "libglutil/Texture.h"
#include "loader_helpers.h"

namespace fs = std::filesystem;

namespace {

// Prints the file named by its third argument, after checking that the
// arguments arrived exactly as dcraw's "-e -c <file>".
const char* const kDcrawPrintsFile =
    "#!/bin/sh\n"
    "[ $# -eq 3 ] && [ \"$1\" = -e ] && [ \"$2\" = -c ] || { echo \"bad arguments: $*\" >&2; exit 3; }\n"
    "exec cat -- \"$3\"\n";

class LoaderRaw : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dir_ = makeScratchDir("raw");
        exe_ = dir_ + "/gl_tests_copy";
        fs::copy_file(selfExecutable(), exe_);
        // Same-size picture as a camera preview would be, small enough to be quick.
        jpeg_ = dir_ + "/preview.jpg";
        writeTestJpeg(jpeg_, 333, 250, 3, smoothPicture(333, 250));
    }
    static void TearDownTestSuite() { fs::remove_all(dir_); }

    void SetUp() override
    {
        if (isTestChild())
            GTEST_SKIP() << "already a child";
        fs::remove(dir_ + "/dcraw");
        fs::remove(dir_ + "/djpeg");
    }

    static void installTool(const std::string& name, const std::string& script)
    {
        const std::string path = dir_ + "/" + name;
        writeFile(path, script);
        chmod(path.c_str(), 0755);
    }

    // Runs the copy on `raw`, expecting either the 1/8 decode of `expectJpeg`
    // or the error text `expectError`.
    static ChildResult load(const std::string& raw, const std::string& expectJpeg, const std::string& expectError,
                            std::vector<std::pair<std::string, std::string>> env = {})
    {
        env.emplace_back("TESSARA_RAW_FILE", raw);
        env.emplace_back(expectJpeg.empty() ? "TESSARA_RAW_ERROR" : "TESSARA_RAW_JPEG",
                         expectJpeg.empty() ? expectError : expectJpeg);
        return runTestChild(exe_, "LoaderRawChild.Load", env);
    }

    static std::string dir_, exe_, jpeg_;
};
std::string LoaderRaw::dir_, LoaderRaw::exe_, LoaderRaw::jpeg_;

#define EXPECT_CHILD_PASSED(r)                                                      \
    do {                                                                            \
        EXPECT_EQ((r).status, 0) << (r).output;                                     \
        EXPECT_NE((r).output.find("[       OK ] LoaderRawChild.Load"), std::string::npos) << (r).output; \
    } while (0)

}  // namespace

// A file name with quotes, a dollar sign and blanks reaches dcraw as one
// argument, and the texture is the preview decoded at 1/8.
TEST_F(LoaderRaw, DecodesPreviewAtOneEighthWithAwkwardFileName)
{
    installTool("dcraw", kDcrawPrintsFile);
    const std::string raw = dir_ + "/my \"best\" 'shot' $HOME  `x` .CR2";
    fs::copy_file(jpeg_, raw);
    const ChildResult r = load(raw, jpeg_, "");
    EXPECT_CHILD_PASSED(r);
}

// dcraw printing nothing (no preview, or not a raw file) leaves djpeg without
// input: the empty stream fails at the header.
TEST_F(LoaderRaw, EmptyOutputFailsAtHeader)
{
    installTool("dcraw", "#!/bin/sh\nexit 0\n");
    const ChildResult r = load(jpeg_ + ".cr2", "", "Failed to parse PNM file header.");
    EXPECT_CHILD_PASSED(r);
}

// Neither tool beside the executable nor on PATH: nothing can be started, the
// pipe stays empty, the same header message follows and nothing hangs.
TEST_F(LoaderRaw, MissingToolsFailAtHeader)
{
    const std::string empty = dir_ + "/emptybin";
    fs::create_directories(empty);
    const ChildResult r = load(jpeg_ + ".cr2", "", "Failed to parse PNM file header.", {{"PATH", empty}});
    EXPECT_CHILD_PASSED(r);
}

// Streams that are not 8-bit binary PPM, from a stand-in djpeg: a 16-bit
// maximum value, a truncated body, a foreign header, and a header declaring
// more than any GPU holds (refused before allocating).
TEST_F(LoaderRaw, MalformedPnmStreams)
{
    installTool("dcraw", kDcrawPrintsFile);
    struct Case {
        const char* printf;  // djpeg's output as a printf(1) format
        std::string error;
    } cases[] = {
        {"P6\\n2 2\\n65535\\n%024d", "PNM file has wrong max value: 65535"},
        {"P6\\n4 4\\n255\\n0123456789", "Failed to read PNM file data: 10 != 48 -> 1"},
        {"P5\\n4 4\\n255\\n0123456789012345", "Failed to parse PNM file header."},
        {"P6\\n-4 4\\n255\\n", "Failed to parse PNM file header."},
        {"P6\\n900000 900000\\n255\\n", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.printf);
        installTool("djpeg", std::string("#!/bin/sh\ncat > /dev/null\nprintf '") + c.printf + "' 0\n");
        const std::string expected =
            c.error.empty() ? "Maximum texture size of GPU is too small (900000x900000 > " : c.error;
        const ChildResult r = load(jpeg_ + ".cr2", "", expected);
        EXPECT_CHILD_PASSED(r);
    }
}

// The child side: loads TESSARA_RAW_FILE and compares with TESSARA_RAW_JPEG
// decoded at 1/8, or expects an error starting with TESSARA_RAW_ERROR.
TEST(LoaderRawChild, Load)
{
    const char* raw = std::getenv("TESSARA_RAW_FILE");
    if (!raw)
        GTEST_SKIP() << "run by LoaderRaw tests in a copy of the binary";
    if (const char* error = std::getenv("TESSARA_RAW_ERROR")) {
        try {
            loadImage(raw);
            ADD_FAILURE() << "no exception";
        } catch (const std::exception& e) {
            EXPECT_EQ(std::string(e.what()).rfind(error, 0), 0u) << e.what();
        }
        return;
    }
    int w = 0, h = 0;
    const auto expected = decodeJpegEighth(std::getenv("TESSARA_RAW_JPEG"), w, h);
    Texture tex = loadImage(raw);
    ASSERT_EQ(tex.width(), w);
    ASSERT_EQ(tex.height(), h);
    std::vector<uint8_t> back(expected.size());
    tex.readPixels(back.data(), GL_RGB);
    // Same library, same decoding options: the bytes must be identical; any
    // difference means the options or the stream handling differ.
    size_t differing = 0;
    for (size_t i = 0; i < back.size(); ++i)
        differing += back[i] != expected[i];
    EXPECT_EQ(differing, 0u);
}
