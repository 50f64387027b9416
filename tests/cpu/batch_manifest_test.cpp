// The batch program's pieces that need no renderer: splitting manifest lines,
// choosing the shard, the records, locks and leftovers of the state folder, and
// the report that several processes share.
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <thread>

#include "support/Support.h"
#include "tools/batch/Manifest.h"
#include "tools/batch/Report.h"
#include "tools/batch/Shard.h"
#include "tools/batch/StateDir.h"

namespace fs = std::filesystem;

TEST(BatchManifest, SplitsLikeAShellWithoutExpanding)
{
    const struct {
        const char* line;
        std::vector<std::string> args;
    } cases[] = {
        {"a.pts  --er-jpg\t--output-prefix out/x", {"a.pts", "--er-jpg", "--output-prefix", "out/x"}},
        {"'my shots/a b.pts' --logo \"logo $HOME.jpg\"", {"my shots/a b.pts", "--logo", "logo $HOME.jpg"}},
        {R"(it\'s\ here.pts "say \"hi\" \$x \\ \n")", {"it's here.pts", R"(say "hi" $x \ \n)"}},
        {R"('a'"b"c '' "")", {"abc", "", ""}},
        {"'single \"keeps\" \\ all'", {"single \"keeps\" \\ all"}},
        {"  ", {}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(splitArguments(c.line), c.args) << c.line;
    for (const char* bad : {"a 'open", "a \"open", "a \\"})
        EXPECT_THROW(splitArguments(bad), ManifestLineError) << bad;
}

TEST(BatchManifest, KeepsNumbersAndSkipsCommentsAndBlankLines)
{
    const support::TempDir dir;
    support::writeFile(dir / "m.txt", "# header\r\n\r\na.pts --er-jpg\r\n   \n  # indented\nb 'open\n");
    const std::vector<ManifestLine> lines = readManifest(dir / "m.txt");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].number, 3);
    EXPECT_EQ(lines[0].text, "a.pts --er-jpg");
    EXPECT_EQ(lines[1].number, 6);
    EXPECT_FALSE(lines[1].splitError.empty());
    EXPECT_THROW(readManifest("/nonexistent/manifest.txt"), std::runtime_error);
}

TEST(BatchShard, FromTheCommandLineAndTheEnvironment)
{
    EXPECT_EQ(parseShard("2/3").index, 2);
    EXPECT_EQ(parseShard("2/3").count, 3);
    for (const char* bad : {"3/3", "1", "-1/3", "a/3", "1/0", "1/3x", ""})
        EXPECT_THROW(parseShard(bad), std::invalid_argument) << bad;

    using Env = std::map<std::string, std::string>;
    const struct {
        Env env;
        int shards, index, count;  // index -1: rejected
    } cases[] = {
        {{{"SLURM_ARRAY_TASK_ID", "4"}, {"SLURM_ARRAY_TASK_COUNT", "5"}, {"SLURM_ARRAY_TASK_MIN", "0"}}, 0, 4, 5},
        {{{"SLURM_ARRAY_TASK_ID", "3"}, {"SLURM_ARRAY_TASK_MIN", "1"}, {"SLURM_ARRAY_TASK_MAX", "3"}}, 0, 2, 3},
        {{{"SLURM_ARRAY_TASK_ID", "4"}, {"SLURM_ARRAY_TASK_COUNT", "3"}, {"SLURM_ARRAY_TASK_MIN", "0"},
          {"SLURM_ARRAY_TASK_MAX", "4"}}, 0, -1, 0},  // "0,2,4": gaps
        {{{"SLURM_ARRAY_TASK_ID", "x"}, {"SLURM_ARRAY_TASK_COUNT", "3"}}, 0, -1, 0},
        {{{"JOB_COMPLETION_INDEX", "7"}}, 8, 7, 8},
        {{{"JOB_COMPLETION_INDEX", "7"}}, 0, -1, 0},  // --shards missing
        {{{"JOB_COMPLETION_INDEX", "8"}}, 8, -1, 0},
        {{}, 4, -1, 0},
    };
    for (const auto& c : cases) {
        const auto lookup = [&](const char* name) -> const char* {
            const auto it = c.env.find(name);
            return it == c.env.end() ? nullptr : it->second.c_str();
        };
        if (c.index < 0) {
            EXPECT_THROW(shardFromEnvironment(lookup, c.shards), std::invalid_argument);
            continue;
        }
        const Shard shard = shardFromEnvironment(lookup, c.shards);
        EXPECT_EQ(shard.index, c.index);
        EXPECT_EQ(shard.count, c.count);
    }
}

TEST(BatchState, RecordHoldsOnlyWhileItsOutputsAndTextMatch)
{
    const support::TempDir dir;
    const StateDir state(dir / "state");
    const std::string output = dir / "pano.jpg";
    std::ofstream(output, std::ios::binary) << "12345";
    const std::string text = "pano.pts --er-jpg";

    EXPECT_FALSE(state.isDone(4, text, nullptr));
    state.writeRecord(4, text, {{output, 5}});
    std::vector<OutputEntry> outputs;
    ASSERT_TRUE(state.isDone(4, text, &outputs));
    ASSERT_EQ(outputs.size(), 1u);
    EXPECT_EQ(outputs[0].path, output);
    EXPECT_FALSE(state.isDone(5, text, nullptr));            // another line number
    EXPECT_FALSE(state.isDone(4, text + " ", nullptr));      // an edited line
    std::ofstream(output, std::ios::app) << "6";
    EXPECT_FALSE(state.isDone(4, text, nullptr));            // output changed
    fs::remove(output);
    EXPECT_FALSE(state.isDone(4, text, nullptr));            // output gone

    // What a killed render left: its journalled temporary files go, nothing else.
    const std::string temp = output + ".tmp-host-4242-0badcafe";
    std::ofstream(temp) << "partial";
    std::ofstream(dir / "keep.jpg") << "x";
    state.journalTempFile(4, temp);
    state.journalTempFile(4, dir / "keep.jpg");  // not a temporary name
    state.clearLeftovers(4);
    EXPECT_FALSE(fs::exists(temp));
    EXPECT_TRUE(fs::exists(dir / "keep.jpg"));

    const LineLock held = state.tryLock(4);
    EXPECT_TRUE(held.held());
    EXPECT_FALSE(state.tryLock(4).held());  // a second holder, even in this process
}

