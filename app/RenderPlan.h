#pragma once
// The decisions of a render job, made once into a RenderPlan before the job
// acts on them: input kind, mode, slot count, output sizes and the steps of
// the job in the order they run, each with the files it writes. None of this
// needs a GL context; the job checks the plan against the GPU once, then
// walks its steps.
//
// The plan is made in three phases:
//   planInput          from the options alone (input kind, output names);
//   planProject /      from the loaded project (mode, slots, equirect width),
//   planImageInput /   from the size of a .hdr/.exr input,
//   planPictureInput   or from the header of a JPEG, PNG or TIFF input;
//   planSteps          cube face width and the list of steps.
// planJob runs all three. Console lines that belong to the moment a step runs
// (the cube face width, the tone-mapping-only notice) are kept in the plan as
// Note steps; the listing and the equirect width are printed while planning.
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "app/Options.h"
#include "image/Picture.h"
#include "project/Project.h"

enum class InputKind {
    TspProject,     // ".tsp" project document
    PtsScript,      // anything else that is not an image: a pts script
    RadianceImage,  // ".hdr" panorama this program rendered
    ExrImage,       // ".exr" panorama this program rendered
    PictureImage,   // JPEG, PNG or TIFF equirectangular panorama, whole or placed by its XMP
};

// What one step of a job does. The executor (app/RenderJob.cpp) has one case
// per kind; planSteps decides which steps a job has and in what order.
enum class StepKind {
    Stitch,            // the project stitched into a new panorama
    ReadImage,         // the image input read as the panorama
    Note,              // prints `text` on standard error
    Logo,              // the logo drawn into the nadir
    UpsideDown,        // the panorama turned by 180 degrees
    Thumbnail,         // 1000 x 500 JPEG
    EquirectRadiance,  // the RGBE panorama as a Radiance file
    EquirectExr,       // the RGBE panorama as OpenEXR
    CubeMapExr,        // tiled OpenEXR cube map from the RGBE panorama
    Tonemap,           // RGBE to 8-bit RGB in place
    EquirectJpeg,      // the 8-bit panorama with its photo-sphere metadata
    PlainJpeg,         // the 8-bit panorama as a bare JPEG (tone-mapping only)
    CubeFacesJpeg,     // JPEG faces or a tile pyramid, and the web viewers' files
};

struct PlanStep {
    StepKind kind;
    std::vector<std::string> outputs;  // files the step writes, in the order it writes them
    std::string text;                  // Note only: the console text with its newline
};

struct RenderPlan {
    // From the options, which the plan keeps as they were given (logo,
    // compression and auto level are read from there).
    JobOptions options;
    InputKind input = InputKind::PtsScript;
    PictureKind picture = PictureKind::Unknown;  // the file's kind for a PictureImage
    std::string inputPath;
    std::string projectPath;    // document embedded into EXR outputs; empty for an image input
    std::string outputPrefix;
    std::string thumbnailPath;  // outputPrefix text + " thumbnail.jpg"
    bool tileFolder = false;    // the prefix names a folder: JPEG faces as a tile pyramid, no thumbnail

    // From the project or the image input.
    Project project;           // projects only: as loaded, with the upside-down rule applied
    bool hdr = false;
    bool upsideDown = false;   // turn the panorama by 180 degrees
    bool tonemapOnly = false;  // image input of a size this program does not render
    RigLayout layout = RigLayout::FisheyeRing;  // projects only
    int slotCount = 0;         // projects only; the general layout's width step is that of 5 slots
    int32_t width = 0;         // equirect panorama
    int32_t height = 0;
    // A picture that covers only part of the sphere: where it goes in the
    // width x height panorama, the rest black. Absent for a whole panorama.
    PanoramaPlacement placement;
    // The picture is a JPEG that only the JPEG faces read: it is decoded
    // straight into their texture, never held whole in memory.
    bool decodeToTexture = false;

    // From planSteps.
    int32_t cubeFaceWidth = 0;
    std::vector<PlanStep> steps;  // in the order the job runs them

    bool isProject() const { return input == InputKind::TspProject || input == InputKind::PtsScript; }
    bool writesThumbnail() const { return width >= 2000 && !tileFolder; }
    bool has(StepKind kind) const;
    // Every file the steps write, each once, in the order first written.
    std::vector<std::string> outputFiles() const;
    // The equirect JPEG: a panorama no wider than the thumbnail takes the thumbnail's name.
    std::string equirectJpegPath() const { return width > 1000 ? outputPrefix + ".jpg" : thumbnailPath; }
    std::string radiancePath() const { return outputPrefix + ".hdr"; }
    std::string exrPath() const { return outputPrefix + ".exr"; }
    // The JPEG written instead of everything else when tonemapOnly.
    std::string tonemapOnlyPath() const { return outputPrefix + ".jpg"; }
};

// What an input file must be, as the messages that refuse one say it.
constexpr const char* kExpectedInput = "expected a pts or tsp project or an equirect image";

