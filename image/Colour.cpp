#include "image/Colour.h"

#include <algorithm>
#include <cmath>

float srgbEncode(float v)
{
    v = std::min(std::max(v, 0.0f), 1.0f);
    return v <= 0.0031308f ? 12.92f * v : 1.055f * std::pow(v, 1.0f / 2.4f) - 0.055f;
}

const ColourMatrix* cameraColourMatrix(int frameWidth)
{
    struct Entry {
        int width;
        ColourMatrix matrix;
    };
    static const Entry kTable[] = {
        {3666, {1.912549f, -0.224853f, 0.009865f, -1.058655f, 1.646546f, -0.509324f, 0.146106f, -0.421693f,
                1.499459f}},
        {3753, {2.06819f, -0.038154f, 0.035687f, -1.320341f, 1.365463f, -0.378776f, 0.25215f, -0.327309f,
                1.343089f}},
        {3868, {1.964399f, -0.241156f, 0.013887f, -1.11971f, 1.673722f, -0.54982f, 0.155311f, -0.432566f,
                1.535933f}},
        {4500, {2.048413f, -0.221627f, -0.007711f, -1.27161f, 1.776905f, -0.592619f, 0.223197f, -0.555277f,
                1.60033f}},
        {5856, {1.91757f, -0.174955f, 0.03749f, -1.069136f, 1.687861f, -0.562878f, 0.151566f, -0.512906f,
                1.525388f}},
    };
    for (const Entry& e : kTable)
        if (e.width == frameWidth)
            return &e.matrix;
    return nullptr;
}
