#include "project/Project.h"

#include <stdexcept>

float ImageEntry::*ImageEntry::linkMember(int i)
{
    static float ImageEntry::*const fields[] = {&ImageEntry::yaw, &ImageEntry::roll, &ImageEntry::pitch,
                                                &ImageEntry::fov, &ImageEntry::a,    &ImageEntry::b,
                                                &ImageEntry::c,   &ImageEntry::d,    &ImageEntry::e};
    if (i < 1 || i > 9)
        throw std::out_of_range("ImageEntry::linkField");
    return fields[i - 1];
}
