// The stitching pass: the "fish" shader's camera model against its CPU twin
// (which source position each panorama direction samples, where the valid
// area ends, the photometric gain), the stitcher's fixed rules, and round
// trips through the whole stitch: a known panorama photographed by a
// synthetic capture (the CPU lens model, vignetting, exposure, 8-bit sRGB
// JPEG or Radiance sources, pts script) is stitched and compared with the
// panorama the capture should give.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <numeric>
#include <string>
#include <tuple>
#include <vector>

#include "image/Colour.h"
#include "image/Jpeg.h"
#include "image/Rgbe.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/FullScreenPass.h"
#include "libglutil/Shader.h"
#include "libglutil/Texture.h"
#include "passes/Sharpen.h"
#include "passes/Stitch.h"
#include "passes/StitchReach.h"
#include "project/CameraMatrix.h"
#include "project/LensModel.h"
#include "project/PtsImport.h"
#include "support/GLSupport.h"
#include "support/Support.h"
#include "tools/make-capture/SyntheticCapture.h"

namespace {

constexpr int kOutW = 720, kOutH = 360;

// Setups of the reference vectors: portrait fisheye rolled to the ring, the
// zenith, an oblique one; a landscape fisheye; rectilinear landscape and
// portrait. All with distortion and centre shift.
std::vector<support::LensRow> lensCases()
{
    std::vector<support::LensRow> cases;
    for (const support::LensRow& r : support::lensVectors())
        if (std::string(" FP1 FP3 FP6 FL1 RE3 RP1 ").find(" " + r.camera + " ") != std::string::npos &&
            (cases.empty() || cases.back().camera != r.camera))
            cases.push_back(r);
    return cases;
}

std::string defines(bool fisheye, bool ldr = false)
{
    return std::string("#define USE_MASK\n") + (ldr ? "#define LDR\n" : "") + (fisheye ? "#define FISHEYE\n" : "");
}

// Uniforms of one draw over the whole sphere: one 360-degree strip, no
// levelling, no vignetting unless given.
void setLensUniforms(const Shader& program, const LensModel& lens, float exposure = 0,
                     std::array<float, 3> vign = {0, 0, 0}, const float* colorMat = nullptr)
{
    program.use();
    const Mat3 m = cameraMatrix(float(lens.yaw), float(lens.pitch), float(lens.roll), {0, 0}, {0, 0});
    program.setMatrix3("cameraMat", m.data());
    const std::pair<const char*, double> values[] = {{"fov", lens.v},    {"lens_a", lens.a}, {"lens_b", lens.b},
                                                     {"lens_c", lens.c}, {"lens_d", lens.d}, {"lens_e", lens.e},
                                                     {"exposureOffset", exposure}, {"outFovX", 360}};
    for (const auto& v : values)
        program.setUniform(v.first, float(v.second));
    program.setUniform("vign", vign[0], vign[1], vign[2]);
    program.setUniform("inSize", float(lens.w), float(lens.h));
    program.setUniform("outSize", float(kOutW), float(kOutH));
    program.setUniform("openSouth", 0);
    const float identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    if (glGetUniformLocation(program.program(), "colorMat") >= 0)
        program.setMatrix3("colorMat", colorMat ? colorMat : identity);
}

// An RGBA8 texture of w x h pixels, pixel (x, y) = pixel(x, y).
template <class F>
Texture textureOf(int w, int h, F pixel)
{
    std::vector<uint8_t> bytes(size_t(w) * h * 4);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const std::array<uint8_t, 4> p = pixel(x, y);
            std::copy(p.begin(), p.end(), bytes.begin() + (ptrdiff_t(y) * w + x) * 4);
        }
    return Texture::upload(w, h, GL_RGBA8, GL_RGBA, bytes.data());
}

Texture flatImage(int w, int h, std::array<uint8_t, 4> pixel)
{
    return textureOf(w, h, [&](int, int) { return pixel; });
}

// Draws `source` with `program` (uniforms set) over an empty mask and
// returns the float target's RGBA values, rows in memory order.
std::vector<float> render(const Shader& program, const Texture& source)
{
    static Texture emptyMask = flatImage(8, 8, {0, 0, 0, 0});
    return support::runPass(program, &source, kOutW, kOutH, [] { emptyMask.bind(GL_TEXTURE1); });
}

// RGBE image whose pixel (x, y) decodes to (x or y) = R + 256 G in red and
// green together (E = 136: the bytes are the values), 255 in blue (the
// coverage marker).
Texture coordinateImage(int w, int h, bool alongX)
{
    return textureOf(w, h, [&](int x, int y) {
        const int v = alongX ? x : y;
        return std::array<uint8_t, 4>{uint8_t(v & 255), uint8_t(v >> 8), 255, 136};
    });
}

double lonOf(int X) { return (X + 0.5) / kOutW * 360.0 - 180.0; }
double latOf(int Y) { return 90.0 - (Y + 0.5) / kOutH * 180.0; }

