// Stage timer lines: format, statistics, paused marks and named timers.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <regex>
#include <string>

#include "app/StageTimer.h"

namespace {
std::string captured(const std::function<void()>& f)
{
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

std::string blanks(size_t n) { return std::string(n, ' '); }
}  // namespace

TEST(StageTimer, UnnamedTimerLineFormat)
{
    StageTimer t;
    t.start = StageTimer::now() - 1.25;
    const std::string line = captured([&] { t.markStage("GL_CONTEXT"); });
    // A blank (empty prefix), the name right-aligned in 20 columns, three decimals.
    EXPECT_TRUE(std::regex_match(line, std::regex(blanks(11) + "GL_CONTEXT: 1\\.2[5-9]\\ds\n"))) << line;
    EXPECT_EQ(t.count, 1);
    EXPECT_NEAR(t.total, 1.25, 0.05);
    EXPECT_NEAR(t.totalSquares, 1.25 * 1.25, 0.15);

    // A name longer than 20 columns is printed whole and pushes the colon right.
    const std::string longLine = captured([&] { t.markStage("a stage name of 24 chars"); });
    EXPECT_TRUE(std::regex_match(longLine, std::regex(" a stage name of 24 chars: 0\\.00\\ds\n"))) << longLine;
    EXPECT_EQ(t.count, 2);
}

TEST(StageTimer, StatisticsAccumulate)
{
    StageTimer t;
    testing::internal::CaptureStderr();
    t.start = StageTimer::now() - 2.0;
    t.markStage("one");
    t.start = StageTimer::now() - 3.0;
    t.markStage("two");
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(t.count, 2);
    EXPECT_NEAR(t.total, 5.0, 0.05);
    EXPECT_NEAR(t.totalSquares, 13.0, 0.3);
}

TEST(StageTimer, PausedMarkReportsZeroAndIsNotCounted)
{
    StageTimer t;
    t.start = StageTimer::now() - 5.0;  // five seconds would be reported if it were not paused
    t.pausedAt = StageTimer::now();
    const std::string line = captured([&] { t.markStage("paused"); });
    EXPECT_EQ(line, blanks(15) + "paused: 0.000s\n");
    EXPECT_EQ(t.count, 0);
    EXPECT_EQ(t.total, 0.0);
    // The mark resumes the timer: the next interval is measured again.
    EXPECT_EQ(t.pausedAt, 0.0);
    t.start = StageTimer::now() - 1.0;
    const std::string next = captured([&] { t.markStage("resumed"); });
    EXPECT_TRUE(std::regex_match(next, std::regex(blanks(14) + "resumed: 1\\.0\\d\\ds\n"))) << next;
    EXPECT_EQ(t.count, 1);
}

TEST(StageTimer, NamedTimerPrefixesItsLines)
{
    // Marked once: destruction adds nothing, so this is the only line.
    const std::string out = captured([] {
        StageTimer t("[T]");
        t.markStage("read");
    });
    EXPECT_TRUE(std::regex_match(out, std::regex("\\[T\\]" + blanks(17) + "read: 0\\.\\d{3}s\n"))) << out;
}

TEST(StageTimer, NamedTimerNeverMarkedReportsItsLifetimeOnce)
{
    const std::string out = captured([] {
        StageTimer t("[T] tonemap (total)");
        t.start -= 0.5;
    });
    // Its own name is the stage, so no prefix: a blank and the name padded to 20.
    EXPECT_TRUE(std::regex_match(out, std::regex(blanks(2) + "\\[T\\] tonemap \\(total\\): 0\\.5\\d\\ds\n"))) << out;

    // The same text as the stage but another string: the prefix is printed.
    const std::string other = captured([] {
        StageTimer t("x");
        t.markStage(std::string("x").c_str());
    });
    EXPECT_TRUE(std::regex_match(other, std::regex("x" + blanks(20) + "x: 0\\.\\d{3}s\n"))) << other;
}

TEST(StageTimer, UnnamedTimerPrintsNothingAtDestruction)
{
    EXPECT_EQ(captured([] { StageTimer t; }), "");
}

TEST(StageTimer, ClockIsTheWallClockInSeconds)
{
    using namespace std::chrono;
    const double wall = double(duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count()) / 1e3;
    EXPECT_NEAR(StageTimer::now(), wall, 1.0);
}

TEST(StageTimer, GlobalTimerStartedBeforeMainAndTimingIsOn)
{
    EXPECT_TRUE(stageTimingEnabled);
    EXPECT_TRUE(globalTimer().name.empty());
    // Its first interval covers process start-up: it began before this test ran.
    EXPECT_LT(globalTimer().start, StageTimer::now());
}
