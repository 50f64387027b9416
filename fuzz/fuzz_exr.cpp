// OpenEXR reader (header check, then the library's RGBA interface).
#include <ImfThreading.h>

#include "FuzzInput.h"
#include "image/OpenExr.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The renderer always runs the library's worker pool; so does the harness.
    static const bool threads = (Imf::setGlobalThreadCount(2), true);
    (void)threads;
    return fuzzinput::run(data, size, "input.exr", [](const std::string& p) { readExr(p); });
}