// True when the CPU model says the same (sampled or not) for the direction
// and its neighbours half an output pixel away: the valid area's border does
// not pass through this pixel.
bool clearOfBorder(const LensModel& lens, int X, int Y)
{
    double x, y;
    const bool centre = directionToPixel(lens, lonOf(X), latOf(Y), x, y);
    const double dl = 0.5 * 360.0 / kOutW, db = 0.5 * 180.0 / kOutH;
    for (const auto& o : {std::array<double, 2>{dl, 0}, {-dl, 0}, {0, db}, {0, -db}})
        if (directionToPixel(lens, lonOf(X) + o[0], latOf(Y) + o[1], x, y) != centre)
            return false;
    return true;
}



const FloatImage& scene(const std::string& name)
{
    static std::map<std::string, FloatImage> cache;
    if (!cache.count(name))
        cache[name] = readPanoramaExr(support::sourcePath("data/panoramas/" + name));
    return cache[name];
}

// A capture written to a scratch folder.
struct CaptureFiles {
    Capture capture;
    support::TempDir dir;
    std::string pts;
    const FloatImage* pano = nullptr;
};

std::unique_ptr<CaptureFiles> photograph(const FloatImage& pano, CaptureOptions options)
{
    // 8-bit captures: bring the bright end of the scene below clipping, as
    // the capture tool does, unless the caller chose a gain. One sample per
    // source pixel unless the caller asks for more: sharp sources cost no
    // accuracy here (about 0.3 dB) and take a fifth of the time.
    if (!options.hdr && options.sceneGain == 1.0)
        options.sceneGain = ldrGain(pano);
    options.supersample = std::max(options.supersample, 1);
    auto files = std::make_unique<CaptureFiles>();
    files->capture = planCapture(options);
    files->pano = &pano;
    writeCapture(pano, files->capture, files->dir.path(), false);
    files->pts = files->dir / (options.stem + ".pts");
    return files;
}

// Source images the stitch draws into each output column: entry 0 and, per
// ring, the two ring neighbours of the column's strip (after the heading
// turn). A direction that only an image of another strip sees cannot be
// filled; such pixels (looking across the zenith from a tilted ring) are
// left out of the comparisons.
std::vector<uint8_t> drawableCoverage(const Capture& capture, int width, bool useOrientation, double margin)
{
    const int height = width / 2;
    const bool fisheye = capture.fisheye;
    const StitchLayout layout = stitchLayout(capture.shots.size() + (capture.hasOrientation ? 1 : 0));
    const int slots = layout.slotCount, stripWidth = width / slots;
    float heading = 0;
    if (useOrientation && capture.hasOrientation)
        heading = capture.orientation.yaw - capture.shots[1].entry.yaw;
    const size_t shift = headingShiftBytes(layout, heading, width, 1);
    const std::array<double, 9> frame = truthFrame(capture, useOrientation);
    std::vector<LensProjection> lenses;
    for (const CaptureShot& shot : capture.shots)
        lenses.emplace_back(shot.camera);
    std::vector<uint8_t> coverage(size_t(width) * height, 0);
#pragma omp parallel for schedule(dynamic, 8)
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const int strip = int((size_t(x) + shift) % size_t(width)) / stripWidth + 1;
            std::vector<int> drawn = {0, strip == 1 ? slots : strip - 1, strip};
            if (!fisheye) {
                drawn.push_back(strip + slots);
                drawn.push_back(slots + 1 + strip % slots);
            }
            const std::array<double, 3> d = directionOf((x - (width - 1) / 2.0) * 360.0 / width,
                                                        ((height - 1) / 2.0 - y) * 180.0 / height);
            std::array<double, 3> world;
            for (int r = 0; r < 3; ++r)
                world[r] = frame[3 * r] * d[0] + frame[3 * r + 1] * d[1] + frame[3 * r + 2] * d[2];
            int seen = 0;
            for (const int k : drawn) {
                double px, py;
                const LensModel& l = lenses[k].lens();
                seen += lenses[k].toPixel(world, px, py) && px >= margin - 0.5 && px <= l.w - 0.5 - margin &&
                        py >= margin - 0.5 && py <= l.h - 0.5 - margin;
            }
            coverage[size_t(y) * width + x] = uint8_t(seen);
        }
    return coverage;
}

// Errors of the stitch against the truth over the pixels an image of their
// strip sees: LDR as PSNR of the 8-bit levels, HDR relative to the truth
// after one global scale (the panorama is normalised to a fixed mean
// exponent; pixels darker than 1/1000 of the mean are left out, RGBE keeping
// 8 bits of the largest channel only).
struct Errors {
    double psnr = 0, meanRelative = 0, p99Relative = 0, filled = 0;
    std::vector<uint8_t> pixels;  // the stitch, RGB or RGBE
    std::vector<uint8_t> coverage;  // images that see each pixel (0: left out)
    std::vector<float> error;       // LDR: stitch minus truth in 8-bit levels, 3 a pixel
};

