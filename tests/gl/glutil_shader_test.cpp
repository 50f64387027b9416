// Shader programs built from files beside the executable, the prefix they get,
// the coordinate convention of the full-screen pass, and the stdlib.frag helpers.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "glutil_helpers.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/GLError.h"
#include "libglutil/GLVersion.h"
#include "libglutil/Shader.h"
#include "libglutil/Texture.h"

namespace {

bool coreContext()
{
    GLint mask = 0;
    glGetIntegerv(GL_CONTEXT_PROFILE_MASK, &mask);
    return (mask & GL_CONTEXT_CORE_PROFILE_BIT) != 0;
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// Compiles stdlib.frag plus `body` under an explicit version line, the way
// Shader does, and returns the compile log ("" when it compiled cleanly).
// Lets one context check the library under every version the program uses.
std::string compileUnder(const std::string& versionLine, const std::string& defines, const std::string& body,
                         GLuint* programOut = nullptr)
{
    const std::string library = readFile(Shader::filePath("stdlib.frag"));
    const char* strings[4] = {versionLine.c_str(), defines.c_str(), library.c_str(), body.c_str()};
    const GLuint shader = glCreateShader(GL_FRAGMENT_SHADER);
    glShaderSource(shader, 4, strings, nullptr);
    glCompileShader(shader);
    GLint ok = 0;
    glGetShaderiv(shader, GL_COMPILE_STATUS, &ok);
    std::string log;
    if (!ok) {
        GLint length = 0;
        glGetShaderiv(shader, GL_INFO_LOG_LENGTH, &length);
        log.assign(size_t(std::max(length, 1)), '\0');
        glGetShaderInfoLog(shader, length, nullptr, &log[0]);
        log = "compile failed: " + log;
    }
    if (programOut && ok) {
        const GLuint program = glCreateProgram();
        glAttachShader(program, shader);
        glLinkProgram(program);
        glGetProgramiv(program, GL_LINK_STATUS, &ok);
        if (!ok)
            log = "link failed";
        *programOut = program;
    }
    glDeleteShader(shader);
    return log;
}

struct Rgba {
    int r, g, b, a;
};

Rgba pixelAt(const std::vector<uint8_t>& rgba, int w, int x, int y)
{
    const uint8_t* p = &rgba[(size_t(y) * w + x) * 4];
    return {p[0], p[1], p[2], p[3]};
}

}  // namespace

// The fragment source is the version line, then the caller's defines, then
// stdlib.frag, then the pass file: the pass renders what it saw of each.
TEST(ShaderProgram, PrefixIsVersionDefinesLibraryThenSource)
{
    installTestShaders();
    const std::string defines = "#define TEST_VALUE 77\n";
    Shader program("test_prefix", defines);
    Texture target(8, 4, GL_RGBA8);
    glClear(GL_COLOR_BUFFER_BIT);
    fullScreenPass(8, 4);
    const Rgba p = pixelAt(readRGBA(target), 8, 3, 2);
    const int expectedVersion = glVersionNumber() >= 33 ? 33 : glVersionNumber() >= 30 ? 13 : 12;
    EXPECT_EQ(p.r, expectedVersion);
    EXPECT_EQ(p.g, 77);
    EXPECT_EQ(p.b, std::getenv("USE_ARRAY_TEXTURE") ? 255 : 0);
    EXPECT_EQ(p.a, 129);  // RGBE exponent byte of 1.0 from stdlib.frag's encoder
    EXPECT_EQ(defines, "#define TEST_VALUE 77\n");
    EXPECT_EQ(shaderVersionLine(), expectedVersion == 33 ? "#version 330\n" : expectedVersion == 13 ? "#version 130\n"
                                                                                                    : "#version 120\n");
}

// _gl_TexCoord is in viewport pixels with centres at +0.5, and the fragment at
// row r + 0.5 lands in memory row r of the readback: no flip anywhere.
TEST(ShaderProgram, FragmentCoordinatesMatchMemoryRows)
{
    installTestShaders();
    Shader program("test_coord", "");
    const int w = 300, h = 260;
    Texture target(w, h, GL_RGBA8);
    glClear(GL_COLOR_BUFFER_BIT);
    fullScreenPass(w, h);
    const auto out = readRGBA(target);
    int bad = 0;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const Rgba p = pixelAt(out, w, x, y);
            bad += p.r != x % 256 || p.g != y % 256 || p.b != x / 256 || p.a != y / 256;
        }
    EXPECT_EQ(bad, 0);
}

