// Decisions of the render job made before any GPU work: mode, slots, widths
// and their messages, the upside-down rule and the 180-degree turn.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "app/RenderPlan.h"

namespace {
ImageEntry entry(const std::string& name, int w = 6000, int h = 4000)
{
    ImageEntry e;
    e.fileName = name;
    e.width = w;
    e.height = h;
    return e;
}

Project projectOf(int images, bool withOrientation, const std::string& ext = ".jpg", int w = 6000, int h = 4000)
{
    Project p;
    for (int i = 0; i < images; ++i)
        p.images.push_back(entry("img" + std::to_string(i) + ext, w, h));
    if (withOrientation)
        p.images.push_back(entry("orientation:", 0, 0));
    return p;
}
}  // namespace

TEST(RenderPlan, ProjectListing)
{
    Project p = projectOf(1, true);
    ImageEntry& e = p.images[0];
    e.yaw = 72.5f;
    e.roll = -0.25f;
    e.pitch = 1e-7f;
    e.fov = 180;
    e.a = 0.1f;
    e.vd = 123456789.0f;
    p.images[1].fov = 91;
    std::ostringstream log;
    printProjectListing(p, log);
    EXPECT_EQ(log.str(),
              "img0.jpg 72.5 -0.25 1e-07 180 0.1 0 0 0 0 0 0 0 0 1.23457e+08 \n"
              "orientation: 0 0 0 91 0 0 0 0 0 0 0 0 0 0 \n");
}

TEST(RenderPlan, ModeFromTheFirstSourceImage)
{
    EXPECT_TRUE(isHdrProject(projectOf(6, true, ".hdr")));
    EXPECT_TRUE(isHdrProject(projectOf(6, false, ".HDR")));
    EXPECT_FALSE(isHdrProject(projectOf(6, true, ".jpg")));
    EXPECT_FALSE(isHdrProject(projectOf(6, true, ".exr")));
    EXPECT_FALSE(isHdrProject(Project()));
    // Only the first entry decides.
    Project mixed = projectOf(2, false, ".jpg");
    mixed.images[1].fileName = "b.hdr";
    EXPECT_FALSE(isHdrProject(mixed));
}

TEST(RenderPlan, UpsideDownRule)
{
    Project p = projectOf(6, true);
    ImageEntry& o = p.images.back();
    o.roll = 2.0f;
    o.pitch = 0.0f;
    o.fov = 90.0f;  // not above 90
    EXPECT_FALSE(applyUpsideDownRule(p));
    EXPECT_EQ(o.roll, 2.0f);

    o.fov = 170.0f;
    EXPECT_TRUE(applyUpsideDownRule(p));
    EXPECT_EQ(o.roll, -2.0f);
    EXPECT_EQ(o.pitch, 0.0f);
    EXPECT_TRUE(std::signbit(o.pitch));  // the sign bit flips, also for zero

    // Only a trailing orientation entry is looked at.
    Project notLast = projectOf(6, true);
    notLast.images.back().fov = 170.0f;
    notLast.images.push_back(entry("late.jpg"));
    EXPECT_FALSE(applyUpsideDownRule(notLast));
    EXPECT_EQ(notLast.images[6].roll, 0.0f);
    EXPECT_FALSE(std::signbit(notLast.images[6].pitch));
    Project empty;
    EXPECT_FALSE(applyUpsideDownRule(empty));
}

TEST(RenderPlan, SlotCountFromTheEntryCount)
{
    EXPECT_EQ(slotCountOf(projectOf(5, true)), 5);
    EXPECT_EQ(slotCountOf(projectOf(6, true)), 5);  // 7 entries
    EXPECT_EQ(slotCountOf(projectOf(7, true)), 6);  // 8 entries
    EXPECT_EQ(slotCountOf(projectOf(6, false)), 5);
    EXPECT_EQ(slotCountOf(projectOf(8, false)), 6);
}