// Imports the capture's script as the program does, stitches it at `width`
// and compares it with the truth rendered at the same size.
Errors stitch(const CaptureFiles& files, int width, bool useOrientation, const StitchTuning& tuning = {})
{
    Errors e;
    const int height = width / 2;
    const size_t n = size_t(width) * height;
    const bool hdr = files.capture.options.hdr;
    Project project = importPtsScript(files.pts);
    e.pixels.assign(n * (hdr ? 4 : 3), 0);
    stitchEquirect(MutableImageView(e.pixels.data(), width, height, panoramaChannels(hdr)), files.pts, project, hdr,
                   useOrientation, tuning);
    // A general rig draws every source into every strip: whatever a source
    // sees is drawable, but for the rim of a crop circle (4 pixels).
    std::vector<uint8_t> coverage;
    const bool general = files.capture.general;
    const FloatImage truth = renderTruth(*files.pano, files.capture, width, useOrientation,
                                         general ? &coverage : nullptr, general ? 5.0 : 2.0);
    if (!general)
        coverage = drawableCoverage(files.capture, width, useOrientation, 2.0);
    e.coverage = coverage;

    std::vector<float> ours(n * 3);
    double sumOurs = 0, sumTruth = 0;
    size_t covered = 0, filled = 0;
    for (size_t i = 0; i < n; ++i) {
        const uint8_t* p = &e.pixels[i * (hdr ? 4 : 3)];
        if (hdr)
            rgbeToFloat(p, &ours[i * 3]);
        else
            std::copy(p, p + 3, &ours[i * 3]);
        if (!coverage[i])
            continue;
        ++covered;
        filled += hdr ? p[3] != 0 : (p[0] | p[1] | p[2]) != 0;
        for (int c = 0; c < 3; ++c)
            sumOurs += ours[i * 3 + c], sumTruth += truth.rgb[i * 3 + c];
    }
    e.filled = double(filled) / double(covered);
    const double scale = sumTruth / sumOurs, floor = 1e-3 * sumTruth / double(covered);
    std::vector<double> relative;
    double squares = 0;
    for (size_t i = 0; i < n; ++i) {
        if (!coverage[i])
            continue;
        double absSum = 0, ref = 0;
        for (int c = 0; c < 3; ++c) {
            const double t = truth.rgb[i * 3 + c];
            const double d = hdr ? scale * ours[i * 3 + c] - t : ours[i * 3 + c] - 255.0 * srgbEncode(t);
            if (!hdr) {
                e.error.resize(n * 3);
                e.error[i * 3 + c] = float(d);
            }
            absSum += std::abs(d), squares += d * d, ref += t;
        }
        if (hdr && ref > floor)
            relative.push_back(absSum / ref);
    }
    e.psnr = 10 * std::log10(255.0 * 255.0 / (squares / (3.0 * double(covered))));
    if (hdr) {
        e.meanRelative = std::accumulate(relative.begin(), relative.end(), 0.0) / double(relative.size());
        std::nth_element(relative.begin(), relative.begin() + relative.size() * 99 / 100, relative.end());
        e.p99Relative = relative[relative.size() * 99 / 100];
    }
    return e;
}

}  // namespace

// Every covered direction samples the position the CPU model gives, within
// 0.01 px (the reference vectors' tolerance for a single-precision
// implementation; float trigonometry on the GPU stays far below it), and the
// shader covers exactly the directions the model calls valid (pixels that the
// valid area's border crosses are left out of that count).
TEST(StitchLens, ShaderSamplesWhereTheModelSays)
{
    for (const support::LensRow& c : lensCases()) {
        SCOPED_TRACE(c.camera);
        const LensModel& lens = c.lens;
        Shader program("fish", defines(lens.fisheye()));
        setLensUniforms(program, lens);
        const std::vector<float> xs = render(program, coordinateImage(lens.w, lens.h, true));
        const std::vector<float> ys = render(program, coordinateImage(lens.w, lens.h, false));
        double maxError = 0, sumError = 0;
        int compared = 0, coverageErrors = 0, covered = 0;
        for (int Y = 0; Y < kOutH; ++Y)
            for (int X = 0; X < kOutW; ++X) {
                const size_t i = (size_t(Y) * kOutW + X) * 4;
                double x, y;
                const bool valid = directionToPixel(lens, lonOf(X), latOf(Y), x, y);
                const bool drawn = xs[i + 2] > 0;
                covered += drawn;
                if (valid != drawn) {
                    coverageErrors += clearOfBorder(lens, X, Y);
                    continue;
                }
                // Inside the outer pixel centres the ramp is not clamped.
                if (!valid || x < 0 || y < 0 || x > lens.w - 1 || y > lens.h - 1)
                    continue;
                const double gx = xs[i] + 256.0 * xs[i + 1];
                const double gy = ys[i] + 256.0 * ys[i + 1];
                const double err = std::max(std::abs(gx - x), std::abs(gy - y));
                maxError = std::max(maxError, err);
                sumError += err;
                ++compared;
            }
        EXPECT_GT(compared, kOutW * kOutH / 40);
        EXPECT_EQ(coverageErrors, 0) << "of " << covered << " covered";
        EXPECT_LE(maxError, 0.01);
        // Mean: float rounding of the whole chain, a few thousandths at most.
        EXPECT_LE(sumError / std::max(compared, 1), 0.003);
    }
}