// The legacy quad (GL below 3.3) feeds the same pixel coordinates through the
// fixed-function pipeline to a program without vertex shader.
TEST(ShaderProgram, LegacyQuadGivesTheSameCoordinates)
{
    if (coreContext())
        GTEST_SKIP() << "fixed-function quad needs a compatibility context";
    GLuint program = 0;
    const std::string body =
        "void main() { vec2 p = floor(_gl_TexCoord); vec2 hi = floor(p / 256.0);"
        " fragColor = vec4(p - 256.0 * hi, hi) / 255.0; }\n";
    ASSERT_EQ(compileUnder("#version 120\n", "", body, &program), "");
    glUseProgram(program);
    const int w = 270, h = 5;
    Texture target(w, h, GL_RGBA8);
    glClear(GL_COLOR_BUFFER_BIT);
    legacyFullScreenPass(w, h);
    const auto out = readRGBA(target);
    glUseProgram(0);
    glDeleteProgram(program);
    int bad = 0;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const Rgba p = pixelAt(out, w, x, y);
            bad += p.r != x % 256 || p.g != y || p.b != x / 256;
        }
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(glErrorReport(__FILE__, __LINE__), "");
}

// stdlib.frag compiles under every version line the program may choose, with
// and without array textures (on a core context only the versions it accepts).
TEST(ShaderLibrary, CompilesUnderEveryVersion)
{
    const std::string body =
        "void main() { vec4 s = sampleImage0(_gl_TexCoord) + sampleImage1(_gl_TexCoord)"
        " + fetchImage0(ivec2(1, 2)) + fetchImage1(ivec2(3, 4));"
        " fragColor = encodeRGBE(decodeRGBE(s) + srgbToLinear(s.rgb) + linearToSrgb(s.rgb)); }\n";
    std::vector<std::string> versions = {"#version 330\n"};
    if (!coreContext()) {
        versions.push_back("#version 130\n");
        versions.push_back("#version 120\n");
    }
    for (const auto& version : versions)
        for (const char* defines : {"", "#define USE_ARRAY_TEXTURE\n"}) {
            SCOPED_TRACE(version + defines);
            EXPECT_EQ(compileUnder(version, defines, body), "");
        }
}

// A pass file that does not exist is a file error naming the path; a pass that
// does not compile prints the driver's log under the file's name.
TEST(ShaderProgram, MissingFileAndCompileErrors)
{
    installTestShaders();
    const std::string missing = Shader::filePath("no_such_pass.frag");
    try {
        Shader program("no_such_pass", "");
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), "Error opening file '" + missing + "'");
    }
    EXPECT_EQ(glErrorReport(__FILE__, __LINE__), "");

    // Compile and link failures are only printed; making the unlinked program
    // current is then the GL error that stops the build.
    testing::internal::CaptureStderr();
    bool threw = false;
    try {
        Shader broken("test_broken", "");
    } catch (const opengl_error& e) {
        threw = std::string(e.what()).find("invalid operation (0x0502)") != std::string::npos;
    }
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(threw);
    EXPECT_NE(err.find("Errors in shader '" + Shader::filePath("test_broken.frag") + "':\n"), std::string::npos)
        << err;
    EXPECT_NE(err.find("Errors in shader 'test_broken':\n"), std::string::npos) << err;  // the link log
    EXPECT_EQ(glErrorReport(__FILE__, __LINE__), "");
}

