// The synthetic capture generator: its source images must map back onto the
// panorama they were made from through the lens model, its script must
// import as planned, and its truth frame must agree with the camera matrix
// the renderer builds from that script.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <cmath>
#include <fstream>
#include <random>
#include <sstream>

#include "image/Jpeg.h"
#include "image/Radiance.h"
#include "image/Rgbe.h"
#include "project/CameraMatrix.h"
#include "project/LensModel.h"
#include "project/PtsImport.h"
#include "project/SyntheticCapture.h"
#include "project/TspProject.h"

namespace {

const std::string kCourtyard = TESSARA_SOURCE_DIR "/tests/data/panoramas/courtyard.exr";

// The 1024 x 512 test panorama box-filtered to 128 x 64, so that the small
// source images of these tests (0.4 degrees a pixel) have pixels much smaller
// than the panorama's (2.8 degrees): the round trip then measures the model,
// not resampling.
const FloatImage& smallPanorama()
{
    static const FloatImage small = [] {
        const FloatImage full = readPanoramaExr(kCourtyard);
        FloatImage s(full.width / 8, full.height / 8);
        for (int y = 0; y < s.height; ++y)
            for (int x = 0; x < s.width; ++x)
                for (int c = 0; c < 3; ++c) {
                    float sum = 0;
                    for (int j = 0; j < 8; ++j)
                        for (int i = 0; i < 8; ++i)
                            sum += full.pixel(8 * x + i, 8 * y + j)[c];
                    s.pixel(x, y)[c] = sum / 64;
                }
        return s;
    }();
    return small;
}

std::array<double, 3> bilinear(const FloatImage& img, double x, double y)
{
    x = std::clamp(x, 0.0, img.width - 1.0);
    y = std::clamp(y, 0.0, img.height - 1.0);
    const int x0 = std::min(int(x), img.width - 2), y0 = std::min(int(y), img.height - 2);
    const double fx = x - x0, fy = y - y0;
    std::array<double, 3> v;
    for (int c = 0; c < 3; ++c)
        v[c] = (1 - fy) * ((1 - fx) * img.pixel(x0, y0)[c] + fx * img.pixel(x0 + 1, y0)[c]) +
               fy * ((1 - fx) * img.pixel(x0, y0 + 1)[c] + fx * img.pixel(x0 + 1, y0 + 1)[c]);
    return v;
}

double luminance(const std::array<double, 3>& v) { return 0.2126 * v[0] + 0.7152 * v[1] + 0.0722 * v[2]; }

struct RoundTrip {
    int samples = 0, skipped = 0;
    double maxError = 0, meanError = 0;
    std::vector<double> errors;  // sorted
    double percentile(double p) const { return errors.empty() ? 0 : errors[size_t(p * (errors.size() - 1))]; }
};

// For random world directions seen by a rendered source image at least two
// pixels inside its border: source value times the renderer's gain (and
// colour matrix for HDR) against the panorama. Errors are relative to the
// panorama's value plus its mean luminance: relative where it is bright (the
// sun is thousands of times the mean), relative to the mean where it is dark.
RoundTrip roundTrip(const FloatImage& pano, const Capture& cap, const std::vector<FloatImage>& sources,
                    int directions)
{
    std::mt19937 rng(99);
    std::uniform_real_distribution<double> u(-1, 1);
    double meanLum = 0;
    for (size_t i = 0; i < pano.rgb.size(); i += 3)
        meanLum += luminance({pano.rgb[i], pano.rgb[i + 1], pano.rgb[i + 2]});
    meanLum = meanLum / (pano.rgb.size() / 3) * cap.options.sceneGain;

    const double panoPixel = 2 * M_PI / pano.width;
    RoundTrip r;
    for (int n = 0; n < directions; ++n) {
        std::array<double, 3> dir = {u(rng), u(rng), u(rng)};
        const double len = std::sqrt(dir[0] * dir[0] + dir[1] * dir[1] + dir[2] * dir[2]);
        if (len > 1 || len < 0.1) {
            --n;
            continue;
        }
        for (double& c : dir)
            c /= len;
        const std::array<float, 3> want = samplePanorama(pano, dir);
        for (size_t k = 0; k < cap.shots.size(); ++k) {
            if (sources[k].width == 0) continue;
            const ImageEntry& e = cap.shots[k].entry;
            double x, y;
            if (!LensProjection(cap.shots[k].camera).toPixel(dir, x, y)) continue;
            if (x < 2 || y < 2 || x > e.width - 3 || y > e.height - 3) continue;
            // Nor where a source pixel spans more than a panorama pixel: near
            // the fold of the fisheye distortion a pixel stretches radially
            // over several degrees (and beyond it the frame is black), so
            // interpolating the source there blurs what the panorama has.
            bool fine = true;
            const LensProjection proj(cap.shots[k].camera);
            std::array<double, 3> d0, d1;
            for (int corner = 0; corner < 4 && fine; ++corner)
                fine = proj.toDirection(x + (corner % 2 ? 1 : -1), y + (corner / 2 ? 1 : -1), d1) &&
                       proj.toDirection(x, y, d0) &&
                       std::acos(std::min(1.0, d0[0] * d1[0] + d0[1] * d1[1] + d0[2] * d1[2])) < 0.5 * panoPixel;
            if (!fine) {
                ++r.skipped;
                continue;
            }
            std::array<double, 3> got = bilinear(sources[k], x, y);
            const double gain = photometricGain(e.width, e.height, x, y, e.va, e.vb, e.vc, e.vd, e.exposure,
                                                cap.options.panoEv);
            for (double& c : got)
                c *= gain;
            if (cap.options.hdr) {
                const auto& m = cap.colourMatrix;
                got = {m[0] * got[0] + m[1] * got[1] + m[2] * got[2], m[3] * got[0] + m[4] * got[1] + m[5] * got[2],
                       m[6] * got[0] + m[7] * got[1] + m[8] * got[2]};
            }
            for (int c = 0; c < 3; ++c) {
                const double ref = want[c] * cap.options.sceneGain;
                const double err = std::abs(got[c] - ref) / (ref + meanLum);
                r.maxError = std::max(r.maxError, err);
                r.meanError += err;
                r.errors.push_back(err);
            }
            ++r.samples;
        }
    }
    r.meanError /= std::max(1, 3 * r.samples);
    std::sort(r.errors.begin(), r.errors.end());
    return r;
}

CaptureOptions tiltedOptions(CaptureLayout layout)
{
    CaptureOptions o;
    o.layout = layout;
    o.scale = 0.1;  // 400 x 600 frames
    o.heading = 131;
    o.ptsYawOffset = -17.25;
    o.jitter = 3;
    o.seed = 5;
    o.orientation = true;
    o.levelPitch = 4;
    o.levelRoll = -6.5;
    o.vignetting = true;
    o.exposure = true;
    return o;
}

TEST(SyntheticCapture, SourcesMapBackOntoThePanorama)
{
    const FloatImage& pano = smallPanorama();
    CaptureOptions o = tiltedOptions(CaptureLayout::Fisheye);
    o.sceneGain = 0.5;
    const Capture cap = planCapture(o);
    std::vector<FloatImage> sources;
    for (size_t k = 0; k < cap.shots.size(); ++k)
        sources.push_back(renderShot(pano, cap, int(k)));
    const RoundTrip r = roundTrip(pano, cap, sources, 400);
    std::printf("fisheye round trip: %d samples (%d skipped), max %.4f, p95 %.5f, mean %.5f\n", r.samples,
                r.skipped, r.maxError, r.percentile(0.95), r.meanError);
    // Every direction is seen by at least one image, most by two.
    EXPECT_GT(r.samples, 600);
    // A source pixel averages the panorama over its footprint, and the
    // bilinear panorama has kinks at its pixel centres: at a sharp V-shaped
    // minimum the average and the point sample differ by a good part of the
    // value (the largest errors, measured 0.32). Elsewhere the two agree to
    // a fraction of a percent (measured p95 0.0035, mean 0.0014). A wrong
    // roll, vignetting or exposure sign gives errors of tens of percent over
    // much of the sphere and fails the p95 and mean bounds.
    EXPECT_LT(r.maxError, 0.5);
    EXPECT_LT(r.percentile(0.95), 0.01);
    EXPECT_LT(r.meanError, 0.005);
}

TEST(SyntheticCapture, HdrSourcesAreInCameraColours)
{
    const FloatImage& pano = smallPanorama();
    CaptureOptions o = tiltedOptions(CaptureLayout::TwoRing);
    o.hdr = true;
    const Capture cap = planCapture(o);
    ASSERT_EQ(cap.shots.size(), 13u);
    EXPECT_EQ(cap.shots[0].entry.width, 3666);  // a key of the renderer's colour table
    EXPECT_EQ(cap.shots[1].entry.width, 400);
    // Entry 0 is full size; the ring images suffice for the round trip.
    std::vector<FloatImage> sources(cap.shots.size());
    for (size_t k = 1; k < cap.shots.size(); ++k)
        sources[k] = renderShot(pano, cap, int(k));
    const RoundTrip r = roundTrip(pano, cap, sources, 300);
    std::printf("two-ring HDR round trip: %d samples (%d skipped), max %.4f, p95 %.5f, mean %.5f\n", r.samples,
                r.skipped, r.maxError, r.percentile(0.95), r.meanError);
    EXPECT_GT(r.samples, 300);
    // Thresholds as above (measured max 0.05, p95 0.0006, mean 0.0003: the
    // rectilinear frames have no fold); the colour matrix multiplication must
    // restore the panorama's colours.
    EXPECT_LT(r.maxError, 0.5);
    EXPECT_LT(r.percentile(0.95), 0.01);
    EXPECT_LT(r.meanError, 0.005);

    // The sources really are in camera colours: read without the matrix
    // they are far off.
    Capture plain = cap;
    plain.colourMatrix = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const RoundTrip off = roundTrip(pano, plain, sources, 300);
    EXPECT_GT(off.meanError, 10 * r.meanError);
}

// The renderer's view of a draw: entry yaws relative to entry 1, the
// orientation entry's pitch and roll as correction when used, the strip's
// start longitude as strip yaw, and the heading turn. For output directions
// of every strip, the float camera matrix of the script's values must find
// the same source pixel as the generator's world camera looking at the
// truth frame's direction.
void expectRendererAgrees(const Capture& cap, bool useOrientation)
{
    const Project p = cap.project();
    const bool orient = useOrientation && cap.hasOrientation;
    const float yaw1 = p.images[1].yaw;
    const std::pair<float, float> correction =
        orient ? std::pair<float, float>{cap.orientation.pitch, cap.orientation.roll} : std::pair<float, float>{0, 0};
    const double heading = orient ? double(cap.orientation.yaw - yaw1) : 0.0;
    const std::array<double, 9> frame = truthFrame(cap, useOrientation);

    std::mt19937 rng(3);
    std::uniform_real_distribution<double> lonOut(-180, 180), latOut(-85, 85), stripYaw(-180, 180);
    int compared = 0;
    double worst = 0;
    for (int n = 0; n < 2000; ++n) {
        const double lon = lonOut(rng), lat = latOut(rng), strip = stripYaw(rng);
        // Relative longitude of this output column, then strip-local.
        const double rel = lon - heading;
        const double local = rel - strip;
        const std::array<double, 3> d = directionOf(lon, lat);
        const std::array<double, 3> world = {frame[0] * d[0] + frame[1] * d[1] + frame[2] * d[2],
                                             frame[3] * d[0] + frame[4] * d[1] + frame[5] * d[2],
                                             frame[6] * d[0] + frame[7] * d[1] + frame[8] * d[2]};
        for (size_t k = 0; k < cap.shots.size(); ++k) {
            const ImageEntry& e = p.images[k];
            double wx, wy;
            if (!LensProjection(cap.shots[k].camera).toPixel(world, wx, wy)) continue;
            const Mat3 m = cameraMatrix(e.yaw - yaw1, e.pitch, e.roll, correction, {float(strip), 0.0f});
            float fx, fy;
            LensModel lens = lensModelOf(e, cap.fisheye);
            const bool seen = directionToPixelFloat(m, lens, float(local), float(lat), fx, fy);
            // Within a pixel of the border the float path may disagree on
            // inside/outside; elsewhere it must see the same pixel.
            if (!seen && wx > 1 && wy > 1 && wx < e.width - 2 && wy < e.height - 2)
                ADD_FAILURE() << "entry " << k << " lon " << lon << " lat " << lat;
            if (!seen) continue;
            worst = std::max({worst, std::abs(fx - wx), std::abs(fy - wy)});
            ++compared;
        }
    }
    std::printf("renderer composition vs truth frame: %d comparisons, worst %.4f px\n", compared, worst);
    EXPECT_GT(compared, 2000);
    // Single precision with angles of a few hundred degrees: well under the
    // 0.01 px the shader is allowed (the reference tolerance for float).
    EXPECT_LT(worst, 0.01);
}

TEST(SyntheticCapture, TruthFrameAgreesWithTheRenderersComposition)
{
    for (CaptureLayout layout : {CaptureLayout::Fisheye, CaptureLayout::TwoRing}) {
        const Capture tilted = planCapture(tiltedOptions(layout));
        expectRendererAgrees(tilted, true);
        expectRendererAgrees(tilted, false);
        CaptureOptions level = tiltedOptions(layout);
        level.orientation = false;
        expectRendererAgrees(planCapture(level), false);
    }
}

double angleBetween(const std::array<double, 3>& a, const std::array<double, 3>& b)
{
    const double dot = a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
    return std::acos(std::clamp(dot, -1.0, 1.0)) * 180 / M_PI;
}

std::array<double, 3> centreDirection(const Capture& cap, bool useOrientation)
{
    const std::array<double, 9> f = truthFrame(cap, useOrientation);
    return {f[2], f[5], f[8]};  // F * (0, 0, 1)
}

TEST(SyntheticCapture, HeadingRule)
{
    // Without an orientation line the first ring image looks at the centre.
    CaptureOptions o;
    o.heading = 131;
    o.ptsYawOffset = 40;
    const Capture level = planCapture(o);
    EXPECT_NEAR(level.shots[1].camera.yaw, 131, 1e-9);
    EXPECT_NEAR(level.shots[1].camera.pitch, 0, 1e-9);
    EXPECT_LT(angleBetween(centreDirection(level, true), directionOf(131, 0)), 1e-9);

    // With one, used: world longitude 0 at the centre and the horizon level
    // (the zenith stays the zenith), whatever the tilt of the capture.
    const Capture tilted = planCapture(tiltedOptions(CaptureLayout::Fisheye));
    EXPECT_LT(angleBetween(centreDirection(tilted, true), directionOf(0, 0)), 1e-4);
    const std::array<double, 9> f = truthFrame(tilted, true);
    EXPECT_NEAR(f[4], 1.0, 1e-9);
    // Not used: the tilt shows, and entry 1 is at the centre again.
    EXPECT_GT(angleBetween(centreDirection(tilted, false), directionOf(131, 0)), 3.0);
    EXPECT_LT(angleBetween(centreDirection(tilted, false),
                           directionOf(tilted.shots[1].camera.yaw, tilted.shots[1].camera.pitch)),
              3 * 1.5);  // only the jitter of entry 1 (3 deg per angle) separates them
}

TEST(SyntheticCapture, ScriptImportsAsPlanned)
{
    for (CaptureLayout layout : {CaptureLayout::Fisheye, CaptureLayout::TwoRing}) {
        CaptureOptions o = tiltedOptions(layout);
        o.hdr = layout == CaptureLayout::TwoRing;
        const Capture cap = planCapture(o);
        const std::string path = ::testing::TempDir() + "synthetic.pts";
        std::ofstream(path) << ptsScript(cap, "courtyard.exr");
        const Project got = importPtsScript(path);
        const Project want = cap.project();
        ASSERT_EQ(got.images.size(), want.images.size());
        EXPECT_EQ(got.images.size(), layout == CaptureLayout::Fisheye ? 7u : 14u);
        for (size_t i = 0; i < want.images.size(); ++i) {
            const ImageEntry &g = got.images[i], &w = want.images[i];
            EXPECT_EQ(g.fileName, w.fileName);
            EXPECT_EQ(g.width, w.width);
            EXPECT_EQ(g.height, w.height);
            for (int f = 1; f <= 9; ++f)
                EXPECT_EQ(g.linkField(f), w.linkField(f)) << "entry " << i << " field " << f;
            EXPECT_EQ(g.exposure, w.exposure);
            EXPECT_EQ(g.va, w.va);
            EXPECT_EQ(g.vb, w.vb);
            EXPECT_EQ(g.vc, w.vc);
            EXPECT_EQ(g.vd, w.vd);
        }
        EXPECT_TRUE(isOrientation(got.images.back()));
        // Fields of the plan that the tests rely on.
        EXPECT_EQ(got.images[0].pitch, 90);
        EXPECT_EQ(got.images[1].yaw, want.images[1].yaw);
        EXPECT_NE(got.images[2].exposure, got.images[1].exposure);

        // Control points: the two positions of each are one direction. The
        // script numbers images from 0 and the import subtracts 1.
        ASSERT_GT(got.controlPoints.size(), 10u);
        for (const ControlPoint& cp : got.controlPoints) {
            const int i = cp.image1 + 1, j = cp.image2 + 1;
            ASSERT_GE(i, 0);
            ASSERT_LT(j, int(cap.shots.size()));
            std::array<double, 3> a, b;
            ASSERT_TRUE(LensProjection(cap.shots[i].camera).toDirection(cp.x, cp.y, a));
            ASSERT_TRUE(LensProjection(cap.shots[j].camera).toDirection(cp.x2, cp.y2, b));
            EXPECT_LT(angleBetween(a, b), 1e-4) << i << "-" << j;
        }
    }
}

TEST(SyntheticCapture, TspDocumentLoads)
{
    const Capture cap = planCapture(tiltedOptions(CaptureLayout::TwoRing));
    const std::string path = ::testing::TempDir() + "synthetic.tsp";
    std::ofstream(path) << tspDocument(cap);
    const Project p = loadTspProject(path);
    ASSERT_EQ(p.images.size(), 14u);
    for (int i = 0; i < 13; ++i) {
        EXPECT_EQ(p.images[i].yaw, cap.shots[i].entry.yaw);
        EXPECT_EQ(p.images[i].pitch, cap.shots[i].entry.pitch);
    }
    EXPECT_EQ(p.images[13].yaw, cap.orientation.yaw);
    EXPECT_EQ(p.images[13].pitch, cap.orientation.pitch);
    EXPECT_EQ(p.images[13].roll, cap.orientation.roll);
}

TEST(SyntheticCapture, LayoutsCoverTheSphere)
{
    // Coverage with a margin of 2 source pixels, on a 360 x 180 grid: the
    // fisheye ring sees every direction down to near the nadir (left to the
    // logo), two of its images see every direction of the horizon.
    struct Case {
        CaptureLayout layout;
        double lowestLat;
    } cases[] = {{CaptureLayout::Fisheye, -78}, {CaptureLayout::TwoRing, -62}};
    for (const Case& c : cases) {
        CaptureOptions o;
        o.layout = c.layout;
        o.scale = 0.05;
        const Capture cap = planCapture(o);
        std::vector<uint8_t> coverage;
        renderTruth(smallPanorama(), cap, 360, false, &coverage, 2);
        int holes = 0, horizonSingles = 0;
        for (int y = 0; y < 180; ++y) {
            const double lat = 89.5 - y;
            for (int x = 0; x < 360; ++x) {
                const int seen = coverage[size_t(y) * 360 + x];
                if (lat > c.lowestLat && seen == 0) ++holes;
                if (std::abs(lat) < 1 && seen < 2) ++horizonSingles;
            }
        }
        EXPECT_EQ(holes, 0) << int(c.layout);
        EXPECT_EQ(horizonSingles, 0) << int(c.layout);
    }
}

TEST(SyntheticCapture, TruthIsThePanoramaInTheRenderersFrame)
{
    const FloatImage& pano = smallPanorama();
    CaptureOptions o;
    o.heading = 90;  // a quarter turn: the truth is the panorama rolled by W/4
    o.sceneGain = 2;
    const Capture cap = planCapture(o);
    const FloatImage truth = renderTruth(pano, cap, pano.width, false);
    double maxErr = 0, sumErr = 0, sum = 0;
    for (int y = 0; y < pano.height; ++y)
        for (int x = 0; x < pano.width; ++x)
            for (int c = 0; c < 3; ++c) {
                const float want = 2 * pano.pixel((x + pano.width / 4) % pano.width, y)[c];
                const double err = std::abs(truth.pixel(x, y)[c] - want);
                maxErr = std::max(maxErr, err / (want + 1e-3));
                sumErr += err;
                sum += want;
            }
    // At the panorama's own width the truth samples its pixel centres: equal
    // up to the rounding of the angle arithmetic (a misplaced half pixel
    // would show as errors of tens of percent at edges).
    EXPECT_LT(maxErr, 1e-3);
    EXPECT_LT(sumErr / sum, 1e-5);

    // At half the width each truth pixel averages 2 x 2 of them.
    const FloatImage half = renderTruth(pano, cap, pano.width / 2, false);
    const float* p = half.pixel(10, 7);
    const int x0 = (20 + pano.width / 4) % pano.width;
    const float want = 0.5f * (pano.pixel(x0, 14)[1] + pano.pixel(x0 + 1, 14)[1] + pano.pixel(x0, 15)[1] +
                               pano.pixel(x0 + 1, 15)[1]);
    EXPECT_NEAR(p[1], want, 1e-3 * want);
}

double srgbDecode(double v) { return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); }

