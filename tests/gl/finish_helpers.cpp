#include "finish_helpers.h"

#include <cmath>
#include <filesystem>

#include "image/Rgbe.h"

namespace fs = std::filesystem;

std::string finishTempDir(const std::string& name)
{
    const fs::path dir = fs::temp_directory_path() / ("tessara_finish_" + name);
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir.string();
}

std::string panoramaPath(const std::string& name)
{
    return (fs::path(TESSARA_SOURCE_DIR) / "tests" / "data" / "panoramas" / name).string();
}

std::array<double, 3> directionColour(const std::array<double, 3>& d)
{
    return {128 + 100 * d[0], 128 + 100 * d[1], 128 + 100 * d[2]};
}

Image directionPanorama(int width, int height, bool rgbe)
{
    Image image(width, height, rgbe ? 4 : 3);
    for (int y = 0; y < height; ++y) {
        const double lat = ((height - 1) / 2.0 - y) * M_PI / height;
        for (int x = 0; x < width; ++x) {
            const double lon = (x - (width - 1) / 2.0) * 2 * M_PI / width;
            const std::array<double, 3> c = directionColour(
                {std::cos(lat) * std::sin(lon), std::sin(lat), std::cos(lat) * std::cos(lon)});
            uint8_t* p = image.pixel(x, y);
            uint8_t bytes[3];
            for (int k = 0; k < 3; ++k)
                bytes[k] = uint8_t(std::lround(c[k]));
            if (rgbe)
                floatToRgbe(bytes[0] / 255.0f, bytes[1] / 255.0f, bytes[2] / 255.0f, p);
            else
                p[0] = bytes[0], p[1] = bytes[1], p[2] = bytes[2];
        }
    }
    return image;
}

std::array<double, 3> sampleEquirect(const ImageView& rgb, double x, double y)
{
    const int w = rgb.width, h = rgb.height;
    y = std::min(std::max(y, 0.0), double(h - 1));
    const double x0 = std::floor(x), y0 = std::floor(y);
    const double fx = x - x0, fy = y - y0;
    auto at = [&](double px, double py, int k) {
        const int xi = ((int(px) % w) + w) % w;
        const int yi = std::min(int(py), h - 1);
        return double(rgb.pixel(xi, yi)[k]);
    };
    std::array<double, 3> out;
    for (int k = 0; k < 3; ++k) {
        const double top = at(x0, y0, k) * (1 - fx) + at(x0 + 1, y0, k) * fx;
        const double bottom = at(x0, y0 + 1, k) * (1 - fx) + at(x0 + 1, y0 + 1, k) * fx;
        out[k] = top * (1 - fy) + bottom * fy;
    }
    return out;
}

std::array<double, 2> equirectPosition(const std::array<double, 3>& d, int width, int height)
{
    const double lon = std::atan2(d[0], d[2]), lat = std::atan2(d[1], std::hypot(d[0], d[2]));
    return {lon * width / (2 * M_PI) + (width - 1) / 2.0, (height - 1) / 2.0 - lat * height / M_PI};
}

ClipFractions clipFractions(const ImageView& rgb)
{
    int64_t white = 0, black = 0;
    double luma = 0;
    for (int y = 0; y < rgb.height; ++y)
        for (int x = 0; x < rgb.width; ++x) {
            const uint8_t* p = rgb.pixel(x, y);
            white += p[0] == 255 && p[1] == 255 && p[2] == 255;
            black += p[0] == 0 && p[1] == 0 && p[2] == 0;
            luma += 0.3 * p[0] + 0.59 * p[1] + 0.11 * p[2];
        }
    const double n = double(rgb.width) * rgb.height;
    return {white / n, black / n, luma / n};
}