// Vignetting and exposure: a flat source comes out as the model's gain at the
// sampled position (divided by 1 + vb r^2 + vc r^4 + vd r^6 from the geometric
// centre, times 2^exposure). HDR: on linear values, then the colour matrix.
// LDR: the 8-bit value is decoded from sRGB, scaled and encoded again.
// Thresholds: the float pipeline (exp2, pow, polynomial) is good to about
// 1e-6 relative; 1e-4 leaves room for GPU transcendental functions while a
// wrong convention (centre shifted by d, e, Va not 1, gain on encoded
// values) moves results by percents.
TEST(StitchLens, PhotometricGainFollowsTheModel)
{
    const LensModel lens = lensCases()[0].lens;
    const std::array<float, 3> vign = {-0.35f, 0.12f, -0.08f};
    const float exposure = 0.7f;
    const float colorMat[9] = {2.048413f, -0.221627f, -0.007711f, -1.27161f, 1.776905f,
                               -0.592619f, 0.223197f, -0.555277f, 1.60033f};
    // HDR: (1, 0.5, 0.25) as RGBE. LDR: sRGB bytes, dark enough that the
    // gain does not clip.
    Shader hdr("fish", defines(true)), ldr("fish", defines(true, true));
    setLensUniforms(hdr, lens, exposure, vign, colorMat);
    const std::vector<float> hdrOut = render(hdr, flatImage(lens.w, lens.h, {128, 64, 32, 129}));
    const std::array<uint8_t, 4> ldrPixel = {90, 40, 12, 255};
    setLensUniforms(ldr, lens, exposure, vign);
    const std::vector<float> ldrOut = render(ldr, flatImage(lens.w, lens.h, ldrPixel));

    double hdrMax = 0, ldrMax = 0;
    int compared = 0;
    for (int Y = 0; Y < kOutH; ++Y)
        for (int X = 0; X < kOutW; ++X) {
            double x, y;
            if (!directionToPixel(lens, lonOf(X), latOf(Y), x, y) || !clearOfBorder(lens, X, Y))
                continue;
            const double gain = photometricGain(lens.w, lens.h, x, y, 1.0, vign[0], vign[1], vign[2],
                                                exposure, 0.0);
            const size_t i = (size_t(Y) * kOutW + X) * 4;
            const double linear[3] = {gain, 0.5 * gain, 0.25 * gain};
            for (int ch = 0; ch < 3; ++ch) {
                double expected = 0;
                for (int k = 0; k < 3; ++k)
                    expected += colorMat[3 * k + ch] * linear[k];
                hdrMax = std::max(hdrMax, std::abs(hdrOut[i + ch] - std::max(expected, 0.0)) / gain);
                const double c = ldrPixel[ch] / 255.0;
                const double decoded = c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
                ldrMax = std::max(ldrMax, std::abs(double(ldrOut[i + ch]) - srgbEncode(float(decoded * gain))));
            }
            ++compared;
        }
    EXPECT_GT(compared, kOutW * kOutH / 4);
    EXPECT_LE(hdrMax, 1e-4);
    EXPECT_LE(ldrMax, 1e-4);
}

// Six images and the orientation entry: one fisheye ring of five slots;
// seven entries or more: two rings of six.
TEST(StitchRules, LayoutFollowsTheEntryCount)
{
    const StitchLayout seven = stitchLayout(7), eight = stitchLayout(8);
    EXPECT_EQ(std::make_tuple(seven.slotCount, seven.slotAngle, seven.fisheye), std::make_tuple(5, 72.0f, true));
    EXPECT_EQ(std::make_tuple(eight.slotCount, eight.slotAngle, eight.fisheye), std::make_tuple(6, 60.0f, false));
}

// Rows turn left by the columns that bring longitude -heading to the centre:
// (slot + 180 - q - heading) / 360 of the width, truncated, q a quarter slot
// in the two-ring layout; a negative shift wraps once.
TEST(StitchRules, HeadingShift)
{
    const StitchLayout fisheye = stitchLayout(7), twoRing = stitchLayout(14);
    // No heading: 0.7 of the width for the fisheye layout.
    EXPECT_EQ(headingShiftBytes(fisheye, 0.0f, 14140, 3), size_t(9898) * 3);
    EXPECT_EQ(headingShiftBytes(twoRing, 0.0f, 2040, 4), size_t(1275) * 4);
    // 252 - 37.5 = 214.5 degrees of 2000 columns is 1191.67: truncated.
    EXPECT_EQ(headingShiftBytes(fisheye, 37.5f, 2000, 3), size_t(1191) * 3);
    // Heading 300: (252 - 300) / 360 * 2000 = -266.67 -> -266, plus one row.
    EXPECT_EQ(headingShiftBytes(fisheye, 300.0f, 2000, 4), size_t(2000 - 266) * 4);
    // A heading of a full turn more lands on the same columns (no overrun).
    EXPECT_EQ(headingShiftBytes(fisheye, 37.5f - 720.0f, 2000, 3), size_t(1191) * 3);
    EXPECT_LT(headingShiftBytes(fisheye, 1e30f, 2000, 3), size_t(2000) * 3);
}

