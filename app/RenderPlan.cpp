#include "app/RenderPlan.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "app/PathUtil.h"

void printProjectListing(const Project& project, std::ostream& log)
{
    for (const ImageEntry& e : project.images) {
        log << e.fileName << " ";
        for (float v : {e.yaw, e.roll, e.pitch, e.fov, e.a, e.b, e.c, e.d, e.e, e.exposure, e.va, e.vb, e.vc, e.vd})
            log << v << " ";
        log << std::endl;
    }
}

bool isHdrProject(const Project& project)
{
    return !project.images.empty() && hasExtensionIn(project.images.front().fileName, "hdr");
}

bool applyUpsideDownRule(Project& project)
{
    if (project.images.empty() || !isOrientation(project.images.back()))
        return false;
    ImageEntry& orientation = project.images.back();
    if (!(orientation.fov > 90.0f))
        return false;
    orientation.roll = -orientation.roll;
    orientation.pitch = -orientation.pitch;
    return true;
}

int slotCountOf(const Project& project) { return project.images.size() <= 7 ? 5 : 6; }

int32_t defaultEquirectWidth(const Project& project, int slotCount)
{
    int32_t pixels = 0;
    if (!project.images.empty()) {
        const ImageEntry& first = project.images.front();
        // The 32-bit product, wrapping like the capture software's own.
        pixels = int32_t(uint32_t(first.width) * uint32_t(first.height));
    }
    const bool six = slotCount == 6;
    if (pixels < 30000000)
        return six ? 21000 : 14140;
    if (pixels < 50000000)
        return six ? 24600 : 17500;
    return six ? 31800 : 20000;
}

int32_t adjustEquirectWidth(int32_t erWidth, int slotCount, std::ostream& log)
{
    const int32_t r = erWidth % (4 * slotCount);
    if (r != 0) {
        log << "Adjusting output equirect width by " << -r << " pixels -> outW = " << erWidth - r << "."
            << std::endl;
    }
    return erWidth - r;
}

int32_t roundCubeFaceWidth(int32_t cfWidth, std::ostream& log)
{
    if (cfWidth < 1)
        throw std::runtime_error("Invalid cube face width " + std::to_string(cfWidth));
    // Below 256 the power of two would be 0; tiles of one pixel keep the width.
    const unsigned p = std::max(1u, unsigned(std::pow(2.0, std::floor(std::log2(cfWidth / 256.0)))));
    const int64_t k = int64_t(std::ceil(float(cfWidth) / float(p)));
    const int64_t rounded = k * p;
    if (rounded > INT32_MAX)
        throw std::runtime_error("Invalid cube face width " + std::to_string(cfWidth));
    int e = 0;
    while (((p >> e) & 1u) == 0)
        ++e;
    char line[160];
    std::snprintf(line, sizeof line, "Adjusting output cubeface width from %d to %d = %d * 2^%d.\n", cfWidth,
                  int(rounded), int(k), e);
    log << line << std::flush;
    return int32_t(rounded);
}

bool isRenderedEquirectSize(int32_t width, int32_t height)
{
    return width > 0 && width == 2 * height && width % 20 == 0;
}

void reversePixels(uint8_t* pixels, int64_t pixelCount, int bytesPerPixel)
{
    uint8_t tmp[16];
    const size_t n = size_t(bytesPerPixel);
    for (int64_t i = 0, j = pixelCount - 1; i < j; ++i, --j) {
        uint8_t* a = pixels + i * bytesPerPixel;
        uint8_t* b = pixels + j * bytesPerPixel;
        std::memcpy(tmp, a, n);
        std::memcpy(a, b, n);
        std::memcpy(b, tmp, n);
    }
}
