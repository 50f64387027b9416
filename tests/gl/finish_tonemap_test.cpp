// Tone mapping and thumbnail against the real driver: the shader against its
// CPU twin in every chunk layout, the in-place conversion, the console lines,
// and the exposure of the CC0 panoramas.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <regex>
#include <vector>

#include "app/StageTimer.h"
#include "finish_helpers.h"
#include "image/Jpeg.h"
#include "image/OpenExr.h"
#include "image/Rgbe.h"
#include "passes/Thumbnail.h"
#include "passes/Tonemap.h"

namespace {

// HDR test scene over 24 stops: a luminance ramp along x, a colour cycle
// along y, and a few black pixels.
Image hdrScene(int width, int height)
{
    Image image(width, height, 4);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const float level = std::exp2(-12.0f + 24.0f * float(x) / float(width));
            const float hue = 6.2831853f * float(y) / float(height);
            const float r = level * (1.2f + std::sin(hue)), g = level * (1.2f + std::sin(hue + 2.1f)),
                        b = level * (1.2f + std::sin(hue + 4.2f));
            if ((x * 7 + y * 13) % 997 == 0)
                floatToRgbe(0, 0, 0, image.pixel(x, y));
            else
                floatToRgbe(r, g, b, image.pixel(x, y));
        }
    return image;
}

int countMatches(const std::string& text, const std::regex& re)
{
    return int(std::distance(std::sregex_iterator(text.begin(), text.end(), re), std::sregex_iterator()));
}

}  // namespace

TEST(FinishTonemapGL, ShaderMatchesCpuCurveInEveryChunkLayout)
{
    struct Case {
        int w, h, chunks, cw, ch;
    } cases[] = {
        {640, 320, 1, 640, 320},     // one chunk
        {2400, 1200, 12, 400, 600},  // 12 chunks folded to half height, sampled key
        {2010, 1005, 10, 201, 1005}, // 10 chunks, odd height: not folded
    };
    for (const Case& c : cases) {
        Image image = hdrScene(c.w, c.h);
        const std::vector<uint8_t> source(image.data, image.data + image.byteSize());
        ImageView sourceView = image;
        sourceView.data = const_cast<uint8_t*>(source.data());
        const SceneKey key = measureSceneKey(sourceView);
        const float white = whiteLuminance(key);

        testing::internal::CaptureStderr();
        const ImageView out = tonemap(image);
        const std::string log = testing::internal::GetCapturedStderr();

        EXPECT_EQ(out.data, image.data);
        EXPECT_EQ(out.step(), 3);
        EXPECT_EQ(out.stride(), 3 * c.w);
        EXPECT_EQ(out.width, c.w);
        EXPECT_EQ(out.height, c.h);

        int worst = 0;
        int64_t differing = 0;
        for (int64_t i = 0; i < int64_t(c.w) * c.h; ++i) {
            float rgb[3];
            rgbeToFloat(&source[size_t(i) * 4], rgb);
            uint8_t expect[3];
            toneMapPixel(rgb, key.avgLum, white, expect);
            for (int k = 0; k < 3; ++k) {
                const int d = std::abs(int(out.data[i * 3 + k]) - int(expect[k]));
                worst = std::max(worst, d);
                differing += d != 0;
            }
        }
        // GPU pow and division differ from the CPU's in the last bits, which
        // can move a value across a rounding boundary: one unit at most, and
        // rarely (a misplaced chunk or row would differ almost everywhere).
        EXPECT_LE(worst, 1) << c.w;
        EXPECT_LT(double(differing) / (3.0 * c.w * c.h), 0.01) << c.w;

        EXPECT_EQ(countMatches(log, std::regex("avgLum = [-0-9.e+]+, maxLum = [-0-9.e+]+\n")), 1) << log;
        const std::string chunkLine = std::to_string(c.cw) + "x" + std::to_string(c.ch) +
                                      ", M: -?[0-9]+, m: -?[0-9]+ -> -?[0-9]+ f-stops, mean: ";
        EXPECT_EQ(countMatches(log, std::regex(chunkLine)), c.chunks) << log;
        EXPECT_EQ(countMatches(log, std::regex("\\[T\\] tonemap \\(total\\): [0-9.]+s\n")), 1) << log;
        EXPECT_EQ(countMatches(log, std::regex("render \\(tonemap\\): ")), c.chunks) << log;
    }
}