// The mean exponent over non-black pixels, truncated toward zero, moves to -2
// (byte 126); black pixels stay black; bytes wrap modulo 256.
TEST(StitchRules, ExposureNormalisation)
{
    // Exponents 128 + {-5, -4, -4, -6} and one black pixel: mean -4.75 -> -4,
    // delta +2.
    std::vector<uint8_t> rgbe = {1, 2, 3, 123, 9, 9, 9, 124, 0, 0, 0, 0, 7, 7, 7, 124, 5, 5, 5, 122};
    EXPECT_TRUE(normalizeExposure(MutableImageView(rgbe.data(), 5, 1, 4)));
    const std::vector<uint8_t> expected = {1, 2, 3, 125, 9, 9, 9, 126, 0, 0, 0, 0, 7, 7, 7, 126, 5, 5, 5, 124};
    EXPECT_EQ(rgbe, expected);

    // Bright scene (mean +100): delta -102 wraps below the byte range only
    // for exponents that were already below it.
    std::vector<uint8_t> bright = {1, 1, 1, 228, 1, 1, 1, 228};
    EXPECT_TRUE(normalizeExposure(MutableImageView(bright.data(), 1, 2, 4)));
    EXPECT_EQ(bright[3], 126);

    // All black: no mean, nothing changes, no failure.
    std::vector<uint8_t> black(4 * 16, 0);
    black[0] = 200;  // mantissa bytes alone do not make a pixel lit
    const std::vector<uint8_t> before = black;
    EXPECT_FALSE(normalizeExposure(MutableImageView(black.data(), 4, 4, 4)));
    EXPECT_EQ(black, before);
}

// A project that lacks ring images fails with a message before any GL work.
TEST(StitchRules, IncompleteProjectIsAnError)
{
    Project project;
    project.images.resize(4);
    Image pixels(100, 50, 3);
    EXPECT_EQ(support::errorOf([&] { stitchEquirect(pixels.mutableView(), "/nonexistent/p.pts", project, false, true); }),
              "project has 4 entries, but a capture of 5 slots needs 6 source images");
}

// The CPU twin of the LDR sharpen pass gives the pass's bytes (RGB8 source,
// RGBA8 target, alpha aside), over the part of the image asked for, from its
// rows and one more on each side. Image 1: plus-shaped groups (pixel (x, y)
// is a centre when x + 2y = 0 mod 5, else the neighbour of one) give every
// centre value neighbours that put the exact result half-way between two
// levels (12 c - sum = 4 mod 8 in levels, unclamped), where the texel reads,
// the sums and the store's rounding all decide.
// Image 2: a source of a detailed capture, whole and a part off the edges.
TEST(StitchSharpen, CpuTwinMatchesThePass)
{
    const int w = 256, h = 256;
    Image pattern(w, h, 3);
    const std::vector<uint8_t> noise = support::patternBytes(1 << 20, 19);
    std::vector<std::array<int, 5>> groups;  // c, l, r, u, d
    size_t n = 0;
    for (int c = 0; c < 256; ++c)
        for (int sum = c % 2 == 0 ? 4 : 0; sum <= 1020; sum += 8)
            for (int tries = 0, found = 0; tries < 40 && found < 3; ++tries, n += 3) {
                const int l = noise[n % noise.size()], r = noise[(n + 1) % noise.size()];
                const int u = noise[(n + 2) % noise.size()], d = sum - l - r - u;
                if (d >= 0 && d <= 255 && 8 * std::min({c, l, r, u, d}) <= 12 * c - sum &&
                    12 * c - sum <= 8 * std::max({c, l, r, u, d}))
                    groups.push_back({c, l, r, u, d}), ++found;
            }
    size_t g = 0;
    for (int y = 1; y + 1 < h; ++y)
        for (int x = 1 + (5 - (1 + 2 * y) % 5) % 5; x + 1 < w && g < groups.size(); x += 5)
            for (int k = 0; k < 3 && g < groups.size(); ++k, ++g)
                for (const auto [dx, dy, i] : {std::array<int, 3>{0, 0, 0}, {-1, 0, 1}, {1, 0, 2}, {0, -1, 3}, {0, 1, 4}})
                    pattern.pixel(x + dx, y + dy)[k] = uint8_t(groups[g][i]);

    CaptureOptions o;
    o.detail = 4, o.scale = 0.2, o.supersample = 1, o.sceneGain = ldrGain(scene("courtyard.exr"));
    support::TempDir dir;
    const Image detailed = readJpeg(writeShot(scene("courtyard.exr"), planCapture(o), 1, dir.path()));
    const std::pair<const Image*, PixelRect> cases[] = {
        {&pattern, {0, 0, w, h}}, {&detailed, {0, 0, 800, 1200}}, {&detailed, {5, 17, 700, 1100}}};
    for (const auto& [image, part] : cases) {
        const int iw = image->width(), ih = image->height();
        const Texture source = Texture::upload(iw, ih, GL_RGB8, GL_RGB, image->data());
        const RenderTarget target(iw, ih, GL_RGBA8);
        sharedShader("sharpen", "#define LDR\n#define DIRECT_FETCH\n").use();
        source.bind(GL_TEXTURE0);
        target.framebuffer.bind();
        fullScreenPass(iw, ih);
        Image gpu(iw, ih, 4);
        target.framebuffer.read(gpu.data(), GL_RGBA, GL_UNSIGNED_BYTE, iw, ih);
        const int first = std::max(part.y0 - 1, 0), rows = std::min(part.y1 + 1, ih) - first;
        Image cpu(iw, rows, 3);
        std::copy(image->pixel(0, first), image->pixel(0, first + rows), cpu.data());
        sharpenLdr(cpu.mutableView(), first, ih, part);
        int differ = 0;
        for (int y = part.y0; y < part.y1; ++y)
            for (int x = part.x0; x < part.x1; ++x)
                differ += !std::equal(cpu.pixel(x, y - first), cpu.pixel(x, y - first) + 3, gpu.pixel(x, y));
        EXPECT_EQ(differ, 0) << "pixels differ in a " << iw << " x " << ih << " image (" << g << " of " << groups.size() << " groups)";
    }
}