// Refuses an input that is not a readable regular file, before anything else
// of the job happens: throws std::runtime_error naming it in single quotes,
// saying what it is ("does not exist", "is a folder", ...) and, after a
// semicolon, kExpectedInput.
void checkInputFile(const std::string& path);

// Phase one: input kind and output names from the options. A ".tsp" or
// ".pts" input is a project whatever it holds; any other input is the kind
// of picture its first bytes announce, else a .hdr/.exr image or a pts
// script by its extension as always. Throws std::runtime_error for an
// existing file named as a JPEG, PNG or TIFF picture whose content is none
// of the kinds above.
RenderPlan planInput(const JobOptions& options);

// Phase two for a project: mode, upside-down rule (applied to the project,
// see applyUpsideDownRule), slot count and equirect width (with its console
// line on `log`); the plan keeps the project for the stitch. Throws
// std::runtime_error "Invalid output equirect width %d".
void planProject(RenderPlan& plan, Project project, std::ostream& log);

// Phase two for a .hdr/.exr input of the given size: HDR, or tone-mapping only
// for a size this program does not render (with reprojectAnySize, for a size
// that is not 2:1).
void planImageInput(RenderPlan& plan, int32_t width, int32_t height);

// Phase two for a JPEG, PNG or TIFF input: HDR for floating-point samples,
// else LDR; the panorama is the picture itself when it is 2:1, else the full
// panorama its Photo Sphere XMP places it in. Throws std::runtime_error for a
// picture that is neither, for a placement outside its panorama and for a
// panorama beyond kMaxPicturePixels.
void planPictureInput(RenderPlan& plan, const PictureInfo& info);

// Phase three: cube face width (a quarter of the panorama unless given,
// rounded when a cube map EXR or a tile pyramid is written, its console line
// kept as a Note after the panorama is made) and the steps. Throws
// std::runtime_error for a cube face width that cannot be written.
void planSteps(RenderPlan& plan);

// The whole plan of a job: checks the input file (checkInputFile), loads the
// project (the listing and the equirect width line go to `log`), or reads
// only the header of an image input.
// Throws what the job would throw for the same options and files up to that
// point.
RenderPlan planJob(const JobOptions& options, std::ostream& log);

// The plan in a few lines, for reading (not a console line of the job).
void printPlan(const RenderPlan& plan, std::ostream& out);

// One line per image entry on `log`: its file name and a blank, then the 14
// float fields (yaw, roll, pitch, fov, a, b, c, d, e, exposure, va, vb, vc,
// vd) in the stream's default format, each followed by a blank.
void printProjectListing(const Project& project, std::ostream& log);

// HDR mode: the first entry's file is a Radiance image (".hdr").
bool isHdrProject(const Project& project);

// A trailing orientation entry whose fourth value (kept in `fov`) is above 90
// marks a capture taken upside down: its roll and pitch are negated here and
// the result must be turned by 180 degrees. Returns whether it was.
bool applyUpsideDownRule(Project& project);

// Capture positions around the horizon: 5 up to 7 entries (the orientation
// entry counts), else 6; 5 in the general layout.
int slotCountOf(const Project& project);

// Width for a project of the general layout when none is given: the
// panorama's pixels per degree those of the sharpest source at its centre
// (focal length), rounded down to a multiple of 4 * slotCount and kept
// within 4 * slotCount and the widest default of the ring layouts.
int32_t rigEquirectWidth(const Project& project, int slotCount);

// Width chosen from the first entry's pixel count (32-bit product) when none
// is given; always a multiple of 4 * slotCount.
int32_t defaultEquirectWidth(const Project& project, int slotCount);

// A given width rounded down to a multiple of 4 * slotCount (remainder with
// the dividend's sign), with the "Adjusting output equirect width ..." line on
// `log` when it changes.
int32_t adjustEquirectWidth(int32_t erWidth, int slotCount, std::ostream& log);

// Cube face width rounded up to k * 2^e with 2^e the largest power of two not
// above width / 256, so that the faces split into power-of-two tiles; prints
// "Adjusting output cubeface width from ..." on `log` every time. Widths below
// 256 keep their value (2^e = 1). Throws std::runtime_error for a width below 1.
int32_t roundCubeFaceWidth(int32_t cfWidth, std::ostream& log);

// Sizes this program writes, and so reads back as an equirect input:
// width = 2 * height and width a multiple of 20.
bool isRenderedEquirectSize(int32_t width, int32_t height);

// The panorama of `plan` from its decoded picture: the picture itself, or a
// black panorama with the picture where its placement says.
Image placePicture(Image picture, const RenderPlan& plan);

// Turns a packed image by 180 degrees: reverses the order of `pixelCount`
// pixels of `bytesPerPixel` bytes each.
void reversePixels(uint8_t* pixels, int64_t pixelCount, int bytesPerPixel);
