#pragma once
// The loaded panorama project: source images in drawing order (the last entry
// may be the orientation entry) and the control points of a pts script.
#include <cstdint>
#include <string>
#include <vector>

// How a lens maps the angle off its axis to the image: rectilinear (r = f tan
// theta), or equidistant fisheye (r = f theta) filling the frame or drawing a
// circle inside it. A circular fisheye's usable area is the ellipse inscribed
// in its crop rectangle.
enum class Projection { Rectilinear, FullFrameFisheye, CircularFisheye };

// The projection of a script's lens type number (the "f" of an image line):
// 0 rectilinear, 2 circular fisheye, every other number the full-frame
// (equidistant) fisheye.
Projection projectionOfLensType(int lensType);

inline bool isFisheye(Projection p) { return p != Projection::Rectilinear; }

// Source pixels [left, right) x [top, bottom) that hold the picture; empty
// (all zero) for the whole frame.
struct CropRect {
    int32_t left = 0, right = 0, top = 0, bottom = 0;
    bool empty() const { return right <= left || bottom <= top; }
};

struct ImageEntry {
    std::string fileName;
    int32_t width = 0;
    int32_t height = 0;
    float yaw = 0, roll = 0, pitch = 0, fov = 0;  // degrees
    float a = 0, b = 0, c = 0;                    // radial distortion
    float d = 0, e = 0;                           // optical-centre shift, source pixels
    float exposure = 0;                           // EV of the image
    float va = 0, vb = 0, vc = 0, vd = 0;         // vignetting polynomial
    Projection projection = Projection::FullFrameFisheye;
    CropRect crop;

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

// How the sources were shot, which decides how they are stitched: entry 0
// and a ring of five fisheye images, entry 0 and two rings of six
// rectilinear images, or any other set of images, each placed by its own
// angles.
enum class RigLayout { FisheyeRing, TwoRings, General };

struct Project {
    std::vector<ImageEntry> images;
    std::vector<ControlPoint> controlPoints;
    RigLayout layout = RigLayout::FisheyeRing;
};

// The layout of a project's entries: six source images (the orientation entry
// may follow, seven entries at most) none of them rectilinear are the fisheye
// ring; eight or more entries of which thirteen are source images, none of
// them a fisheye, the two rings; anything else the general layout.
RigLayout rigLayoutOf(const Project& project);

// Source images of a project: every entry but the orientation entry.
size_t sourceCount(const Project& project);
