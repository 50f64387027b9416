// tessara-batch against single tessara-render runs: the same files, bytes and
// console lines per line, also right after a failed line; names with blanks,
// quotes and '$' reach the renderer as written; reruns skip what is done.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <regex>
#include <set>
#include <sstream>

#include "support/Support.h"

using namespace support;

namespace fs = std::filesystem;

namespace {

// Console lines with the seconds of the stage lines blanked out, without the
// context start-up lines that a batch prints once.
std::vector<std::string> consoleLines(const std::string& text)
{
    static const std::regex seconds(": [0-9]+\\.[0-9]+s$");
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.find("GL_CONTEXT") == std::string::npos && line.find("OpenGL Version") == std::string::npos &&
            line.find("XDG_RUNTIME_DIR") == std::string::npos)
            lines.push_back(std::regex_replace(line, seconds, ": Xs"));
    return lines;
}

// The part of the batch's standard error that belongs to line `k` of `n`.
std::string sectionOf(const std::string& err, int k, int n)
{
    const std::string before = "[" + std::to_string(k - 1) + "/" + std::to_string(n) + "]";
    const size_t from = k == 1 ? err.find("lines\n") + 6 : err.find('\n', err.find(before)) + 1;
    return err.substr(from, err.find("[" + std::to_string(k) + "/" + std::to_string(n) + "]") - from);
}

// A small synthetic capture in the folder `path`.
void makeCapture(const std::string& path)
{
    const RunResult made = runProgram({binPath("tessara-make-capture"),
                                       std::string(TESSARA_SOURCE_DIR) + "/tests/data/panoramas/courtyard.exr", path,
                                       "--scale", "0.05", "--supersample", "1"});
    ASSERT_EQ(made.status, 0) << made.err;
}

}  // namespace

TEST(Batch, LinesRenderAsSingleRunsAndRerunsSkipThem)
{
    TempDir dir;
    ASSERT_NO_FATAL_FAILURE(makeCapture(dir / "we 'ird' $x"));
    // A source that is not a JPEG fails the stitch half way, with GL objects bound.
    fs::copy(dir / "we 'ird' $x", dir / "broken");
    std::ofstream(dir / "broken/capture-02.jpg") << "not a jpeg";
    fs::create_directories(dir / "out");
    fs::create_directories(dir / "single");
    const std::string options = " --er-width 1200 --er-jpg --cf-jpg --cf-width 128";
    std::ofstream(dir / "m.txt") << "\"we 'ird' \\$x/capture.pts\"" << options << " --output-prefix 'out/a \"b\" $c'\n"
                                 << "# comment\n"
                                 << "broken/capture.pts --er-width 1200 --er-jpg\n"
                                 << "we\\ \\'ird\\'\\ \\$x/capture.pts" << options << " --output-prefix out/after\n";

    const RunResult batch = runProgram({binPath("tessara-batch"), dir / "m.txt", "--report", dir / "r.jsonl"});
    EXPECT_EQ(batch.status, 1) << batch.err;
    const RunResult single = runRenderer({dir / "we 'ird' $x/capture.pts", "--er-width", "1200", "--er-jpg", "--cf-jpg",
                                          "--cf-width", "128", "--output-prefix", dir / "single/p"});
    ASSERT_EQ(single.status, 0) << single.err;

    for (const char* suffix : {".jpg", "_r.jpg", "_l.jpg", "_u.jpg", "_d.jpg", "_b.jpg", "_f.jpg"}) {
        const std::string expected = readFile(dir / "single/p" + suffix);
        EXPECT_FALSE(expected.empty());
        EXPECT_EQ(readFile(dir / "out/a \"b\" $c" + suffix), expected) << suffix;
        EXPECT_EQ(readFile(dir / "out/after" + suffix), expected) << suffix;
    }
    ASSERT_GT(consoleLines(single.err).size(), 10u);
    EXPECT_EQ(consoleLines(sectionOf(batch.err, 1, 3)), consoleLines(single.err));
    EXPECT_EQ(consoleLines(sectionOf(batch.err, 3, 3)), consoleLines(single.err));
    EXPECT_NE(batch.err.find("[2/3] broken/capture.pts failed: Error ("), std::string::npos) << batch.err;
    const std::string report = readFile(dir / "r.jsonl");
    EXPECT_EQ(countLinesWith(report, "\"status\":\"ok\""), 2) << report;
    EXPECT_EQ(countLinesWith(report, "{\"line\":3,\"input\":\"broken/capture.pts\",\"status\":\"failed\",\"error\":\"Error ("),
              1) << report;
    EXPECT_NE(report.find("capture-02.jpg"), std::string::npos) << report;

    // --status counts over the state folder: the failed line with its error,
    // the done lines with the size of what they wrote.
    uintmax_t outputBytes = 0;
    for (const auto& entry : fs::directory_iterator(dir / "out"))
        outputBytes += entry.file_size();
    const RunResult status = runProgram({binPath("tessara-batch"), dir / "m.txt", "--status", "--report", "-"});
    EXPECT_EQ(status.status, 0) << status.err;
    EXPECT_EQ(status.out.rfind("{\"lines\":3,\"done\":2,\"failed\":1,\"running\":0,\"not_started\":0,\"output_bytes\":" +
                                   std::to_string(outputBytes) +
                                   ",\"failures\":[{\"line\":3,\"input\":\"broken/capture.pts\",\"error\":\"Error (",
                               0),
              0u)
        << status.out;

    // --plan names exactly the files a run writes and the lines that are done.
    const RunResult plan = runProgram({binPath("tessara-batch"), dir / "m.txt", "--plan"});
    EXPECT_EQ(plan.status, 0) << plan.err;
    EXPECT_EQ(countLinesWith(plan.out, "  done: a run skips it"), 2) << plan.out;
    std::set<std::string> planned, written;
    std::istringstream lastLine(plan.out.substr(plan.out.find("line 4: ")));
    for (std::string l; std::getline(lastLine, l);)
        if (l.rfind("  writes: ", 0) == 0)
            planned.insert(l.substr(10));
    for (const auto& entry : fs::directory_iterator(dir / "out"))
        if (entry.path().filename().string().rfind("after", 0) == 0)
            written.insert("out/" + entry.path().filename().string());
    EXPECT_EQ(planned, written) << plan.out;

    // Done lines are skipped; a removed output or --force renders again.
    fs::remove(dir / "out/after_u.jpg");
    const RunResult rerun = runProgram({binPath("tessara-batch"), dir / "m.txt"});
    EXPECT_EQ(rerun.status, 1);
    EXPECT_NE(rerun.err.find("[1/3] we 'ird' $x/capture.pts skipped"), std::string::npos) << rerun.err;
    EXPECT_NE(rerun.err.find("[3/3] we 'ird' $x/capture.pts ok"), std::string::npos) << rerun.err;
    EXPECT_TRUE(fs::exists(dir / "out/after_u.jpg"));
    const RunResult forced = runProgram({binPath("tessara-batch"), dir / "m.txt", "--force", "--shard", "0/2"});
    EXPECT_NE(forced.err.find("[2/2] we 'ird' $x/capture.pts ok"), std::string::npos) << forced.err;
}