namespace {

// Waits until a process or thread is blocked in flock on `path` (a "->"
// entry of /proc/locks names its inode); false after five seconds.
bool someoneWaitsForLock(const std::string& path)
{
    struct stat st {};
    const std::string inode = ::stat(path.c_str(), &st) == 0 ? ":" + std::to_string(st.st_ino) + " " : "?";
    for (int i = 0; i < 500; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
        std::ifstream locks("/proc/locks");
        for (std::string line; std::getline(locks, line);)
            if (line.find("->") != std::string::npos && line.find(inode) != std::string::npos)
                return true;
    }
    return false;
}

}  // namespace

TEST(BatchState, LineFinishedWhileWaitingForItsLockIsDone)
{
    // Another process renders line 7 while this one waits for its lock: once
    // that one finishes, the waiter must find the record, not render again.
    const support::TempDir dir;
    const StateDir state(dir / "state");
    LineLock other = state.lock(7);
    auto waiter = std::async(std::launch::async, [&] { return state.claim(7, "pano.pts", true); });
    ASSERT_TRUE(someoneWaitsForLock(dir / "state/line-000007.lock"));
    support::writeFile(dir / "pano.jpg", "jpeg");
    state.writeRecord(7, "pano.pts", {{dir / "pano.jpg", 4}});
    other = LineLock();
    const LineClaim claim = waiter.get();
    EXPECT_TRUE(claim.lock.held());
    EXPECT_TRUE(claim.done);
}

TEST(BatchState, SurveyTellsEachLineAndWritesNothing)
{
    const support::TempDir dir;
    const StateDir state(dir / "state");
    support::writeFile(dir / "a.jpg", "12345");
    for (int line : {1, 2, 3, 4})
        state.lock(line);  // records are written under the line's lock, which leaves its file
    state.writeRecord(1, "done", {{dir / "a.jpg", 5}});
    state.writeFailure(2, "failed", "Error (runtime_error): broken\nsecond line");
    state.writeFailure(3, "fixed", "Error: old");
    state.writeRecord(3, "fixed", {});
    state.removeFailure(3, "fixed");
    state.writeFailure(4, "failed, then edited", "Error: old");
    const LineLock running = state.lock(5), checking = state.lock(1);  // a process looking at a done line
    state.writeFailure(5, "failed, running again", "Error: old");

    const auto files = std::distance(fs::directory_iterator(dir / "state"), {});
    const std::vector<LineStatus> statuses = state.survey(
        {{1, "done"}, {2, "failed"}, {3, "fixed"}, {4, "edited"}, {5, "failed, running again"}, {6, "never taken"}});
    EXPECT_EQ(std::distance(fs::directory_iterator(dir / "state"), {}), files);
    const LineState expected[] = {LineState::Done,       LineState::Failed,  LineState::Done,
                                  LineState::NotStarted, LineState::Running, LineState::NotStarted};
    ASSERT_EQ(statuses.size(), std::size(expected));
    for (size_t i = 0; i < statuses.size(); ++i)
        EXPECT_EQ(int(statuses[i].state), int(expected[i])) << "line " << i + 1;
    EXPECT_EQ(statuses[0].outputs.at(0).bytes, 5u);
    EXPECT_EQ(statuses[1].error, "Error (runtime_error): broken second line");
}

TEST(BatchReport, WritersAppendingAtOnceKeepEveryLineWhole)
{
    const support::TempDir dir;
    const std::string path = dir / "report.jsonl";
    support::writeFile(path, "{\"line\":1,\"inp");  // a writer killed half way through a line

    // A writer waits for the report's lock, which every host sees.
    const int held = ::open(path.c_str(), O_RDONLY);
    ASSERT_EQ(::flock(held, LOCK_EX), 0);
    auto blocked = std::async(std::launch::async, [&] { return ReportFile(path, "r").append("{\"line\":2}"); });
    ASSERT_TRUE(someoneWaitsForLock(path));
    EXPECT_EQ(support::readFile(path), "{\"line\":1,\"inp");
    ::close(held);
    EXPECT_TRUE(blocked.get());

    std::vector<std::future<void>> writers;
    for (char w : {'a', 'b', 'c', 'd'})
        writers.push_back(std::async(std::launch::async, [&path, w] {
            const ReportFile report(path, "r");
            for (int i = 0; i < 200; ++i)
                EXPECT_TRUE(report.append(std::string(5000, w)));  // more than a page a line
        }));
    for (auto& writer : writers)
        writer.wait();
    std::istringstream lines(support::readFile(path));
    std::map<std::string, int> count;
    for (std::string line; std::getline(lines, line);)
        ++count[line];
    EXPECT_EQ(count, (std::map<std::string, int>{{"{\"line\":1,\"inp", 1}, {"{\"line\":2}", 1},
                                                 {std::string(5000, 'a'), 200}, {std::string(5000, 'b'), 200},
                                                 {std::string(5000, 'c'), 200}, {std::string(5000, 'd'), 200}}));
}
