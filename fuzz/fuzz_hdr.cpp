// Radiance .hdr reader.
#include "FuzzInput.h"
#include "image/Radiance.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzzinput::run(data, size, "input.hdr", [](const std::string& p) { readRadiance(p); });
}
