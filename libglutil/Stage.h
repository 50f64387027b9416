#pragma once
#include "libglutil/StageTimer.h"

// The stage-boundary convention: when stage timing is on, wait for the GPU so
// that the stage's own GPU work is counted in it, then mark it on the global timer.
void finishStage(const char* stageName);
