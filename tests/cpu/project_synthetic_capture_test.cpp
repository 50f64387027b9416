// The test-only capture generator is tied to the renderer here: the truth
// frame it renders a capture's expected panorama in must agree with the
// camera matrices the renderer builds from the capture's script.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>

#include "project/CameraMatrix.h"
#include "project/LensModel.h"
#include "tools/make-capture/SyntheticCapture.h"

namespace {

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
            LensModel lens = lensModelOf(e);
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

}  // namespace