TEST(RenderPlan, DefaultWidthFromThePixelCount)
{
    const struct { int w, h, five, six; } rows[] = {
        {6000, 4000, 14140, 21000},   // 24 MP
        {1, 29999999, 14140, 21000},  // one below 30,000,000
        {6000, 5000, 17500, 24600},   // 30,000,000
        {1, 49999999, 17500, 24600},  // one below 50,000,000
        {10000, 5000, 20000, 31800},  // 50,000,000
        {50000, 50000, 14140, 21000}, // the 32-bit product wraps to a negative count
    };
    for (const auto& r : rows) {
        EXPECT_EQ(defaultEquirectWidth(projectOf(6, true, ".jpg", r.w, r.h), 5), r.five) << r.w << "x" << r.h;
        EXPECT_EQ(defaultEquirectWidth(projectOf(6, true, ".jpg", r.w, r.h), 6), r.six) << r.w << "x" << r.h;
    }
    // A project whose first entry is the orientation entry counts 0 pixels.
    Project orientationFirst;
    orientationFirst.images.push_back(entry("orientation:", 0, 0));
    orientationFirst.images.push_back(entry("a.jpg", 10000, 8000));
    EXPECT_EQ(defaultEquirectWidth(orientationFirst, 5), 14140);
}

TEST(RenderPlan, GivenWidthIsRoundedToTheSlots)
{
    std::ostringstream log;
    EXPECT_EQ(adjustEquirectWidth(10000, 6, log), 9984);
    EXPECT_EQ(log.str(), "Adjusting output equirect width by -16 pixels -> outW = 9984.\n");

    std::ostringstream quiet;
    EXPECT_EQ(adjustEquirectWidth(2400, 5, quiet), 2400);
    EXPECT_EQ(adjustEquirectWidth(2400, 6, quiet), 2400);
    EXPECT_EQ(quiet.str(), "");

    // The remainder keeps the dividend's sign.
    std::ostringstream negative;
    EXPECT_EQ(adjustEquirectWidth(-30, 5, negative), -20);
    EXPECT_EQ(negative.str(), "Adjusting output equirect width by 10 pixels -> outW = -20.\n");
}

TEST(RenderPlan, CubeFaceWidthRounding)
{
    const struct { int in, out; const char* line; } rows[] = {
        {5250, 5264, "Adjusting output cubeface width from 5250 to 5264 = 329 * 2^4.\n"},
        {3535, 3536, "Adjusting output cubeface width from 3535 to 3536 = 442 * 2^3.\n"},
        // Printed also when nothing changes.
        {4096, 4096, "Adjusting output cubeface width from 4096 to 4096 = 256 * 2^4.\n"},
        {511, 511, "Adjusting output cubeface width from 511 to 511 = 511 * 2^0.\n"},
        {512, 512, "Adjusting output cubeface width from 512 to 512 = 256 * 2^1.\n"},
        // Below 256 the width stays as it is.
        {100, 100, "Adjusting output cubeface width from 100 to 100 = 100 * 2^0.\n"},
    };
    for (const auto& r : rows) {
        std::ostringstream log;
        EXPECT_EQ(roundCubeFaceWidth(r.in, log), r.out);
        EXPECT_EQ(log.str(), r.line);
    }
    std::ostringstream log;
    EXPECT_THROW(roundCubeFaceWidth(0, log), std::runtime_error);
    EXPECT_THROW(roundCubeFaceWidth(-512, log), std::runtime_error);
    EXPECT_THROW(roundCubeFaceWidth(2147483647, log), std::runtime_error);
}

TEST(RenderPlan, RenderedEquirectSizes)
{
    EXPECT_TRUE(isRenderedEquirectSize(8000, 4000));
    EXPECT_TRUE(isRenderedEquirectSize(20, 10));
    EXPECT_FALSE(isRenderedEquirectSize(8001, 4000));
    EXPECT_FALSE(isRenderedEquirectSize(8010, 4005));  // 2:1 but not a multiple of 20
    EXPECT_FALSE(isRenderedEquirectSize(4000, 4000));
    EXPECT_FALSE(isRenderedEquirectSize(0, 0));
}

TEST(RenderPlan, ReversePixelsTurnsByHalfATurn)
{
    for (int bpp : {3, 4}) {
        for (int w : {3, 4}) {  // odd and even pixel counts
            const int h = 2, n = w * h;
            std::vector<uint8_t> pixels(size_t(n * bpp));
            for (size_t i = 0; i < pixels.size(); ++i)
                pixels[i] = uint8_t(i);
            const std::vector<uint8_t> before = pixels;
            reversePixels(pixels.data(), n, bpp);
            // Pixel (x, y) moves to (w-1-x, h-1-y) with its bytes in order.
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                    for (int c = 0; c < bpp; ++c)
                        EXPECT_EQ(pixels[size_t(((h - 1 - y) * w + (w - 1 - x)) * bpp + c)],
                                  before[size_t((y * w + x) * bpp + c)]);
            reversePixels(pixels.data(), n, bpp);
            EXPECT_EQ(pixels, before);
        }
    }
}