// 8-bit captures stitched at 2000 columns against their truth, rendered from
// the same panorama with supersampling. What remains is resampling blur at
// hard edges and 8-bit/JPEG noise (about 46 dB); 36 dB is required, and a
// heading off by half a degree (1.4 px here) already falls below it. The
// stitch must fill what the capture sees, up to pixels seen only by an image
// its strip does not draw.
// - The lens conventions' capture (5 slots, zenith image, portrait ring at
//   roll -90, distorted and shifted fisheye), no orientation line: entry 1's
//   direction lands at the centre column.
// - A nadir image, vignetting, per-image exposure and an orientation line:
//   the heading puts world longitude 0 at the centre (36 degrees are exactly
//   200 columns here) and the correction levels the horizon; without the
//   orientation entry 1 stays centred and the horizon unlevelled.
// - Two rings of six rectilinear images and a zenith image.
static void expectLdrCaptureMatches(const char* name, const CaptureOptions& options, int width, std::vector<bool> orientations)
{
    const auto files = photograph(scene(name), options);
    for (const bool useOrientation : orientations) {
        const Errors e = stitch(*files, width, useOrientation);
        std::printf("%s (orientation %d): PSNR %.2f dB, filled %.4f\n", options.stem.c_str(), int(useOrientation),
                    e.psnr, e.filled);
        EXPECT_GE(e.psnr, 36.0) << "orientation " << useOrientation;
        EXPECT_GE(e.filled, 0.995) << "orientation " << useOrientation;
    }
}

TEST(StitchCapture, LdrFisheye)
{
    CaptureOptions o;
    o.stem = "fisheye";
    expectLdrCaptureMatches("courtyard.exr", o, 2000, {true});
}

TEST(StitchCapture, LdrNadirVignettingExposureOrientation)
{
    CaptureOptions o;
    o.stem = "nadir";
    o.zenith = false;
    o.vignetting = o.exposure = o.orientation = true;
    o.heading = 36, o.levelPitch = 4, o.levelRoll = -3, o.ptsYawOffset = 100;
    expectLdrCaptureMatches("city.exr", o, 2000, {true, false});
}

TEST(StitchCapture, LdrTwoRings)
{
    CaptureOptions o;
    o.stem = "rings";
    o.layout = CaptureLayout::TwoRing;
    o.vignetting = o.exposure = true;
    expectLdrCaptureMatches("courtyard.exr", o, 2040, {false});
}

// Sources with 2.7 times the panorama's pixels per degree are decoded at half
// size (JPEG) or shrunk right after decoding (Radiance): the result must be
// at least as close to the truth as stitching the full-size sources (with the
// same heading: a shift of a quarter pixel costs about 4 dB here).
static void expectReducedSourcesAtLeastAsClose(const CaptureFiles& files, bool useOrientation)
{
    const bool hdr = files.capture.options.hdr;
    Errors e[2];
    for (const bool reduce : {false, true}) {
        StitchTuning tuning;
        tuning.reduceSources = reduce;
        e[reduce] = stitch(files, 800, useOrientation, tuning);
        std::printf("sources %s: PSNR %.3f dB, mean relative error %.5f, filled %.4f\n",
                    reduce ? "halved" : "full size", e[reduce].psnr, e[reduce].meanRelative, e[reduce].filled);
    }
    EXPECT_TRUE(e[0].pixels != e[1].pixels) << "the sources were not decoded smaller";
    EXPECT_GE(e[1].filled, 0.995);
    if (hdr)
        EXPECT_LE(e[1].meanRelative, e[0].meanRelative);
    else
        EXPECT_GE(e[1].psnr, e[0].psnr);
}

