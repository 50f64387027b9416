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

Projection projectionOfLensType(int lensType)
{
    switch (lensType) {
    case 0:
        return Projection::Rectilinear;
    case 2:
        return Projection::CircularFisheye;
    default:
        return Projection::FullFrameFisheye;
    }
}

size_t sourceCount(const Project& project)
{
    size_t n = 0;
    for (const ImageEntry& e : project.images)
        n += !isOrientation(e);
    return n;
}

RigLayout rigLayoutOf(const Project& project)
{
    const size_t entries = project.images.size(), sources = sourceCount(project);
    const auto none = [&](bool (*test)(const ImageEntry&)) {
        for (const ImageEntry& e : project.images)
            if (!isOrientation(e) && test(e)) return false;
        return true;
    };
    if (entries <= 7 && sources == 6 &&
        none([](const ImageEntry& e) { return e.projection == Projection::Rectilinear; }))
        return RigLayout::FisheyeRing;
    if (entries >= 8 && sources == 13 && none([](const ImageEntry& e) { return isFisheye(e.projection); }))
        return RigLayout::TwoRings;
    return RigLayout::General;
}
