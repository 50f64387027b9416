// PNG reader (equirect panorama inputs).
#include "FuzzInput.h"
#include "image/Png.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzzinput::run(data, size, "input.png", [](const std::string& p) { readPng(p); });
}
