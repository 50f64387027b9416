#include "project/Project.h"

#include <stdexcept>

float& ImageEntry::linkField(int i)
{
    switch (i) {
    case 1: return yaw;
    case 2: return roll;
    case 3: return pitch;
    case 4: return fov;
    case 5: return a;
    case 6: return b;
    case 7: return c;
    case 8: return d;
    case 9: return e;
    default: throw std::out_of_range("ImageEntry::linkField");
    }
}
