#pragma once
// Six cube faces from an equirectangular panorama, rendered on the GPU one face
// per pass with the "envmap" shader, written as one tiled, mipmapped OpenEXR
// cube map or as JPEG faces (single files or a tile pyramid).
//
// Face orientation (the same for both writers): each face is what a web cube
// viewer shows. f looks at the horizontal centre of the panorama (lon 0), r at
// lon +90, b at 180, l at -90, u at the zenith, d at the nadir; the four side
// faces are upright, u's bottom edge and d's top edge touch f. Face pixel
// (i, j), i to the right and j down, looks along
//   forward + (2(i + 0.5)/s - 1) right - (2(j + 0.5)/s - 1) up.
#include <array>
#include <string>
#include <vector>

#include "image/ImageView.h"
#include "image/TileEncoding.h"
#include "libglutil/Texture.h"
#include "project/CameraMatrix.h"

// Cube map from the RGBE panorama into `path`, faces of s x s stacked in
// the table's order, tiled, with round-down mipmap levels. Prints the image's
// exponent statistics first.
void writeCubeFacesExr(const ImageView& rgbe, int faceSize, const std::string& path,
                       const std::string& compression, const std::string& previewPath,
                       const std::string& projectPath);

// Names of the cube face images for an output prefix: prefix + "_" + letter +
// "." + extension, or, when the prefix ends in "/" or "\", a tile pyramid
// "%d_%s_%02d_%02d.<extension>" (level, letter, tile row, tile column) inside
// that folder. Beside them two small JPEG previews of the whole cube (see
// previewFaceSize): the strip of all six faces and the front face alone,
// prefix + "_preview-strip.jpg" and "_preview.jpg", or "preview-strip.jpg"
// and "preview.jpg" in the pyramid's folder.
//
// Pannellum's multires template numbers levels from 1 and cannot pad rows and
// columns, so a pyramid's folder also holds a folder "pannellum" in which its
// level 1 is the preview faces, "1_<letter>_0_0.<extension>", and its level
// L > 1 is the pyramid's level L - 2 under the names
// "<L>_<letter>_<row>_<column>.<extension>" (links to the tiles, see
// webViewerLinks).
class CubeJpegNames {
public:
    explicit CubeJpegNames(const std::string& outputPrefix, const char* extension = "jpg");
    bool pyramid() const { return pyramid_; }
    const std::string& folder() const { return folder_; }  // with a trailing '/'; pyramid only
    const std::string& extension() const { return extension_; }
    std::string face(int face) const;
    std::string tile(int level, int face, int row, int column) const;
    std::string previewStrip() const;
    std::string previewFront() const;
    std::string pannellumTile(int pannellumLevel, int face, int row, int column) const;
    // Every file for faces of `faceSize`, in the order they are written.
    std::vector<std::string> all(int faceSize) const;

private:
    std::string prefix_;
    std::string folder_;
    std::string extension_;
    bool pyramid_ = false;
};

// Faces from the 8-bit panorama in `encoding`, named by `names`, then the two
// previews (JPEG at the same quality) and, for a pyramid, Pannellum's preview
// faces (in `encoding`); a pyramid's folders are made when they do not exist.
void writeCubeFacesJpeg(const ImageView& rgb, int faceSize, const CubeJpegNames& names, const TileEncoding& encoding);
// The same from the panorama already uploaded (uploadRgb, loadRgbJpeg), for
// a caller that keeps no copy of its pixels in memory while the faces render.
void writeCubeFacesJpeg(const Texture& panorama, int faceSize, const CubeJpegNames& names,
                        const TileEncoding& encoding);

// The folder of Pannellum's tile names inside a pyramid's folder.
constexpr const char* kPannellumFolder = "pannellum";

// Edge of a face in the previews: the face halved (2 x 2 box, truncating)
// until it is at most 256 pixels, which is also where the pyramid's levels
// lead when halved further.
int previewFaceSize(int faceSize);

// The faces of the preview strip from left to right, each previewFaceSize
// wide, oriented as the faces themselves: Marzipano's letter order, which
// Photo Sphere Viewer's horizontal strip and krpano's strip order name too.
constexpr const char* kPreviewStripOrder = "bdflru";

// ---- Geometry shared by both writers and the shader (no GL) ----

struct CubeFace {
    float yaw;    // degrees
    float pitch;  // degrees
    const char* letter;
};
// In OpenEXR cube-map face order (+X, -X, +Y, -Y, +Z, -Z).
extern const std::array<CubeFace, 6> kCubeFaces;

// "yaw_pitch_mat": rotation about the vertical axis by yaw times the rotation
// about the horizontal axis by -pitch, Ym(yaw) Xm(pitch) with its signed zeros.
Mat3 yawPitchMatrix(float yawDeg, float pitchDeg);

// Tile edge for face size s: s halved while it is above 512 and even.
int cubeTileSize(int faceSize);

// Levels of the tile pyramid: level l (0 = smallest) holds faces of
// cubeTileSize(s) << l pixels in 2^l x 2^l tiles; the last level is the full face.
int pyramidLevelCount(int faceSize);

// "%d_%s_%02d_%02d.<extension>" of the pyramid.
std::string pyramidTileName(int level, const char* letter, int row, int column, const std::string& extension);

// CPU twin of shaders/envmap.*: the unit direction, in the panorama frame
// (x towards lon +90, y up, z towards lon 0), seen by pixel (i, j) of face f.
std::array<double, 3> cubeFaceDirection(int face, double i, double j, int faceSize);
