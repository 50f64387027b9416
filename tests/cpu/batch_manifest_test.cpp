// The batch program's pieces that need no renderer: splitting manifest lines,
// choosing the shard, the records, locks and leftovers of the state folder, and
// the report that several processes share.
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
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

// Waits until some process or thread is blocked in flock on the file `path`
// (a "->" entry of /proc/locks names its inode); false after five seconds.
bool someoneWaitsForLock(const std::string& path)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0)
        return false;
    const std::string inode = ":" + std::to_string(st.st_ino) + " ";
    for (int i = 0; i < 500; ++i) {
        std::ifstream locks("/proc/locks");
        for (std::string line; std::getline(locks, line);)
            if (line.find("->") != std::string::npos && line.find(inode) != std::string::npos)
                return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

}  // namespace

TEST(BatchState, LineFinishedWhileWaitingForItsLockIsDone)
{
    // Another process renders line 7; this one waits for the lock. When the
    // other finishes, the waiter must find the record, not render again.
    const support::TempDir dir;
    const StateDir state(dir / "state");
    const std::string output = dir / "pano.jpg", text = "pano.pts --er-jpg";
    LineLock other = state.lock(7);
    auto waiter = std::async(std::launch::async, [&] { return state.claim(7, text, true); });
    ASSERT_TRUE(someoneWaitsForLock(dir / "state/line-000007.lock"));
    support::writeFile(output, "jpeg");
    state.writeRecord(7, text, {{output, 4}});
    other = LineLock();
    const LineClaim claim = waiter.get();
    EXPECT_TRUE(claim.lock.held());
    EXPECT_TRUE(claim.done);
    EXPECT_FALSE(state.claim(7, text, false).lock.held());  // the waiter holds it now
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
    state.writeFailure(3, "failed, then fixed", "Error: old");
    state.writeRecord(3, "failed, then fixed", {});
    state.removeFailure(3, "failed, then fixed");
    state.writeFailure(4, "failed, then edited", "Error: old");
    const LineLock running = state.lock(5);
    state.writeFailure(5, "failed, now running again", "Error: old");
    const LineLock checking = state.lock(1);  // a process looking at a done line
    const LineLock probed = state.tryLock(6);

    const auto before = std::distance(fs::directory_iterator(dir / "state"), {});
    const std::vector<LineStatus> statuses = state.survey({{1, "done"},
                                                            {2, "failed"},
                                                            {3, "failed, then fixed"},
                                                            {4, "edited"},
                                                            {5, "failed, now running again"},
                                                            {6, "locked, never written"},
                                                            {7, "never taken"}});
    EXPECT_EQ(std::distance(fs::directory_iterator(dir / "state"), {}), before);
    const LineState expected[] = {LineState::Done,       LineState::Failed,  LineState::Done,      LineState::NotStarted,
                                  LineState::Running,    LineState::Running, LineState::NotStarted};
    ASSERT_EQ(statuses.size(), std::size(expected));
    for (size_t i = 0; i < statuses.size(); ++i)
        EXPECT_EQ(int(statuses[i].state), int(expected[i])) << "line " << i + 1;
    ASSERT_EQ(statuses[0].outputs.size(), 1u);
    EXPECT_EQ(statuses[0].outputs[0].bytes, 5u);
    EXPECT_EQ(statuses[1].error, "Error (runtime_error): broken second line");
}

TEST(BatchReport, ProcessesAppendingAtOnceKeepEveryLineWhole)
{
    const support::TempDir dir;
    const std::string path = dir / "report.jsonl";
    // A writer killed half way through a line: the next line starts afresh.
    support::writeFile(path, "{\"line\":1,\"inp");

    // Writers wait for the report's lock, which every host sees.
    int held = ::open(path.c_str(), O_RDONLY);
    ASSERT_EQ(::flock(held, LOCK_EX), 0);
    const auto blocked = std::async(std::launch::async, [&] { return ReportFile(path, "r").append("{\"line\":2}"); });
    ASSERT_TRUE(someoneWaitsForLock(path));
    EXPECT_EQ(support::readFile(path), "{\"line\":1,\"inp");
    ::close(held);
    blocked.wait();

    constexpr int kWriters = 4, kLines = 300;
    const std::string padding(3000, 'x');  // longer than one pipe buffer page
    std::vector<pid_t> children;
    for (int w = 0; w < kWriters; ++w) {
        const pid_t child = fork();
        if (child == 0) {
            const ReportFile report(path, "r");
            for (int i = 0; i < kLines; ++i)
                if (!report.append("{\"writer\":" + std::to_string(w) + ",\"pad\":\"" + padding + "\"}"))
                    _exit(1);
            _exit(0);
        }
        children.push_back(child);
    }
    for (pid_t child : children) {
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    std::istringstream lines(support::readFile(path));
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line, "{\"line\":1,\"inp");
    std::getline(lines, line);
    EXPECT_EQ(line, "{\"line\":2}");
    std::map<char, int> perWriter;
    for (; std::getline(lines, line);) {
        ASSERT_EQ(line.size(), 21 + padding.size()) << line.substr(0, 40);
        ++perWriter[line[10]];
    }
    EXPECT_EQ(perWriter, (std::map<char, int>{{'0', kLines}, {'1', kLines}, {'2', kLines}, {'3', kLines}}));
}
