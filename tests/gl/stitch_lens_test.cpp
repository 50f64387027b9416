// The "fish" shader's camera model against its CPU twin (project/LensModel):
// which source position each panorama direction samples, where the image's
// valid area ends, and the photometric gain (vignetting, exposure, sRGB for
// 8-bit sources, colour matrix for HDR).
//
// The geometry is read back exactly: the source is an RGBE image whose pixels
// hold their own column (or row) number, R + 256 G, and bilinear sampling of
// such a ramp returns the sampled position itself. Rendering into a float
// target keeps it unrounded.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "libglutil/Framebuffer.h"
#include "libglutil/GLError.h"
#include "libglutil/Shader.h"
#include "libglutil/Texture.h"
#include "project/CameraMatrix.h"
#include "project/LensModel.h"

namespace {

constexpr int kOutW = 720, kOutH = 360;
const float kIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};

struct LensCase {
    const char* name;
    LensModel lens;
};

// Setups of the reference vectors (shared/lens): portrait fisheye rolled to
// the ring, the zenith, an oblique one; a landscape fisheye; rectilinear
// landscape and portrait. All with distortion and centre shift.
std::vector<LensCase> lensCases()
{
    auto fish = [](int w, int h, double v, double a, double b, double c, double d, double e,
                   double yaw, double pitch, double roll, bool fisheye) {
        LensModel m;
        m.w = w, m.h = h, m.fisheye = fisheye, m.v = v, m.a = a, m.b = b, m.c = c, m.d = d, m.e = e;
        m.yaw = yaw, m.pitch = pitch, m.roll = roll;
        return m;
    };
    return {
        {"FP1", fish(4000, 6000, 169, -0.055, -0.03, -0.0085, -32, 113, 72, 10, -90, true)},
        {"FP3", fish(4000, 6000, 169, -0.055, -0.03, -0.0085, -32, 113, 36, 90, -90, true)},
        {"FP6", fish(4000, 6000, 169, -0.055, -0.03, -0.0085, -32, 113, -35.25, 47.5, 12.75, true)},
        {"FL1", fish(3000, 2000, 140, 0.012, -0.041, 0.0203, 15.5, -8.25, 123.4, -30, 45, true)},
        {"RE3", fish(1200, 900, 90, 0.002, -0.011, 0.006, 4.5, -3.25, 10, 60, 15, false)},
        {"RP1", fish(900, 1200, 60, -0.004, 0.009, -0.003, -6, 2.5, -20, -12, -90, false)},
    };
}

std::string defines(bool fisheye, bool ldr)
{
    return std::string("#define USE_MASK\n") + (ldr ? "#define LDR\n" : "") +
           (fisheye ? "#define FISHEYE\n" : "");
}

// Uniforms of one draw over the whole sphere: one 360-degree strip, no
// levelling, no vignetting unless given.
void setLensUniforms(const Shader& program, const LensModel& lens, float exposure = 0,
                     std::array<float, 3> vign = {0, 0, 0}, const float* colorMat = kIdentity)
{
    program.use();
    const Mat3 m = cameraMatrix(float(lens.yaw), float(lens.pitch), float(lens.roll), {0, 0}, {0, 0});
    program.setMatrix3("cameraMat", m.data());
    program.setUniform("fov", float(lens.v));
    program.setUniform("lens_a", float(lens.a));
    program.setUniform("lens_b", float(lens.b));
    program.setUniform("lens_c", float(lens.c));
    program.setUniform("lens_d", float(lens.d));
    program.setUniform("lens_e", float(lens.e));
    program.setUniform("exposureOffset", exposure);
    program.setUniform("vign", vign[0], vign[1], vign[2]);
    program.setUniform("inSize", float(lens.w), float(lens.h));
    program.setUniform("outSize", float(kOutW), float(kOutH));
    program.setUniform("outFovX", 360.0f);
    program.setUniform("openSouth", 0);
    if (glGetUniformLocation(program.program(), "colorMat") >= 0)
        program.setMatrix3("colorMat", colorMat);
}

