#pragma once
// Synthetic captures: the source photographs a camera would have taken of a
// known equirectangular panorama, rendered with the CPU lens model, together
// with the pts script (and, on request, the tsp document) describing them,
// and the panorama the renderer is expected to make of them. This is how the
// stitching is checked against truth.
//
// Frames. The input panorama defines the world: longitude grows to the right,
// latitude up, lon 0 at the border between the two middle columns (the lens
// conventions). The script states the cameras in the stitcher's own frame
// ("rig" angles, with the first ring image at yaw `ptsYawOffset`); the
// cameras really point where the rig angles, the capture heading and the
// level error put them. Everything is computed so that the renderer's own
// composition (cameraMatrix with the orientation entry's pitch and roll as
// correction) undoes the level error, and its heading rule (the image of
// entry 1 at the centre column, or with an orientation line the direction
// of relative yaw -heading) puts the truth's centre where renderTruth
// expects it.
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "image/Colour.h"
#include "project/LensModel.h"
#include "project/Project.h"

// Linear float RGB, rows top first, three floats a pixel.
struct FloatImage {
    int width = 0, height = 0;
    std::vector<float> rgb;

    FloatImage() = default;
    FloatImage(int w, int h) : width(w), height(h), rgb(size_t(w) * size_t(h) * 3, 0.0f) {}
    float* pixel(int x, int y) { return rgb.data() + (size_t(y) * width + x) * 3; }
    const float* pixel(int x, int y) const { return rgb.data() + (size_t(y) * width + x) * 3; }
};

// Reads the R, G, B channels of an OpenEXR file as float (missing channels
// read as 0). Throws std::runtime_error "Error reading panorama '<path>': ...".
FloatImage readPanoramaExr(const std::string& path);

// Bilinear sample of an equirectangular image in the direction `dir` (world
// unit vector), wrapping in longitude and clamping at the poles.
std::array<float, 3> samplePanorama(const FloatImage& pano, const std::array<double, 3>& dir);

// Factor that brings the given percentile of the brightest channel to
// `level` (for 8-bit captures, where everything above 1 clips).
double ldrGain(const FloatImage& pano, double percentile = 0.98, double level = 0.9);

// The two ring layouts, and rigs the stitcher handles by its general path:
// four circular fisheyes 90 degrees apart tilted up 10 degrees (circle
// cropped, black outside), three full-circle fisheyes 120 degrees apart, and
// a ring of six rectilinear portrait frames with a zenith and a nadir shot.
enum class CaptureLayout { Fisheye, TwoRing, CircularFour, FisheyeThree, RectilinearRing };

struct CaptureOptions {
    CaptureLayout layout = CaptureLayout::Fisheye;
    // Image size relative to the full-size camera (4000 x 6000 portrait
    // frames); the centre shift d, e scales with it.
    double scale = 0.25;
    bool zenith = true;         // entry 0 looks up (pitch +90), else down
    double heading = 0;         // world longitude the first ring image faces
    double ptsYawOffset = 0;    // yaw the script gives the first ring image
    double ringPitch = 0;       // fisheye: ring pitch; two rings: +/- this, 0 meaning 25
    double jitter = 0;          // largest random change of each rig angle (deg)
    unsigned seed = 1;
    bool hdr = false;           // Radiance sources in camera colours, else sRGB JPEG
    int colourKey = 3666;       // HDR: width of entry 0 (height 1.5 times that), a key of the
                                // renderer's colour matrix table; the other images keep `scale`
    bool vignetting = false;    // darken by the vignetting curve the script states
    bool exposure = false;      // per-image exposure values
    bool orientation = false;   // write an orientation line...
    double levelPitch = 0;      // ...and tilt the capture by these (deg); the
    double levelRoll = 0;       //    line carries them as its correction
    double orientationTilt = 0; // fourth value of the orientation line
    double panoEv = 0;          // EV of the output the renderer makes (its gain divides by 2^panoEv)
    double sceneGain = 1;       // panorama values are multiplied by this first
    int supersample = 0;        // samples per source pixel along each axis; 0 = auto (at least 2)
    double detail = 0;          // stops of fine texture writeShot adds (0: none; seeded by seed)
    std::array<float, 3> outsideCrop{0, 0, 0};  // linear colour of the pixels outside a crop circle
    std::string stem = "capture";
};

