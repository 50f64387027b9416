#include "E2eImages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>

#include "image/Jpeg.h"
#include "image/Radiance.h"
#include "image/Rgbe.h"

Image syntheticEquirect(int width, int height, bool flat)
{
    Image img(width, height, 4);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            float rgb[3] = {1.5f, 0.75f, 0.25f};
            if (!flat) {
                const double lon = 2 * M_PI * (x + 0.5) / width, lat = M_PI * (y + 0.5) / height;
                // A bright band along the horizon over a dim, coloured sky.
                const double base = std::exp2(6.0 * std::sin(lat) - 4.0);
                rgb[0] = float(base * (1.2 + std::cos(lon)));
                rgb[1] = float(base * (1.2 + std::sin(2 * lon)));
                rgb[2] = float(base * (1.2 + std::cos(3 * lat)));
            }
            floatToRgbe(rgb[0], rgb[1], rgb[2], img.pixel(x, y));
        }
    }
    return img;
}

void writeHdrFile(const std::string& path, const ImageView& rgbe)
{
    std::ofstream out(path, std::ios::binary);
    ASSERT_TRUE(out.good()) << path;
    writeRadiance(out, rgbe);
    out.close();
    ASSERT_TRUE(out.good()) << path;
}

Size jpegSize(const std::string& path)
{
    try {
        const Image img = readJpeg(path);
        return {img.width, img.height};
    } catch (const std::exception& e) {
        ADD_FAILURE() << e.what();
        return {};
    }
}

std::set<std::string> filesIn(const std::string& dir)
{
    std::set<std::string> names;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ec))
        if (entry.is_regular_file())
            names.insert(entry.path().filename().string());
    return names;
}

RelativeError compareRgbe(const ImageView& expected, const ImageView& actual)
{
    RelativeError err;
    EXPECT_EQ(expected.width, actual.width);
    EXPECT_EQ(expected.height, actual.height);
    if (expected.width != actual.width || expected.height != actual.height)
        return {1e9, 1e9};
    double sum = 0;
    int64_t n = 0;
    for (int y = 0; y < expected.height; ++y) {
        for (int x = 0; x < expected.width; ++x) {
            float a[3], b[3];
            rgbeToFloat(expected.pixel(x, y), a);
            rgbeToFloat(actual.pixel(x, y), b);
            for (int c = 0; c < 3; ++c) {
                const double e = std::abs(double(a[c]) - double(b[c])) / std::max(double(a[c]), 1e-3);
                err.max = std::max(err.max, e);
                sum += e;
                ++n;
            }
        }
    }
    err.mean = n ? sum / double(n) : 0;
    return err;
}
