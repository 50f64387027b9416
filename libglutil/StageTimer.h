#pragma once
// Named-stage wall-clock timing printed on standard error.
//
// Every stage boundary of a render follows one convention (see finishStage in
// libglutil/Stage.h): when stageTimingEnabled is set, wait for the GPU with
// glFinish, then mark the stage on the global timer. This header has no GL
// dependency; it is only the timer record.
#include <cstdint>
#include <functional>
#include <string>

class StageTimer {
public:
    explicit StageTimer(std::string name = std::string());
    ~StageTimer();
    StageTimer(const StageTimer&) = delete;
    StageTimer& operator=(const StageTimer&) = delete;

    // Reports the interval since the previous mark as
    // "<prefix> <stage right-aligned in 20>: <seconds>s".
    void markStage(const char* stage);

    // Wall-clock seconds (system clock), the clock every reading uses.
    static double now();

    double start = 0.0;
    double pausedAt = 0.0;  // later than start: paused, the next mark measures 0
    double total = 0.0;
    double totalSquares = 0.0;
    int64_t count = 0;
    std::string name;
};

// The process-wide timer (empty name), created during static initialisation so
// that its first interval covers process start-up.
StageTimer& globalTimer();

// Process-wide switch, initially true; only the thumbnail turns it off around
// its tone mapping.
extern bool stageTimingEnabled;

// Called after every line any timer prints, with the timer's name, the stage
// and the seconds measured; none by default. Lets a caller keep the stage
// times of a job (the batch program reports them per job).
using StageListener = std::function<void(const std::string& timerName, const char* stage, double seconds)>;
void setStageListener(StageListener listener);
