// JPEG reader (source pictures and the logo).
#include "FuzzInput.h"
#include "image/Jpeg.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzzinput::run(data, size, "input.jpg", [](const std::string& p) { readJpeg(p); });
}