TEST(ShaderProgram, HarmlessLogsAreRecognised)
{
    EXPECT_TRUE(isHarmlessShaderLog("No errors."));
    EXPECT_TRUE(isHarmlessShaderLog("Fragment shader(s) linked, vertex shader(s) linked. \n"));
    EXPECT_FALSE(isHarmlessShaderLog("0:3(1): error: syntax error"));
    EXPECT_FALSE(isHarmlessShaderLog("Fragment shader failed to compile"));
}

// An unknown uniform warns once on standard error and yields -1, which GL
// ignores when set.
TEST(ShaderProgram, UnknownUniformWarns)
{
    installTestShaders();
    Shader program("test_copy", "");
    testing::internal::CaptureStderr();
    const GLint loc = program.uniformLocation("noSuchThing");
    program.setUniform("alsoMissing", 1.0f);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(loc, -1);
    EXPECT_EQ(err, "No such uniform named 'noSuchThing'\nNo such uniform named 'alsoMissing'\n");
    EXPECT_GE(program.uniformLocation("offset"), 0);
    EXPECT_EQ(glErrorReport(__FILE__, __LINE__), "");
}

// Moving a program keeps it usable; destroying releases the GL program.
TEST(ShaderProgram, MoveKeepsProgram)
{
    installTestShaders();
    Shader a("test_copy", "");
    const GLuint name = a.program();
    Shader b(std::move(a));
    EXPECT_EQ(a.program(), 0u);
    EXPECT_EQ(b.program(), name);
    EXPECT_TRUE(glIsProgram(name));
    { Shader c(std::move(b)); }
    EXPECT_FALSE(glIsProgram(name));
}

// The same tests under a 3.3 core context and under array textures, each in a
// child process (the profile and the texture target are fixed per process).
TEST(ShaderProgram, CoreProfileAndArrayModeChildren)
{
    if (isTestChild())
        GTEST_SKIP() << "already a child";
    const std::string filter = "ShaderProgram.*:ShaderLibrary.*:ShaderStdlib.*:Texture*.*:Framebuffer*.*:GLError*.*";
    {
        const ChildResult r = runTestChild(selfExecutable(), filter, {{"USE_GL_CORE", ""}});
        EXPECT_EQ(r.status, 0) << r.output;
        EXPECT_NE(r.output.find("Core Profile"), std::string::npos) << r.output;
    }
    {
        const ChildResult r = runTestChild(selfExecutable(), filter, {{"USE_ARRAY_TEXTURE", "1"}});
        EXPECT_EQ(r.status, 0) << r.output;
    }
}

// A program from the shared cache comes back as the same GL program but in the
// state of a fresh build: uniforms zero, samplers on their units, current.
TEST(ShaderProgram, SharedProgramIsReusedInAFreshState)
{
    installTestShaders();
    releaseSharedShaders();
    const Shader& first = sharedShader("test_copy", "");
    first.setUniform2i("offset", 3, 4);
    first.setUniform("texUnit0", 5);
    glUseProgram(0);

    const Shader& again = sharedShader("test_copy", "");
    EXPECT_EQ(&again, &first);
    GLint current = 0, offset[2] = {-1, -1}, unit = -1;
    glGetIntegerv(GL_CURRENT_PROGRAM, &current);
    glGetUniformiv(again.program(), again.uniformLocation("offset"), offset);
    glGetUniformiv(again.program(), again.uniformLocation("texUnit0"), &unit);
    EXPECT_EQ(GLuint(current), again.program());
    EXPECT_EQ(offset[0], 0);
    EXPECT_EQ(offset[1], 0);
    EXPECT_EQ(unit, 0);

    EXPECT_NE(sharedShader("test_copy", "#define OTHER\n").program(), first.program());
    EXPECT_EQ(sharedShaderCount(), 2u);
    const GLuint name = first.program();
    releaseSharedShaders();
    EXPECT_FALSE(glIsProgram(name));
    EXPECT_EQ(sharedShaderCount(), 0u);
    EXPECT_EQ(glErrorReport(__FILE__, __LINE__), "");
}
