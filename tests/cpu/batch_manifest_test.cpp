// The batch program's pieces that need no renderer: splitting manifest lines,
// choosing the shard, and the completion records and leftovers of the state folder.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "tools/batch/Manifest.h"
#include "tools/batch/Shard.h"
#include "support/Support.h"
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
    const std::string temp = output + ".tmp-4242";
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