// Radiance sources in camera colours (the colour matrix of entry 0's width
// turns them back), vignetting and exposure: 2 % mean relative error after
// one global scale is required, and sources shrunk for a narrow panorama
// must not do worse than whole ones; RGBE truncation alone costs about 0.5 %, the
// 99th percentile bounds what edges add. A camera the colour table does not
// know gets the zero matrix: a black panorama, which the exposure
// normalisation, finding no lit pixel, leaves so.
TEST(StitchCapture, HdrCaptureMatchesItsPanorama)
{
    CaptureOptions o;
    o.stem = "hdr";
    o.hdr = o.vignetting = o.exposure = true;
    const auto files = photograph(scene("courtyard.exr"), o);
    const Errors e = stitch(*files, 2000, false);
    std::printf("HDR: mean relative error %.4f, 99th percentile %.4f, filled %.4f\n", e.meanRelative, e.p99Relative,
                e.filled);
    EXPECT_LE(e.meanRelative, 0.02);
    EXPECT_LE(e.p99Relative, 0.15);
    EXPECT_GE(e.filled, 0.995);
    // At 800 wide the ring images are shrunk to half their size (entry 0,
    // 3666 x 5499, does not divide and stays whole).
    expectReducedSourcesAtLeastAsClose(*files, false);

    Project unknown = importPtsScript(files->pts);
    unknown.images[0].width = 1234;
    std::vector<uint8_t> black(size_t(400) * 200 * 4, 0);
    stitchEquirect(MutableImageView(black.data(), 400, 200, 4), files->pts, unknown, true, false);
    EXPECT_EQ(std::count(black.begin(), black.end(), 0), std::ptrdiff_t(black.size()));
}

