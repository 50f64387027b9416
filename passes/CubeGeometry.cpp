// Face table, face matrix, tile rule and the CPU twin of the envmap shader.
#include <cmath>

#include "image/FormatText.h"
#include "image/PathUtil.h"
#include "passes/CubeFaces.h"

const std::array<CubeFace, 6> kCubeFaces = {{
    {270.0f, 0.0f, "r"},
    {90.0f, 0.0f, "l"},
    {180.0f, 90.0f, "u"},
    {180.0f, -90.0f, "d"},
    {0.0f, 0.0f, "b"},
    {180.0f, 0.0f, "f"},
}};

Mat3 yawPitchMatrix(float yawDeg, float pitchDeg)
{
    // Ym(yaw) Xm(pitch) multiplied out by hand: operator* would give +0
    // where this gives -0 (-sp * sy with sp = 0), and a zero's sign can reach
    // the face pixels through the shader's atan2.
    const float yaw = yawDeg * kDegToRad, pitch = pitchDeg * kDegToRad;
    const float cy = std::cos(yaw), sy = std::sin(yaw);
    const float cp = std::cos(pitch), sp = std::sin(pitch);
    return {cy, 0.0f, -sy, -sp * sy, cp, -sp * cy, cp * sy, sp, cp * cy};
}

int cubeTileSize(int faceSize)
{
    int t = faceSize;
    while (t > 512 && t % 2 == 0)
        t /= 2;
    return t;
}

int pyramidLevelCount(int faceSize)
{
    int levels = 1;
    for (int t = cubeTileSize(faceSize); t < faceSize; t *= 2)
        ++levels;
    return levels;
}

CubeJpegNames::CubeJpegNames(const std::string& outputPrefix, const char* extension)
    : prefix_(outputPrefix), extension_(extension)
{
    pyramid_ = endsWithSeparator(outputPrefix);
    folder_ = outputPrefix;
#ifndef _WIN32
    // A trailing backslash names a folder as it would on Windows.
    if (pyramid_ && folder_.back() == '\\')
        folder_.back() = '/';
#endif
}

std::string CubeJpegNames::face(int face) const
{
    return prefix_ + "_" + kCubeFaces[face].letter + "." + extension_;
}

std::string CubeJpegNames::tile(int level, int face, int row, int column) const
{
    return folder_ + pyramidTileName(level, kCubeFaces[face].letter, row, column, extension_);
}

std::string CubeJpegNames::previewStrip() const
{
    return pyramid_ ? folder_ + "preview-strip.jpg" : prefix_ + "_preview-strip.jpg";
}

std::string CubeJpegNames::pannellumTile(int pannellumLevel, int face, int row, int column) const
{
    return folder_ + kPannellumFolder + "/" +
           formatText("%d_%s_%d_%d.%s", pannellumLevel, kCubeFaces[face].letter, row, column, extension_.c_str());
}

std::string CubeJpegNames::previewFront() const
{
    return pyramid_ ? folder_ + "preview.jpg" : prefix_ + "_preview.jpg";
}

std::vector<std::string> CubeJpegNames::all(int faceSize) const
{
    std::vector<std::string> files;
    const int tileSize = cubeTileSize(faceSize);
    const int top = pyramidLevelCount(faceSize) - 1;
    for (int f = 0; f < int(kCubeFaces.size()); ++f) {
        if (!pyramid_) {
            files.push_back(face(f));
            continue;
        }
        for (int l = top; l >= 0; --l) {
            const int tiles = (faceSize >> (top - l)) / tileSize;
            for (int r = 0; r < tiles; ++r)
                for (int c = 0; c < tiles; ++c)
                    files.push_back(tile(l, f, r, c));
        }
    }
    files.push_back(previewStrip());
    files.push_back(previewFront());
    if (pyramid_)
        for (int f = 0; f < int(kCubeFaces.size()); ++f)
            files.push_back(pannellumTile(1, f, 0, 0));
    return files;
}

std::string pyramidTileName(int level, const char* letter, int row, int column, const std::string& extension)
{
    return formatText("%d_%s_%02d_%02d.%s", level, letter, row, column, extension.c_str());
}

int previewFaceSize(int faceSize)
{
    while (faceSize > 256)
        faceSize /= 2;
    return faceSize;
}

std::array<double, 3> cubeFaceDirection(int face, double i, double j, int faceSize)
{
    // Face-local frame as in envmap.vert: x right, y up, z forward.
    const double s = faceSize;
    const double local[3] = {2.0 * (i + 0.5) / s - 1.0, 1.0 - 2.0 * (j + 0.5) / s, 1.0};
    const Mat3 m = yawPitchMatrix(kCubeFaces[face].yaw, kCubeFaces[face].pitch);
    double w[3];
    for (int r = 0; r < 3; ++r)
        w[r] = m[r] * local[0] + m[3 + r] * local[1] + m[6 + r] * local[2];
    // The face table's yaw counts from the back of the panorama (yaw 180 is
    // the front face), so the matrix's frame is the panorama frame turned by
    // 180 degrees about the vertical axis.
    const double len = std::sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]);
    return {-w[0] / len, w[1] / len, -w[2] / len};
}
