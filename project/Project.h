#pragma once
// The loaded panorama project: source images in drawing order (the last entry
// may be the orientation entry) and the control points of a pts script.
#include <cstdint>
#include <string>
#include <vector>

struct ImageEntry {
    std::string fileName;
    int32_t width = 0;
    int32_t height = 0;
    float yaw = 0, roll = 0, pitch = 0, fov = 0;  // degrees
    float a = 0, b = 0, c = 0;                    // radial distortion
    float d = 0, e = 0;                           // optical-centre shift, source pixels
    float exposure = 0;                           // EV of the image
    float va = 0, vb = 0, vc = 0, vd = 0;         // vignetting polynomial

    // Fields 4..12 (yaw .. e) by their 1-based position after height, as the
    // link rule of the pts import addresses them.
    float& linkField(int i) { return this->*linkMember(i); }
    float linkField(int i) const { return this->*linkMember(i); }

private:
    // Throws std::out_of_range "ImageEntry::linkField" outside 1..9.
    static float ImageEntry::*linkMember(int i);
};

// Name that marks the orientation entry: yaw, roll, pitch carry the capture's
// heading and level, fov carries the fourth value (tilt).
inline const char* const kOrientationName = "orientation:";

inline bool isOrientation(const ImageEntry& e) { return e.fileName == kOrientationName; }

struct ControlPoint {
    int32_t image1 = 0;
    int32_t image2 = 0;
    float x = 0, y = 0, x2 = 0, y2 = 0;
};

struct Project {
    std::vector<ImageEntry> images;
    std::vector<ControlPoint> controlPoints;
};