struct CaptureShot {
    ImageEntry entry;   // as the script states it (rig angles, rounded as printed)
    LensModel camera;   // where the camera really pointed, in the world frame
};

struct Capture {
    CaptureOptions options;
    bool fisheye = true;
    bool general = false;             // a rig of the general path
    std::vector<CaptureShot> shots;   // entry 0, then the ring(s)
    bool hasOrientation = false;
    ImageEntry orientation;           // the orientation line's entry
    ImageEntry link;                  // values of the link line
    std::array<double, 9> colourMatrix{};  // renderer's matrix for colourKey (row-major), HDR only

    // The Project the script must import as.
    Project project() const;
    // The shot whose yaw the renderer takes as its reference: entry 1 of the
    // ring layouts, the first image of the others.
    int referenceShot() const { return general ? 0 : 1; }
};

// Decides sizes, angles, lens, exposure and vignetting of every shot. Every
// value is rounded to the text the script will hold and read back, so the
// renderer and the truth use identical numbers. Throws std::runtime_error for
// a scale outside (0, 4] and for HDR with a colourKey not in the table.
Capture planCapture(const CaptureOptions& options);

// The colour matrix of the renderer's table for an entry-0 width, row-major
// (pano colour = M * camera colour); all zero for an unknown width.
std::array<double, 9> colourMatrixFor(int width);

// Renders source image `index` as stored: linear values (before the 8-bit
// encoding), darkened by the vignetting curve and the exposure so that the
// renderer's gain restores the panorama, in camera colours for HDR.
// Positions beyond the lens's reachable radius stay black.
FloatImage renderShot(const FloatImage& pano, const Capture& capture, int index);

// Whether source position (x, y) lies at least `margin` pixels inside the
// image's frame and crop (the crop's inscribed ellipse for a circular fisheye,
// its margin measured along the semi-axes).
bool insideCrop(const ImageEntry& entry, double x, double y, double margin);

std::string ptsScript(const Capture& capture, const std::string& sourceName = "");
std::string tspDocument(const Capture& capture);

// Multiplies every pixel of a rendered source by 2^(amount * t), t a texture
// in [-1, 1] of sensor grain and sharp-edged cells a few pixels across,
// seeded by (seed, index): the full-resolution detail of a real photograph
// that a smooth panorama lacks, so that codecs work as hard as on one.
// Black stays black.
void addDetail(FloatImage& image, double amount, unsigned seed, int index);

// Renders source image `index` and writes it into `dir` under its file name:
// 8-bit sRGB JPEG, or Radiance RGBE (rounded to nearest) for HDR, with the
// detail of `options.detail` added. Returns the path.
std::string writeShot(const FloatImage& pano, const Capture& capture, int index, const std::string& dir);

// Writes stem.pts and, with `tsp`, stem.tsp into `dir` (created if needed).
std::vector<std::string> writeCaptureScripts(const Capture& capture, const std::string& dir, bool tsp,
                                             const std::string& sourceName = "");

// Renders and writes every source image (stem-NN.jpg or .hdr), stem.pts and,
// with `tsp`, stem.tsp into `dir`. Returns the paths written.
std::vector<std::string> writeCapture(const FloatImage& pano, const Capture& capture, const std::string& dir,
                                      bool tsp, const std::string& sourceName = "");

// Rotation (row-major) from the renderer's output frame to the world: the
// output pixel at (lonOut, latOut), lon 0 at the centre column, shows the
// world direction F * D(lonOut, latOut). With useOrientation the renderer
// levels by the orientation line and turns to its heading (world lon 0 at
// the centre); otherwise entry 1's direction is at the centre. The renderer
// turns by whole output pixels (its shift is truncated), so its centre may
// lie up to a pixel from this frame's; comparisons should allow for that.
std::array<double, 9> truthFrame(const Capture& capture, bool useOrientation);

// The panorama the renderer should produce at width x width/2, in linear
// values times sceneGain (not clamped; one sample a pixel, or n x n where
// the output is n times coarser than the panorama). With `coverage`, also the
// number of source images that see each pixel at least `margin` pixels
// inside their border (one byte a pixel).
FloatImage renderTruth(const FloatImage& pano, const Capture& capture, int width, bool useOrientation,
                       std::vector<uint8_t>* coverage = nullptr, double margin = 0);

