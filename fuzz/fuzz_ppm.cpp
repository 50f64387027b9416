// The PPM stream of the raw preview decoder, read as the loader reads it.
#include <stdexcept>

#include "FuzzInput.h"
#include "image/Ppm.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzzinput::run(data, size, "input.ppm", [](const std::string& p) {
        FILE* f = std::fopen(p.c_str(), "rb");
        if (!f)
            return;
        try {
            // The loader's GPU limit, for a driver with 16384-pixel textures
            // (an image may be split into two halves side by side).
            readPpm(f, [](int w, int h) {
                if (h > 16384 || w > 2 * 16384)
                    throw std::runtime_error("Maximum texture size of GPU is too small");
            });
        } catch (...) {
            std::fclose(f);
            throw;
        }
        std::fclose(f);
    });
}