// Each source is drawn only over the part of the strip it can reach, and
// sharpened only where those draws can read it (8-bit ones on the CPU): the
// result must be byte for byte that of sharpening all of every source on the
// GPU and drawing it over the whole strip, with rolled, tilted, shifted and
// distorted lenses of both layouts.
// The bound must also be a real one: entry 0 does not reach the fifth of the
// rows nearest the other pole (the fisheye reaches about 45 degrees past the
// horizon), and a rectilinear ring image nothing of the strip behind it.
TEST(StitchCapture, BoundedDrawsMatchFullStrips)
{
    const struct { const char* name; CaptureLayout layout; bool hdr, zenith, orientation; } cases[] = {
        {"bound_fisheye", CaptureLayout::Fisheye, false, true, false},
        {"bound_tworing", CaptureLayout::TwoRing, false, true, true},
        {"bound_hdr_nadir", CaptureLayout::Fisheye, true, false, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CaptureOptions o;
        o.stem = c.name;
        o.layout = c.layout;
        o.hdr = c.hdr;
        o.zenith = c.zenith;
        o.jitter = 3;
        o.orientation = c.orientation;
        o.levelPitch = 2, o.levelRoll = -3, o.scale = 0.2;
        const auto files = photograph(scene("courtyard.exr"), o);
        const Project project = importPtsScript(files->pts);
        const bool fisheye = c.layout == CaptureLayout::Fisheye;
        const int width = fisheye ? 1000 : 1008;
        std::vector<uint8_t> pixels[2];
        for (const bool bound : {true, false}) {
            Project copy = project;
            pixels[bound].assign(size_t(width) * (width / 2) * (c.hdr ? 4 : 3), 0);
            StitchTuning tuning;
            tuning.boundDraws = tuning.cpuSharpening = bound;
            stitchEquirect(MutableImageView(pixels[bound].data(), width, width / 2, panoramaChannels(c.hdr)), files->pts, copy,
                           c.hdr, true, tuning);
        }
        EXPECT_TRUE(pixels[0] == pixels[1]);

        const auto reach = [&](const ImageEntry& e, float stripYaw) {
            return reachInTarget(lensModelOf(e), cameraMatrix(e.yaw, e.pitch, e.roll, {0, 0}, {stripYaw, 0}),
                                 fisheye ? 72.0f : 60.0f, 200, 1000);
        };
        const PixelRect r = reach(project.images[0], 0);
        EXPECT_TRUE(c.zenith ? r.y0 == 0 && r.y1 < 800 : r.y0 > 200 && r.y1 == 1000) << r.y0 << " " << r.y1;
        if (!fisheye) {
            EXPECT_TRUE(reach(project.images[1], project.images[1].yaw + 180.0f).empty());
            continue;
        }
        // A fisheye ring image's draws into the two strips beside its axis
        // read well under the whole of it, so its sharpening is bounded too
        // (a rectilinear one lies within them).
        const ImageEntry& ring = project.images[1];
        PixelRect read;
        for (const float side : {-36.0f, 36.0f}) {
            const PixelRect p = reachInSource(lensModelOf(ring),
                                              cameraMatrix(0, ring.pitch, ring.roll, {0, 0}, {side, 0}), 72.0f);
            read = read.empty() ? p : PixelRect{std::min(read.x0, p.x0), std::min(read.y0, p.y0),
                                                std::max(read.x1, p.x1), std::max(read.y1, p.y1)};
        }
        EXPECT_LT(double(read.x1 - read.x0) * (read.y1 - read.y0), 0.8 * ring.width * ring.height);
    }
}

// JPEG sources, with a distorted, shifted lens and a levelled capture.
TEST(StitchCapture, HalfSizeDecodingKeepsQuality)
{
    CaptureOptions o;
    o.stem = "reduced";
    o.supersample = 2;  // smooth sources: halving them must gain nothing from antialiasing
    o.orientation = true;
    o.heading = 36, o.levelPitch = 2, o.levelRoll = -3;
    expectReducedSourcesAtLeastAsClose(*photograph(scene("courtyard.exr"), o), true);
}

// Rigs of the general path, stitched at 720 columns against their truth:
// four cropped circular fisheyes tilted up, three full-circle fisheyes, and
// six rectilinear frames with a zenith and a nadir shot, with exposure steps
// and vignetting (and a levelled, turned capture); multi-band blended, and
// once as the plain weighted mean (39 to 42 dB measured). A heading off by a
// degree, a mirrored image or an uncorrected exposure step costs far more
// than the margin to the threshold. Seams: where the count of images that see
// a pixel changes (an image's border), the error must not jump more than
// elsewhere (gradient energy of stitch minus truth across those lines at most
// 1.6 times that of the other covered pixels; measured 0.7 to 1.5). The
// circular captures' outside is painted a saturated red: none of it may reach
// the panorama (the stitch stays within 16 levels of that of the
// black-painted capture, what JPEG smearing leaves past the circle's rim;
// drawing the whole frame differs by over 200).
TEST(StitchRig, CapturesMatchTheirTruth)
{
    const struct { const char* name; CaptureLayout layout; bool steps, orientation, multiBand; } cases[] = {
        {"circular4", CaptureLayout::CircularFour, true, false, true},
        {"fisheye3", CaptureLayout::FisheyeThree, false, true, true},
        {"rectring", CaptureLayout::RectilinearRing, true, true, true},
        {"rectring_mean", CaptureLayout::RectilinearRing, true, false, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CaptureOptions o;
        o.stem = c.name;
        o.layout = c.layout;
        o.scale = 0.1;
        o.exposure = o.vignetting = c.steps;
        o.orientation = c.orientation;
        o.heading = 30, o.levelPitch = 3, o.levelRoll = -2;
        const auto files = photograph(scene("courtyard.exr"), o);
        const int width = 720, n = width * width / 2;
        StitchTuning tuning;
        tuning.multiBand = c.multiBand;
        const Errors e = stitch(*files, width, true, tuning);
        double border = 0, inside = 0;
        int borders = 0, insides = 0;
        for (int i = 0; i < n; ++i) {
            const int x = i % width, right = x + 1 < width ? i + 1 : i + 1 - width, below = i + width;
            if (!e.coverage[i] || below >= n || !e.coverage[right] || !e.coverage[below])
                continue;
            double energy = 0;
            for (int ch = 0; ch < 3; ++ch)
                energy += std::pow(e.error[right * 3 + ch] - e.error[i * 3 + ch], 2) +
                          std::pow(e.error[below * 3 + ch] - e.error[i * 3 + ch], 2);
            const bool seam = e.coverage[right] != e.coverage[i] || e.coverage[below] != e.coverage[i];
            (seam ? border : inside) += energy;
            ++(seam ? borders : insides);
        }
        const double ratio = (border / borders) / (inside / insides);
        std::printf("%s: PSNR %.2f dB, filled %.4f, seam energy ratio %.2f over %d pixels\n", c.name, e.psnr, e.filled,
                    ratio, borders);
        EXPECT_GE(e.psnr, 36.0);
        EXPECT_GE(e.filled, 0.995);
        EXPECT_GT(borders, 1000);
        EXPECT_LE(ratio, 1.6);

        if (c.layout == CaptureLayout::RectilinearRing) {
            // Each draw bounded to the part of the strip its source reaches:
            // the same bytes as drawing every source over all of it.
            tuning.boundDraws = false;
            EXPECT_TRUE(stitch(*files, width, true, tuning).pixels == e.pixels);
            continue;
        }
        o.outsideCrop = {50, 0, 0};
        const auto red = photograph(scene("courtyard.exr"), o);
        const Errors r = stitch(*red, width, true);
        int worst = 0;
        for (size_t i = 0; i < r.pixels.size(); ++i)
            worst = std::max(worst, std::abs(int(r.pixels[i]) - int(e.pixels[i])));
        EXPECT_LE(worst, 16);
    }
}

// Radiance sources of a camera the colour table does not know, in a general
// rig: stitched in their own colours (not black), exposure steps and
// vignetting corrected: 4.7 % mean relative error measured (the weighted mean
// 4.5 %; most of it where the small 190-degree circles see the poles with
// their rims), 6 % required; a wrong exposure step or vignetting costs more.
TEST(StitchRig, HdrOfAnUnknownCamera)
{
    CaptureOptions o;
    o.stem = "rig_hdr";
    o.layout = CaptureLayout::FisheyeThree;
    o.scale = 0.1;
    o.hdr = o.exposure = o.vignetting = true;
    const auto files = photograph(scene("courtyard.exr"), o);
    ASSERT_EQ(cameraColourMatrix(files->capture.shots[0].entry.width), nullptr);
    const Errors e = stitch(*files, 720, false);
    std::printf("HDR rig: mean relative error %.4f, p99 %.4f, filled %.4f\n", e.meanRelative, e.p99Relative, e.filled);
    EXPECT_LE(e.meanRelative, 0.06);
    EXPECT_GE(e.filled, 0.995);
}
