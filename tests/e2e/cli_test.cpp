// The command line as a user meets it: version and GL report without a
// display, usage errors, failures reported by the top-level handler, and no
// private X server left behind in any of these cases.
#include <unistd.h>

#include <regex>

#include <gtest/gtest.h>

#include "RunProgram.h"

namespace {
const char* const kUsageTail =
    " <pts/tsp/hdr/exr file> [--output-prefix basename] [--er-width width] [--cf-width width] [--er-exr] "
    "[--er-hdr] [--er-jpg] [--cf-exr] [--cf-jpg] [--no-auto-level] [--logo jpg file] "
    "[--exr-compression b44|dwa|piz|zip]\n";

void expectNoServerLeft()
{
    EXPECT_TRUE(takeOrphansNamed("Xvfb").empty()) << "an Xvfb outlived the renderer";
}
}  // namespace

TEST(CommandLine, OrphanDetectionSeesLeftoverProcesses)
{
    // The check used below must be able to fail: a shell that leaves a
    // background process behind is caught.
    const RunResult r = runProgram({"/bin/sh", "-c", "sleep 30 & exit 0"});
    EXPECT_EQ(r.status, 0);
    // The background child may not have started sleep yet when the shell ends.
    size_t found = 0;
    for (int i = 0; i < 100 && found == 0; ++i) {
        found = takeOrphansNamed("sleep").size();
        if (found == 0)
            usleep(50000);
    }
    EXPECT_EQ(found, 1u);
}

TEST(CommandLine, VersionOnly)
{
    const RunResult r = runRenderer({"-v"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "version: 21.01.5008\n");
    // Options after -v are never read.
    const RunResult later = runRenderer({"in.tsp", "-v", "--bogus"});
    EXPECT_EQ(later.status, 0);
    EXPECT_EQ(later.out, "version: 21.01.5008\n");
    expectNoServerLeft();
}

TEST(CommandLine, GLReportWithoutDisplay)
{
    const RunResult r = runRenderer({"-V"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("version: 21.01.5008\nGL_VENDOR:      ", 0), 0u) << r.out;
    EXPECT_TRUE(std::regex_search(r.out, std::regex("\nGL_RENDERER:    .+\nGL_VERSION:     [1-9]\\.[0-9].*\n"
                                                    "GLSL Version:   .+\nGL_MAX_TEXTURE_SIZE: [1-9][0-9]+\n")))
        << r.out;
    // One of the three memory reports ends it.
    EXPECT_TRUE(std::regex_search(r.out, std::regex("(No memory info available\\.|Available mem \\(MB\\): -?\\d+|"
                                                    "  Render buffer: -?\\d+ / -?\\d+)\n$")))
        << r.out;
    expectNoServerLeft();

    // The core profile request gives a working context too.
    const RunResult core = runRenderer({"-V"}, {"USE_GL_CORE="});
    EXPECT_EQ(core.status, 0) << core.err;
    EXPECT_NE(core.out.find("GL_MAX_TEXTURE_SIZE: "), std::string::npos);
    expectNoServerLeft();
}

TEST(CommandLine, UsageErrors)
{
    const std::string program = binPath("tessara-render");
    const RunResult unknown = runRenderer({"x.tsp", "--bogus"});
    EXPECT_EQ(unknown.status, 255);
    EXPECT_EQ(unknown.out, "Error: unknown option '--bogus'\nUsage: " + program + kUsageTail);
    EXPECT_EQ(unknown.err, "");

    const RunResult none = runRenderer({});
    EXPECT_EQ(none.status, 255);
    EXPECT_EQ(none.out, "Error: at least one argument required\nUsage: " + program + kUsageTail);
    expectNoServerLeft();
}

TEST(CommandLine, ConversionFailuresReachTheTopLevelReport)
{
    const RunResult bad = runRenderer({"x.tsp", "--er-width", "k8"});
    EXPECT_EQ(bad.status, 255);
    EXPECT_EQ(bad.err, "Error (St16invalid_argument): stoi\n");
    EXPECT_EQ(bad.out, "");

    const RunResult missing = runRenderer({"x.tsp", "--er-width"});
    EXPECT_EQ(missing.status, 255);
    EXPECT_EQ(missing.err, "Error (St11logic_error): basic_string: construction from null is not valid\n");
    expectNoServerLeft();
}
