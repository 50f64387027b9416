// Atomic output: the final name only ever holds a complete file.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "image/OutputFile.h"
#include "image_test_util.h"

namespace {

TEST(AtomicOutputFile, CommitReplacesTheFinalFileOnlyThen)
{
    testutil::TempDir dir;
    const std::string finalPath = dir.file("out.jpg");
    testutil::writeFile(finalPath, "old");
    {
        AtomicOutputFile out(finalPath);
        EXPECT_EQ(std::filesystem::path(out.tempPath()).parent_path(), std::filesystem::path(dir.path()));
        EXPECT_NE(out.tempPath(), finalPath);
        testutil::writeFile(out.tempPath(), "new content");
        EXPECT_EQ(testutil::readFile(finalPath), "old");
        out.commit();
        EXPECT_FALSE(std::filesystem::exists(out.tempPath()));
    }
    EXPECT_EQ(testutil::readFile(finalPath), "new content");
}

TEST(AtomicOutputFile, AbandonedOutputLeavesNothingBehind)
{
    testutil::TempDir dir;
    const std::string finalPath = dir.file("out.hdr");
    testutil::writeFile(finalPath, "previous run");
    std::string temp;
    try {
        AtomicOutputFile out(finalPath);
        temp = out.tempPath();
        testutil::writeFile(temp, "half a fi");
        throw std::runtime_error("writer failed");
    } catch (const std::runtime_error&) {
    }
    EXPECT_FALSE(std::filesystem::exists(temp));
    EXPECT_EQ(testutil::readFile(finalPath), "previous run");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

TEST(AtomicOutputFile, FailedRenameNamesTheFinalPath)
{
    testutil::TempDir dir;
    AtomicOutputFile out(dir.file("never-written.exr"));  // nothing at the temporary name
    try {
        out.commit();
        FAIL() << "commit without a file succeeded";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()),
                  "Failed to write file '" + dir.file("never-written.exr") + "': No such file or directory");
    }
}

}  // namespace
