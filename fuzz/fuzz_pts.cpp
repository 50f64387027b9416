// pts stitching script import.
#include "FuzzInput.h"
#include "project/PtsImport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzzinput::run(data, size, "input.pts", [](const std::string& p) { importPtsScript(p); });
}