TEST(Batch, TwoProcessesOnOneManifestRenderEachLineOnce)
{
    // Two tasks given the same lines, as after a resubmission while the first
    // one still runs. A line is only skipped once someone rendered it, so 8 ok
    // and 8 skipped lines in the report they share mean each rendered once.
    TempDir dir;
    ASSERT_NO_FATAL_FAILURE(makeCapture(dir / "cap"));
    for (int i = 1; i <= 8; ++i)
        std::ofstream(dir / "m.txt", std::ios::app) << "cap/capture.pts --er-width 600 --er-jpg --output-prefix o" << i << "\n";
    const std::vector<std::string> args{binPath("tessara-batch"), dir / "m.txt", "--report", dir / "r.jsonl"};
    auto first = std::async(std::launch::async, [&] { return runProgram(args).status; });
    EXPECT_EQ(runProgram(args).status, 0);
    EXPECT_EQ(first.get(), 0);
    const std::string report = readFile(dir / "r.jsonl");
    EXPECT_EQ(countLinesWith(report, "\"input\":\"cap/capture.pts\",\"status\":\"ok\""), 8) << report;
    EXPECT_EQ(countLinesWith(report, "\"input\":\"cap/capture.pts\",\"status\":\"skipped\""), 8) << report;
}

TEST(Batch, UsageErrorsAndUnreadableManifestsEndWith255)
{
    TempDir dir;
    std::ofstream(dir / "m.txt") << "a.pts\n";
    EXPECT_EQ(runProgram({binPath("tessara-batch"), dir / "missing.txt"}).status, 255);
    EXPECT_EQ(runProgram({binPath("tessara-batch"), dir / "m.txt", "--shard", "2/2"}).status, 255);
    EXPECT_EQ(runProgram({binPath("tessara-batch"), dir / "m.txt", "--bogus"}).status, 255);
    const RunResult noArray = runProgram({binPath("tessara-batch"), dir / "m.txt", "--shard", "auto"});
    EXPECT_EQ(noArray.status, 255);
    EXPECT_NE(noArray.err.find("SLURM_ARRAY_TASK_ID"), std::string::npos) << noArray.err;
    EXPECT_FALSE(fs::exists(dir / "m.txt.state/line-000001.lock"));
}