TEST(FinishTonemapGL, PanoramasAreCorrectlyExposed)
{
    for (const char* name : {"courtyard.exr", "city.exr"}) {
        Image image = readExr(panoramaPath(name));
        testing::internal::CaptureStderr();
        const ImageView rgb = tonemap(image);
        testing::internal::GetCapturedStderr();
        const ClipFractions clip = clipFractions(rgb);
        // The acceptance limits: at most 2 % of the pixels burnt out to white
        // or crushed to black in all three channels.
        EXPECT_LE(clip.white, 0.02) << name;
        EXPECT_LE(clip.black, 0.02) << name;
        // Photographic key 0.18: the mean lands in the middle of the range,
        // neither dark nor washed out (both scenes look right at 90 to 130).
        EXPECT_GT(clip.meanLuma, 70) << name;
        EXPECT_LT(clip.meanLuma, 160) << name;
    }
}

TEST(FinishThumbnailGL, LdrThumbnailIsTheBoxHalfOfTheSample)
{
    // A 2000-wide panorama: the sample is an exact copy, the file its 2 x 2
    // reduction. Smooth content keeps the JPEG error small.
    Image pano(2000, 1000, 3);
    for (int y = 0; y < 1000; ++y)
        for (int x = 0; x < 2000; ++x) {
            uint8_t* p = pano.pixel(x, y);
            p[0] = uint8_t(x / 8), p[1] = uint8_t(y / 4), p[2] = uint8_t(128 + 100 * std::sin(x * 0.01));
        }
    std::vector<uint8_t> copy(pano.data, pano.data + pano.byteSize());
    ImageView expected = pano;
    expected.data = copy.data();
    expected = halveBox(expected);

    const std::string path = finishTempDir("thumb_ldr") + "/pano thumbnail.jpg";
    makeThumbnail(pano, false, path);
    EXPECT_TRUE(stageTimingEnabled);
    const Image thumb = readJpeg(path);
    ASSERT_EQ(thumb.width, 1000);
    ASSERT_EQ(thumb.height, 500);
    double sum = 0;
    int worst = 0;
    for (int y = 0; y < 500; ++y)
        for (int x = 0; x < 1000; ++x)
            for (int k = 0; k < 3; ++k) {
                const int d = std::abs(int(thumb.pixel(x, y)[k]) - int(expected.pixel(x, y)[k]));
                sum += d;
                worst = std::max(worst, d);
            }
    // Quality-90 JPEG of smooth ramps: about one unit on average, a few at
    // most; a shifted or unscaled thumbnail would be off by tens.
    EXPECT_LT(sum / (1000.0 * 500 * 3), 1.5);
    EXPECT_LE(worst, 12);
}

TEST(FinishThumbnailGL, HdrThumbnailIsToneMappedWithStageTimingOff)
{
    Image pano = readExr(panoramaPath("courtyard.exr"));
    const std::vector<uint8_t> before(pano.data, pano.data + pano.byteSize());
    const std::string path = finishTempDir("thumb_hdr") + "/courtyard thumbnail.jpg";
    testing::internal::CaptureStderr();
    makeThumbnail(pano, true, path);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(stageTimingEnabled);
    // The tone mapping's own stages are not reported, its total time is, and
    // the thumbnail stage is.
    EXPECT_EQ(log.find("render (tonemap)"), std::string::npos) << log;
    EXPECT_EQ(countMatches(log, std::regex("\\[T\\] tonemap \\(total\\): ")), 1) << log;
    EXPECT_EQ(countMatches(log, std::regex(" +thumbnail: [0-9.]+s\n")), 1) << log;

    const Image thumb = readJpeg(path);
    ASSERT_EQ(thumb.width, 1000);
    ASSERT_EQ(thumb.height, 500);
    const ClipFractions clip = clipFractions(thumb);
    EXPECT_LE(clip.white, 0.02);
    EXPECT_LE(clip.black, 0.02);
    EXPECT_GT(clip.meanLuma, 70);
    EXPECT_LT(clip.meanLuma, 160);
    // The panorama itself is untouched: the tone mapping ran on the sample.
    EXPECT_TRUE(std::equal(before.begin(), before.end(), pano.data));
}
