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

void expectLine(const std::string& line, const std::string& pattern)
{
    EXPECT_TRUE(std::regex_match(line, std::regex(pattern))) << "'" << line << "' does not match " << pattern;
}
}  // namespace

TEST(StageTimer, LinesAndStatistics)
{
    StageTimer t;
    t.start = StageTimer::now() - 1.25;
    // A blank (empty prefix), the name right-aligned in 20 columns, three decimals.
    expectLine(captured([&] { t.markStage("GL_CONTEXT"); }), std::string(11, ' ') + "GL_CONTEXT: 1\\.2[5-9]\\ds\n");
    t.start = StageTimer::now() - 3.0;
    // A longer name is printed whole.
    expectLine(captured([&] { t.markStage("a stage name of 24 chars"); }), " a stage name of 24 chars: 3\\.0\\d\\ds\n");
    EXPECT_EQ(t.count, 2);
    EXPECT_NEAR(t.total, 4.25, 0.05);
    EXPECT_NEAR(t.totalSquares, 1.25 * 1.25 + 9.0, 0.3);

    // A paused mark reports zero, is not counted, and resumes the timer.
    t.start = StageTimer::now() - 5.0;
    t.pausedAt = StageTimer::now();
    EXPECT_EQ(captured([&] { t.markStage("paused"); }), std::string(15, ' ') + "paused: 0.000s\n");
    EXPECT_EQ(t.count, 2);
    EXPECT_EQ(t.pausedAt, 0.0);

    EXPECT_EQ(captured([] { StageTimer quiet; }), "");  // unnamed: nothing at destruction
    using namespace std::chrono;
    EXPECT_NEAR(StageTimer::now(), double(duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count()) / 1e3,
                1.0);
}

TEST(StageTimer, NamedTimers)
{
    // Marked once: its lines carry the name as prefix; destruction adds nothing.
    expectLine(captured([] {
                   StageTimer t("[T]");
                   t.markStage("read");
               }),
               "\\[T\\]" + std::string(17, ' ') + "read: 0\\.\\d{3}s\n");
    // Never marked: one line for its lifetime, its own name as the stage.
    expectLine(captured([] {
                   StageTimer t("[T] tonemap (total)");
                   t.start -= 0.5;
               }),
               "  \\[T\\] tonemap \\(total\\): 0\\.5\\d\\ds\n");
    // The same text as the stage but another string: the prefix is printed.
    expectLine(captured([] {
                   StageTimer t("x");
                   t.markStage(std::string("x").c_str());
               }),
               "x" + std::string(20, ' ') + "x: 0\\.\\d{3}s\n");

    EXPECT_TRUE(stageTimingEnabled);
    EXPECT_TRUE(globalTimer().name.empty());
    EXPECT_LT(globalTimer().start, StageTimer::now());  // started before main
}
