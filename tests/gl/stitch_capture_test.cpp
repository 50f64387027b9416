// Round trips through the whole stitching: a known panorama is photographed
// by a synthetic capture (project/SyntheticCapture: the CPU lens model,
// vignetting, exposure, 8-bit sRGB JPEG or Radiance sources, pts script), the
// capture is stitched, and the result is compared with the panorama the
// capture should give (same heading rule, same levelling).
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "image/Rgbe.h"
#include "passes/Stitch.h"
#include "project/LensModel.h"
#include "project/PtsImport.h"
#include "project/SyntheticCapture.h"

namespace fs = std::filesystem;

namespace {

const FloatImage& scene(const std::string& name)
{
    static std::vector<std::pair<std::string, FloatImage>> cache;
    for (const auto& c : cache)
        if (c.first == name)
            return c.second;
    cache.emplace_back(name, readPanoramaExr(std::string(TESSARA_SOURCE_DIR) + "/tests/data/panoramas/" + name));
    return cache.back().second;
}

struct Stitched {
    Capture capture;
    int width = 0, height = 0;
    std::vector<uint8_t> pixels;  // RGB or RGBE
    FloatImage truth;             // linear, times the capture's scene gain
    std::vector<uint8_t> coverage;
};

// A capture written to a temporary directory, removed with the object.
struct CaptureFiles {
    Capture capture;
    fs::path dir;
    std::string pts;
    const FloatImage* pano = nullptr;
    ~CaptureFiles() { fs::remove_all(dir); }
};

std::unique_ptr<CaptureFiles> photograph(const FloatImage& pano, CaptureOptions options)
{
    // 8-bit captures: bring the bright end of the scene below clipping, as
    // the capture tool does, unless the caller chose a gain.
    if (!options.hdr && options.sceneGain == 1.0)
        options.sceneGain = ldrGain(pano);
    auto files = std::make_unique<CaptureFiles>();
    files->capture = planCapture(options);
    files->pano = &pano;
    files->dir = fs::temp_directory_path() /
                 ("tessara_stitch_" + std::to_string(::getpid()) + "_" + options.stem);
    fs::create_directories(files->dir);
    writeCapture(pano, files->capture, files->dir.string(), false);
    files->pts = (files->dir / (options.stem + ".pts")).string();
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

// Imports the capture's script as the program does, stitches it at `width`
// and renders the truth at the same size.
Stitched stitch(const CaptureFiles& files, int width, bool useOrientation)
{
    Stitched s;
    s.capture = files.capture;
    Project project = importPtsScript(files.pts);
    s.width = width;
    s.height = width / 2;
    const bool hdr = files.capture.options.hdr;
    s.pixels.assign(size_t(s.width) * s.height * (hdr ? 4 : 3), 0);
    stitchEquirect(s.pixels.data(), s.width, s.height, files.pts, project, hdr, useOrientation);
    std::vector<uint8_t> seenByAny;
    s.truth = renderTruth(*files.pano, s.capture, width, useOrientation, &seenByAny, 2.0);
    s.coverage = drawableCoverage(s.capture, width, useOrientation, 2.0);
    size_t any = 0, drawable = 0;
    for (size_t i = 0; i < seenByAny.size(); ++i) {
        any += seenByAny[i] != 0;
        drawable += seenByAny[i] != 0 && s.coverage[i] != 0;
    }
    std::printf("  %.4f of the pixels the capture sees are seen by an image of their strip\n",
                double(drawable) / double(any));
    return s;
}

// A panorama without edges: slow colour waves over the sphere. Resampling
// reproduces it almost exactly, so whatever error remains comes from the
// blending and the photometric corrections: a seam, halo or brightness step
// stands out against quantisation noise.
const FloatImage& smoothScene()
{
    static FloatImage pano;
    if (pano.width == 0) {
        pano = FloatImage(1024, 512);
        for (int y = 0; y < pano.height; ++y)
            for (int x = 0; x < pano.width; ++x) {
                const double lon = (x + 0.5) / pano.width * 2 * M_PI - M_PI;
                const double lat = M_PI / 2 - (y + 0.5) / pano.height * M_PI;
                for (int c = 0; c < 3; ++c)
                    pano.pixel(x, y)[c] = float(0.3 + 0.12 * std::sin(2 * lon + c) * std::cos(lat) +
                                                0.08 * std::sin(3 * lat + 2 * c) +
                                                0.05 * std::cos(5 * lon - c) * std::cos(lat));
            }
    }
    return pano;
}

// With TESSARA_STITCH_PREVIEW set, writes /tmp/<name>.ppm (the stitch; HDR
// two stops up, sRGB), <name>_truth.ppm, <name>_error.ppm (8 x the LDR
// difference around grey) and <name>_cov.ppm (images of the strip that see
// each pixel) for looking at a result by eye.
void writePreview(const Stitched& s, const std::string& name)
{
    if (!std::getenv("TESSARA_STITCH_PREVIEW"))
        return;
    std::vector<uint8_t> rgb(size_t(s.width) * s.height * 3);
    std::vector<uint8_t> truth(rgb.size());
    const bool hdr = s.capture.options.hdr;
    for (size_t i = 0; i < size_t(s.width) * s.height; ++i) {
        float v[3];
        if (hdr)
            rgbeToFloat(&s.pixels[i * 4], v);
        for (int c = 0; c < 3; ++c) {
            rgb[i * 3 + c] = hdr ? uint8_t(std::lround(255 * srgbEncode(v[c] * 4))) : s.pixels[i * 3 + c];
            truth[i * 3 + c] = uint8_t(std::lround(255 * srgbEncode(s.truth.rgb[i * 3 + c])));
        }
    }
    std::vector<uint8_t> error(rgb.size());
    for (size_t i = 0; i < rgb.size(); ++i)
        error[i] = uint8_t(std::clamp(128 + 8 * (int(rgb[i]) - int(truth[i])), 0, 255));
    auto ppm = [&](const std::vector<uint8_t>& px, const std::string& file) {
        FILE* f = std::fopen(("/tmp/" + file + ".ppm").c_str(), "wb");
        if (!f)
            return;
        std::fprintf(f, "P6\n%d %d\n255\n", s.width, s.height);
        std::fwrite(px.data(), 1, px.size(), f);
        std::fclose(f);
    };
    ppm(rgb, name);
    ppm(truth, name + "_truth");
    ppm(error, name + "_error");
    std::vector<uint8_t> cov(rgb.size());
    for (size_t i = 0; i < s.coverage.size(); ++i)
        cov[i * 3] = cov[i * 3 + 1] = cov[i * 3 + 2] = uint8_t(std::min(255, 50 * s.coverage[i]));
    ppm(cov, name + "_cov");
}

// Signed error of every covered pixel: LDR in 8-bit levels (mean over the
// channels), HDR relative to the truth after the global scale.
std::vector<double> signedErrors(const Stitched& s, std::vector<uint8_t>& valid)
{
    const size_t n = size_t(s.width) * s.height;
    std::vector<double> err(n, 0);
    valid.assign(n, 0);
    const bool hdr = s.capture.options.hdr;
    std::vector<float> ours;
    double scale = 1;
    if (hdr) {
        ours.resize(n * 3);
        double sumOurs = 0, sumTruth = 0;
        for (size_t i = 0; i < n; ++i) {
            rgbeToFloat(&s.pixels[i * 4], &ours[i * 3]);
            if (s.coverage[i] != 0)
                for (int c = 0; c < 3; ++c) {
                    sumOurs += ours[i * 3 + c];
                    sumTruth += s.truth.rgb[i * 3 + c];
                }
        }
        scale = sumTruth / sumOurs;
    }
    for (size_t i = 0; i < n; ++i) {
        if (s.coverage[i] == 0)
            continue;
        double e = 0, ref = 0;
        for (int c = 0; c < 3; ++c) {
            if (hdr) {
                e += scale * ours[i * 3 + c] - s.truth.rgb[i * 3 + c];
                ref += s.truth.rgb[i * 3 + c];
            } else {
                e += s.pixels[i * 3 + c] - 255.0 * srgbEncode(s.truth.rgb[i * 3 + c]);
                ref += 3;
            }
        }
        err[i] = e / ref;
        valid[i] = 1;
    }
    return err;
}

// Error statistics split by how many source images see a pixel (1, 2, 3 or
// more): RMS error and the largest local bias, the mean signed error of a
// 9 x 9 block. A seam, a halo or a brightness step is a local bias that
// noise alone does not make.
struct SeamStats {
    double rms[4] = {0, 0, 0, 0};
    double bias[4] = {0, 0, 0, 0};
    size_t count[4] = {0, 0, 0, 0};
};

SeamStats seamStats(const Stitched& s)
{
    const int w = s.width, h = s.height;
    std::vector<uint8_t> valid;
    const std::vector<double> err = signedErrors(s, valid);
    // Box sums through summed-area tables.
    std::vector<double> sum(size_t(w + 1) * (h + 1), 0);
    std::vector<int> cnt(size_t(w + 1) * (h + 1), 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const size_t i = size_t(y) * w + x, j = size_t(y + 1) * (w + 1) + x + 1;
            sum[j] = err[i] + sum[j - 1] + sum[j - (w + 1)] - sum[j - (w + 1) - 1];
            cnt[j] = valid[i] + cnt[j - 1] + cnt[j - (w + 1)] - cnt[j - (w + 1) - 1];
        }
    auto box = [&](const auto& t, int x, int y) {
        const size_t a = size_t(y - 4) * (w + 1) + x - 4, b = size_t(y + 5) * (w + 1) + x + 5;
        return t[b] - t[b - 9] - t[a + 9] + t[a];
    };
    SeamStats st;
    for (int y = 4; y < h - 5; ++y)
        for (int x = 4; x < w - 5; ++x) {
            const size_t i = size_t(y) * w + x;
            if (!valid[i])
                continue;
            const int k = std::min<int>(s.coverage[i], 3);
            st.rms[k] += err[i] * err[i];
            ++st.count[k];
            if (box(cnt, x, y) == 81)
                st.bias[k] = std::max(st.bias[k], std::abs(box(sum, x, y) / 81.0));
        }
    for (int k = 1; k <= 3; ++k)
        st.rms[k] = st.count[k] ? std::sqrt(st.rms[k] / double(st.count[k])) : 0.0;
    return st;
}

void printSeamStats(const SeamStats& st)
{
    for (int k = 1; k <= 3; ++k)
        std::printf("  seen by %d%s: %zu px, rms %.4f, worst 9x9 bias %.4f\n", k, k == 3 ? "+" : "",
                    st.count[k], st.rms[k], st.bias[k]);
}

struct Quality {
    double psnr = 0;      // over pixels the capture covers
    double maxError = 0;  // levels
    double covered = 0;   // fraction of the truth's covered pixels that the stitch filled
};

Quality ldrQuality(const Stitched& s)
{
    Quality q;
    double sum = 0;
    size_t n = 0, filled = 0;
    for (size_t i = 0; i < size_t(s.width) * s.height; ++i) {
        if (s.coverage[i] == 0)
            continue;
        const uint8_t* p = &s.pixels[i * 3];
        filled += (p[0] | p[1] | p[2]) != 0;
        for (int c = 0; c < 3; ++c) {
            const double t = 255.0 * srgbEncode(s.truth.rgb[i * 3 + c]);
            const double e = p[c] - t;
            sum += e * e;
            q.maxError = std::max(q.maxError, std::abs(e));
        }
        ++n;
    }
    q.psnr = 10 * std::log10(255.0 * 255.0 / (sum / (3.0 * n)));
    q.covered = double(filled) / double(n);
    return q;
}

// HDR: the panorama is normalised to a fixed mean exponent, so it is compared
// after one global scale (ratio of the sums). Relative error of a pixel: sum
// of the channel errors over the sum of the truth's channels; pixels darker
// than 1/1000 of the mean are left out (RGBE keeps 8 bits of mantissa of the
// largest channel only).
struct HdrQuality {
    double meanRelative = 0;
    double p99Relative = 0;
    double covered = 0;
};

HdrQuality hdrQuality(const Stitched& s)
{
    const size_t n = size_t(s.width) * s.height;
    std::vector<float> ours(n * 3);
    double sumOurs = 0, sumTruth = 0;
    size_t count = 0, filled = 0;
    for (size_t i = 0; i < n; ++i) {
        rgbeToFloat(&s.pixels[i * 4], &ours[i * 3]);
        if (s.coverage[i] == 0)
            continue;
        ++count;
        filled += s.pixels[i * 4 + 3] != 0;
        for (int c = 0; c < 3; ++c) {
            sumOurs += ours[i * 3 + c];
            sumTruth += s.truth.rgb[i * 3 + c];
        }
    }
    const double scale = sumTruth / sumOurs;
    const double floor = 1e-3 * sumTruth / double(count);
    std::vector<double> rel;
    for (size_t i = 0; i < n; ++i) {
        if (s.coverage[i] == 0)
            continue;
        double err = 0, ref = 0;
        for (int c = 0; c < 3; ++c) {
            err += std::abs(scale * ours[i * 3 + c] - s.truth.rgb[i * 3 + c]);
            ref += s.truth.rgb[i * 3 + c];
        }
        if (ref > floor)
            rel.push_back(err / ref);
    }
    HdrQuality q;
    double sum = 0;
    for (double r : rel)
        sum += r;
    q.meanRelative = sum / double(rel.size());
    std::nth_element(rel.begin(), rel.begin() + rel.size() * 99 / 100, rel.end());
    q.p99Relative = rel[rel.size() * 99 / 100];
    q.covered = double(filled) / double(count);
    return q;
}

}  // namespace


// The capture of the lens conventions (5 slots, zenith image, portrait ring
// at roll -90, distorted and shifted fisheye), no orientation line (so asking
// for the orientation changes nothing): entry 1's direction lands at the
// centre column. Thresholds: the truth is rendered
// from the same panorama with supersampling; what remains is resampling blur
// at hard edges and 8-bit/JPEG noise (about 46 dB here); 36 dB is the
// required quality, and a heading off by half a degree (1.4 px at this
// width) already falls below it on this scene. Coverage: the stitch must
// fill what the capture sees, up to pixels seen only by an image its strip
// does not draw.
TEST(StitchCapture, FisheyeLdr)
{
    CaptureOptions o;
    o.stem = "fisheye";
    const auto files = photograph(scene("courtyard.exr"), o);
    const Stitched s = stitch(*files, 2000, true);
    writePreview(s, "stitch_fisheye");
    const Quality q = ldrQuality(s);
    std::printf("fisheye LDR: PSNR %.2f dB, max %.0f, filled %.4f\n", q.psnr, q.maxError, q.covered);
    EXPECT_GE(q.psnr, 36.0);
    EXPECT_GE(q.covered, 0.995);
}

// Nadir image instead of zenith, vignetting and per-image exposure, a
// levelled capture with an orientation line: the heading puts world
// longitude 0 at the centre and the correction levels the horizon. The same
// capture stitched without using the orientation keeps entry 1 centred and
// unlevelled. Thresholds as above.
TEST(StitchCapture, FisheyeNadirVignettingExposureOrientationLdr)
{
    CaptureOptions o;
    o.stem = "nadir";
    o.zenith = false;
    o.vignetting = true;
    o.exposure = true;
    o.orientation = true;
    // The panorama turns by whole columns (the shift is truncated): at this
    // width a heading of 36 degrees is exactly 200 columns.
    o.heading = 36;
    o.levelPitch = 4;
    o.levelRoll = -3;
    o.ptsYawOffset = 100;
    const auto files = photograph(scene("city.exr"), o);
    for (const bool useOrientation : {true, false}) {
        SCOPED_TRACE(useOrientation);
        const Stitched s = stitch(*files, 2000, useOrientation);
        writePreview(s, useOrientation ? "stitch_nadir" : "stitch_nadir_unlevelled");
        const Quality q = ldrQuality(s);
        std::printf("fisheye nadir LDR (orientation %d): PSNR %.2f dB, max %.0f, filled %.4f\n",
                    int(useOrientation), q.psnr, q.maxError, q.covered);
        EXPECT_GE(q.psnr, 36.0);
        EXPECT_GE(q.covered, 0.995);
    }
}

// Two rings of six rectilinear images and a zenith image, with vignetting
// and exposure. Thresholds as above.
TEST(StitchCapture, TwoRingLdr)
{
    CaptureOptions o;
    o.layout = CaptureLayout::TwoRing;
    o.stem = "tworing";
    o.vignetting = true;
    o.exposure = true;
    const auto files = photograph(scene("courtyard.exr"), o);
    const Stitched s = stitch(*files, 2040, false);
    writePreview(s, "stitch_tworing");
    const Quality q = ldrQuality(s);
    std::printf("two-ring LDR: PSNR %.2f dB, max %.0f, filled %.4f\n", q.psnr, q.maxError, q.covered);
    EXPECT_GE(q.psnr, 36.0);
    EXPECT_GE(q.covered, 0.995);
}

// Radiance sources in camera colours (the colour matrix of entry 0's width
// turns them back), vignetting and exposure. Threshold: 2 % mean relative
// error after one global scale is the requirement; RGBE truncation alone
// costs about 0.5 %. The 99th percentile bounds what edges add.
TEST(StitchCapture, FisheyeHdr)
{
    CaptureOptions o;
    o.stem = "hdr";
    o.hdr = true;
    o.vignetting = true;
    o.exposure = true;
    const auto files = photograph(scene("courtyard.exr"), o);
    const Stitched s = stitch(*files, 2000, false);
    writePreview(s, "stitch_hdr");
    const HdrQuality q = hdrQuality(s);
    std::printf("fisheye HDR: mean relative error %.4f, 99th percentile %.4f, filled %.4f\n", q.meanRelative,
                q.p99Relative, q.covered);
    EXPECT_LE(q.meanRelative, 0.02);
    EXPECT_LE(q.p99Relative, 0.15);
    EXPECT_GE(q.covered, 0.995);

    // A camera the colour matrix table does not know gets the zero matrix:
    // the panorama is black, and the exposure normalisation, finding no lit
    // pixel, leaves it so.
    Project unknown = importPtsScript(files->pts);
    unknown.images[0].width = 1234;
    std::vector<uint8_t> black(size_t(400) * 200 * 4, 0);
    stitchEquirect(black.data(), 400, 200, files->pts, unknown, true, false);
    EXPECT_EQ(std::count(black.begin(), black.end(), 0), std::ptrdiff_t(black.size()));
}

// No seam on a scene without edges, in both layouts, LDR and HDR, with and
// without vignetting and exposure. Bounds: where several images overlap the
// error may not exceed that where one image alone sees the scene by more
// than 20 % plus 0.1 level (RMS), and no 9 x 9 block may be biased by more
// than 1 level (LDR) or 1 % (HDR): a visible line or brightness step is
// several levels along its length, while 8-bit rounding and JPEG noise
// average out to a few tenths in a block.
TEST(StitchCapture, NoSeamsWhereImagesOverlap)
{
    struct Case {
        const char* name;
        CaptureLayout layout;
        bool hdr, photometry;
    };
    for (const Case& c : {Case{"seam_fisheye", CaptureLayout::Fisheye, false, false},
                          Case{"seam_fisheye_vign", CaptureLayout::Fisheye, false, true},
                          Case{"seam_tworing_vign", CaptureLayout::TwoRing, false, true},
                          Case{"seam_hdr_vign", CaptureLayout::Fisheye, true, true}}) {
        SCOPED_TRACE(c.name);
        CaptureOptions o;
        o.stem = c.name;
        o.layout = c.layout;
        o.hdr = c.hdr;
        o.vignetting = o.exposure = c.photometry;
        o.scale = 0.2;
        // Dark enough that no source clips even at -0.5 EV: clipped
        // highlights are a loss of the capture, not of the blending.
        o.sceneGain = ldrGain(smoothScene(), 1.0, 0.6);
        const auto files = photograph(smoothScene(), o);
        const Stitched s = stitch(*files, c.layout == CaptureLayout::Fisheye ? 1600 : 1608, false);
        writePreview(s, c.name);
        const SeamStats st = seamStats(s);
        std::printf("%s:\n", c.name);
        printSeamStats(st);
        const double single = st.rms[1];
        const double biasBound = c.hdr ? 0.01 : 1.0;
        const double noiseFloor = c.hdr ? 0.001 : 0.1;
        ASSERT_GT(st.count[2] + st.count[3], st.count[1]);
        for (int k = 2; k <= 3; ++k) {
            if (st.count[1] > 1000) {
                EXPECT_LE(st.rms[k], 1.2 * single + noiseFloor) << "seen by " << k;
            }
            EXPECT_LE(st.bias[k], biasBound) << "seen by " << k;
        }
        EXPECT_LE(st.bias[1], biasBound);
    }
}
