#include "libglutil/Stage.h"

#include <GL/glew.h>

void finishStage(const char* stageName)
{
    if (!stageTimingEnabled)
        return;
    glFinish();
    globalTimer().markStage(stageName);
}
