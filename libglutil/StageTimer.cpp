#include "libglutil/StageTimer.h"

#include <chrono>
#include <cstdio>

bool stageTimingEnabled = true;

namespace {
StageListener& stageListener()
{
    static StageListener listener;
    return listener;
}
}  // namespace

void setStageListener(StageListener listener) { stageListener() = std::move(listener); }

StageTimer::StageTimer(std::string n) : start(now()), name(std::move(n)) {}

StageTimer::~StageTimer()
{
    // A named timer that was never marked reports its whole lifetime.
    if (!name.empty() && count == 0)
        markStage(name.c_str());
}

double StageTimer::now()
{
    using namespace std::chrono;
    return double(duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count()) / 1e9;
}

void StageTimer::markStage(const char* stage)
{
    double elapsed = 0.0;
    if (pausedAt <= start) {
        elapsed = now() - start;
        ++count;
        total += elapsed;
        totalSquares += elapsed * elapsed;
    }
    pausedAt = 0.0;
    start = now();
    // A timer reporting under its own name does not repeat it as prefix.
    const char* prefix = (stage == name.c_str()) ? "" : name.c_str();
    std::fprintf(stderr, "%s %20s: %3.3fs\n", prefix, stage, elapsed);
    std::fflush(stderr);
    if (stageListener())
        stageListener()(name, stage, elapsed);
}

namespace {
// Constructed during static initialisation, before main runs.
StageTimer g_globalTimer;
}

StageTimer& globalTimer() { return g_globalTimer; }
