// TIFF reader (equirect panorama inputs, 8/16-bit and floating point).
#include "FuzzInput.h"
#include "image/Tiff.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzzinput::run(data, size, "input.tif", [](const std::string& p) { readTiff(p); });
}