// Draws `source` with `program` (uniforms set) over an empty mask into a
// float target and returns its RGBA floats, rows in memory order.
std::vector<float> render(const Shader& program, const Texture& source)
{
    static Texture emptyMask;
    if (emptyMask.count() == 0) {
        const std::vector<uint8_t> zero(8 * 8 * 3, 0);
        emptyMask.create(8, 8, GL_RGB8, GL_RGB, zero.data());
    }
    program.use();
    source.bind(GL_TEXTURE0);
    emptyMask.bind(GL_TEXTURE1);
    Texture target(kOutW, kOutH, GL_RGBA32F);
    bindAsRenderTarget(target);
    glClearColor(0, 0, 0, 0);
    glClear(GL_COLOR_BUFFER_BIT);
    fullScreenPass(kOutW, kOutH);
    std::vector<float> out(size_t(kOutW) * kOutH * 4);
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    glReadPixels(0, 0, kOutW, kOutH, GL_RGBA, GL_FLOAT, out.data());
    EXPECT_EQ(glErrorReport(__FILE__, __LINE__), "");
    return out;
}

// RGBE image whose pixel (x, y) decodes to (x or y) = R + 256 G in red and
// green together, 255 in blue (the coverage marker).
Texture coordinateImage(int w, int h, bool alongX)
{
    std::vector<uint8_t> rgbe(size_t(w) * h * 4);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t* p = &rgbe[(size_t(y) * w + x) * 4];
            const int v = alongX ? x : y;
            p[0] = uint8_t(v & 255);
            p[1] = uint8_t(v >> 8);
            p[2] = 255;
            p[3] = 136;  // byte * 2^(136 - 136)
        }
    Texture t;
    t.create(w, h, GL_RGBA8, GL_RGBA, rgbe.data());
    return t;
}

Texture flatImage(int w, int h, std::array<uint8_t, 4> pixel)
{
    std::vector<uint8_t> bytes(size_t(w) * h * 4);
    for (size_t i = 0; i < bytes.size(); i += 4)
        std::copy(pixel.begin(), pixel.end(), bytes.begin() + i);
    Texture t;
    t.create(w, h, GL_RGBA8, GL_RGBA, bytes.data());
    return t;
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

}  // namespace

// Every covered direction samples the position the CPU model gives, within
// 0.01 px (the reference vectors' tolerance for a single-precision
// implementation; float trigonometry on the GPU stays far below it), and the
// shader covers exactly the directions the model calls valid (pixels that the
// valid area's border crosses are left out of that count).
TEST(StitchLens, ShaderSamplesWhereTheModelSays)
{
    for (const LensCase& c : lensCases()) {
        SCOPED_TRACE(c.name);
        const LensModel& lens = c.lens;
        Shader program("fish", defines(lens.fisheye, false));
        setLensUniforms(program, lens);
        std::vector<float> xs, ys;
        {
            Texture ramp = coordinateImage(lens.w, lens.h, true);
            xs = render(program, ramp);
        }
        {
            Texture ramp = coordinateImage(lens.w, lens.h, false);
            ys = render(program, ramp);
        }
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
        std::printf("%s: %d compared, max %.5f px, mean %.6f px\n", c.name, compared, maxError,
                    sumError / std::max(compared, 1));
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
    const auto srgbToLinear = [](double c) {
        return c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
    };
    const auto linearToSrgb = [](double c) {
        return c <= 0.0031308 ? c * 12.92 : 1.055 * std::pow(c, 1 / 2.4) - 0.055;
    };

    // HDR: (1, 0.5, 0.25) as RGBE.
    Shader hdr("fish", defines(true, false));
    setLensUniforms(hdr, lens, exposure, vign, colorMat);
    std::vector<float> hdrOut;
    {
        Texture flat = flatImage(lens.w, lens.h, {128, 64, 32, 129});
        hdrOut = render(hdr, flat);
    }
    // LDR: sRGB bytes, dark enough that the gain does not clip.
    const std::array<uint8_t, 4> ldrPixel = {90, 40, 12, 255};
    Shader ldr("fish", defines(true, true));
    setLensUniforms(ldr, lens, exposure, vign);
    std::vector<float> ldrOut;
    {
        Texture flat = flatImage(lens.w, lens.h, ldrPixel);
        ldrOut = render(ldr, flat);
    }

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
                expected = std::max(expected, 0.0);
                hdrMax = std::max(hdrMax, std::abs(hdrOut[i + ch] - expected) / gain);
                const double ldrExpected =
                    std::min(1.0, linearToSrgb(srgbToLinear(ldrPixel[ch] / 255.0) * gain));
                ldrMax = std::max(ldrMax, std::abs(ldrOut[i + ch] - ldrExpected));
            }
            ++compared;
        }
    EXPECT_GT(compared, kOutW * kOutH / 4);
    EXPECT_LE(hdrMax, 1e-4);
    EXPECT_LE(ldrMax, 1e-4);
}
