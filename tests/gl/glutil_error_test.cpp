// GL error report format and the framebuffer completeness messages.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "libglutil/Framebuffer.h"
#include "libglutil/GLError.h"
#include "libglutil/Texture.h"

namespace {

// Feeds a fixed list of error codes, then 0.
struct FakeErrors {
    std::vector<unsigned> codes;
    size_t next = 0;
    unsigned operator()() { return next < codes.size() ? codes[next++] : 0u; }
};

}  // namespace

// Several pending errors are listed in the order GL returns them, each ending
// in ", ", with the file name (not the path) and the line of the check.
TEST(GLErrorReport, ListsPendingErrorsInOrder)
{
    FakeErrors two{{GL_INVALID_ENUM, GL_INVALID_OPERATION}};
    EXPECT_EQ(glErrorReportFrom("/src/libglutil/Texture.cpp", 42, std::ref(two)),
              "glError(s) @ Texture.cpp:42 : invalid enum (0x0500), invalid operation (0x0502), \n");

    FakeErrors names{{0x0501, 0x0503, 0x0504, 0x0505, 0x0506}};
    EXPECT_EQ(glErrorReportFrom("a.cpp", 7, std::ref(names)),
              "glError(s) @ a.cpp:7 : invalid value (0x0501), stack overflow (0x0503), stack unerflow (0x0504), "
              "out of memory (0x0505), unknown error code (0x0506), \n");

    FakeErrors none{{}};
    EXPECT_EQ(glErrorReportFrom("a.cpp", 7, std::ref(none)), "");
}

// A lost context reports errors forever: the list stops once it is longer than
// 999 characters and the report is still returned.
TEST(GLErrorReport, EndlessErrorsStopAfter999Characters)
{
    int calls = 0;
    const std::string report = glErrorReportFrom("x.cpp", 1, [&] {
        ++calls;
        return unsigned(GL_OUT_OF_MEMORY);
    });
    const std::string item = "out of memory (0x0505), ";  // 24 characters
    const size_t items = 999 / item.size() + 1;           // first length above 999
    EXPECT_EQ(size_t(calls), items);
    EXPECT_EQ(report.size(), std::string("glError(s) @ x.cpp:1 : \n").size() + items * item.size());
    EXPECT_EQ(report.compare(0, 23, "glError(s) @ x.cpp:1 : "), 0);
}

// A real driver error surfaces through GL_CHECK as opengl_error with the text.
TEST(GLErrorReport, DriverErrorThrowsWithReport)
{
    glEnable(0x7fff);  // not a capability
    const int line = __LINE__ + 2;
    try {
        GL_CHECK();
        ADD_FAILURE() << "no exception";
    } catch (const opengl_error& e) {
        EXPECT_EQ(std::string(e.what()),
                  "glError(s) @ glutil_error_test.cpp:" + std::to_string(line) + " : invalid enum (0x0500), \n");
    }
    EXPECT_NO_THROW(GL_CHECK());
}

// A texture format that cannot be rendered to is reported at the completeness
// check with the framebuffer message; the texture keeps its names so that
// destroying it releases them.
TEST(FramebufferErrors, IncompleteRenderTarget)
{
    try {
        Texture target(8, 8, GL_RGB9_E5);  // shared-exponent format: not colour-renderable
        ADD_FAILURE() << "no exception";
    } catch (const opengl_error& e) {
        const std::string text = e.what();
        EXPECT_EQ(text.rfind("Framebuffer Error in file Framebuffer.cpp @ line ", 0), 0u) << text;
        const bool known = text.find(": Framebuffer incomplete, incomplete attachment") != std::string::npos ||
                           text.find(": Unsupported framebuffer format") != std::string::npos;
        EXPECT_TRUE(known) << text;
    }
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    EXPECT_EQ(glErrorReport(__FILE__, __LINE__), "");
}

TEST(FramebufferErrors, StatusTexts)
{
    EXPECT_EQ(framebufferErrorText(GL_FRAMEBUFFER_INCOMPLETE_MISSING_ATTACHMENT, "/p/Framebuffer.cpp", 12),
              "Framebuffer Error in file Framebuffer.cpp @ line 12: Framebuffer incomplete, missing attachment");
    EXPECT_EQ(framebufferErrorText(GL_FRAMEBUFFER_INCOMPLETE_DRAW_BUFFER, "f.cpp", 1),
              "Framebuffer Error in file f.cpp @ line 1: Framebuffer incomplete, missing draw buffer");
    EXPECT_EQ(framebufferErrorText(GL_FRAMEBUFFER_INCOMPLETE_READ_BUFFER, "f.cpp", 1),
              "Framebuffer Error in file f.cpp @ line 1: Framebuffer incomplete, missing read buffer");
    EXPECT_EQ(framebufferErrorText(GL_FRAMEBUFFER_UNSUPPORTED, "f.cpp", 1),
              "Framebuffer Error in file f.cpp @ line 1: Unsupported framebuffer format");
    // An unknown status carries the pending GL errors too.
    glEnable(0x7fff);
    EXPECT_EQ(framebufferErrorText(0x1234, "f.cpp", 3),
              "Framebuffer Error in file f.cpp @ line 3: Unknown framebuffer status: 0x1234\n"
              "glError(s) @ f.cpp:3 : invalid enum (0x0500), \n");
}
