// tsp JSON project document.
#include "FuzzInput.h"
#include "project/TspProject.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzzinput::run(data, size, "input.tsp", [](const std::string& p) { loadTspProject(p); });
}