// The files as written: 8-bit sRGB JPEGs (and Radiance files) read back with
// the program's own readers, the script beside them.
TEST(SyntheticCapture, WrittenFilesMapBackOntoThePanorama)
{
    const FloatImage& pano = smallPanorama();
    const std::string dir = ::testing::TempDir() + "synthetic_capture_files";
    std::filesystem::remove_all(dir);
    for (bool hdr : {false, true}) {
        CaptureOptions o = tiltedOptions(CaptureLayout::Fisheye);
        o.hdr = hdr;
        o.sceneGain = hdr ? 1.0 : ldrGain(pano);
        o.stem = hdr ? "hdr" : "ldr";
        const Capture cap = planCapture(o);
        std::vector<std::string> written;
        if (hdr) {
            // Entry 0 of an HDR capture is 3666 x 5499 (the colour table's
            // width): the ring images suffice here and take a fraction of
            // the time.
            for (int k = 1; k < 6; ++k)
                written.push_back(writeShot(pano, cap, k, dir));
            for (const std::string& path : writeCaptureScripts(cap, dir, true, "courtyard.exr"))
                written.push_back(path);
            written.insert(written.begin(), "");
        } else {
            written = writeCapture(pano, cap, dir, true, "courtyard.exr");
        }
        ASSERT_EQ(written.size(), cap.shots.size() + 2);
        EXPECT_EQ(written[1], dir + "/" + o.stem + "-01." + (hdr ? "hdr" : "jpg"));
        EXPECT_EQ(written[6], dir + "/" + o.stem + ".pts");
        EXPECT_EQ(written[7], dir + "/" + o.stem + ".tsp");
        const Project p = importPtsScript(written[6]);
        ASSERT_EQ(p.images.size(), 7u);
        EXPECT_EQ(loadTspProject(written[7]).images.size(), 7u);

        std::vector<FloatImage> sources(cap.shots.size());
        for (size_t k = hdr ? 1 : 0; k < cap.shots.size(); ++k) {
            const std::string path = dir + "/" + p.images[k].fileName;
            const Image img = hdr ? readRadiance(path) : readJpeg(path);
            ASSERT_EQ(img.width, p.images[k].width);
            ASSERT_EQ(img.height, p.images[k].height);
            FloatImage& f = sources[k];
            f = FloatImage(img.width, img.height);
            for (int y = 0; y < img.height; ++y)
                for (int x = 0; x < img.width; ++x) {
                    if (hdr) {
                        rgbeToFloat(img.pixel(x, y), f.pixel(x, y));
                    } else {
                        for (int c = 0; c < 3; ++c)
                            f.pixel(x, y)[c] = float(srgbDecode(img.pixel(x, y)[c] / 255.0));
                    }
                }
        }
        const RoundTrip r = roundTrip(pano, cap, sources, 400);
        std::printf("%s files round trip: %d samples, max %.4f, p95 %.4f, mean %.5f\n", hdr ? "HDR" : "JPEG",
                    r.samples, r.maxError, r.percentile(0.95), r.meanError);
        EXPECT_GT(r.samples, 500);
        if (hdr) {
            // RGBE keeps 8 bits of mantissa of the largest channel, rounded:
            // a few tenths of a percent more than the float round trip.
            EXPECT_LT(r.percentile(0.95), 0.015);
            EXPECT_LT(r.meanError, 0.008);
        } else {
            // 8-bit sRGB at JPEG quality 90, and clipping of the brightest
            // percent of the scene: errors of a few percent of the mean
            // level, more at clipped and sharp spots.
            EXPECT_LT(r.percentile(0.95), 0.15);
            EXPECT_LT(r.meanError, 0.05);
        }
    }
    std::filesystem::remove_all(dir);
}

TEST(SyntheticCapture, RejectedInputs)
{
    const std::string bad = ::testing::TempDir() + "bad.exr";
    std::ofstream(bad) << "not an exr";
    try {
        readPanoramaExr(bad);
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()).rfind("Error reading panorama '" + bad + "': ", 0), 0u) << e.what();
    }
    EXPECT_THROW(readPanoramaExr(::testing::TempDir() + "missing.exr"), std::runtime_error);

    // An HDR capture whose entry-0 width the renderer has no colour matrix
    // for would render black; the plan refuses it.
    CaptureOptions o;
    o.hdr = true;
    o.colourKey = 4000;
    EXPECT_THROW(planCapture(o), std::runtime_error);
}

}  // namespace
