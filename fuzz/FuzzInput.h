#pragma once
// Shared by the entry points: the readers take file names, so each input is
// written to a scratch file (memory-backed where /dev/shm exists) and the
// reader is called on it. An exception derived from std::exception is the
// reader refusing the input, which is what it should do; anything else (a
// crash, a sanitizer report, another exception type) is a finding.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

namespace fuzzinput {

// Same directory and name for every case of a process; `name` keeps the
// extension (and stem) that the reader looks at.
inline std::string& scratchDir()
{
    static std::string dir;
    return dir;
}

// The directory and the one file in it go when the process exits normally.
inline void removeScratch()
{
    const std::string& dir = scratchDir();
    for (const char* name : {"input.hdr", "input.exr", "input.jpg", "input.pts", "input.tsp", "input.ppm", "input.png", "input.tif"})
        std::remove((dir + "/" + name).c_str());
    rmdir(dir.c_str());
}

inline std::string scratchPath(const char* name)
{
    std::string& dir = scratchDir();
    if (dir.empty()) {
        const char* tmp = std::getenv("TMPDIR");
        const std::string base = tmp && *tmp ? tmp : (access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
        std::string t = base + "/tessara-fuzz-XXXXXX";
        if (!mkdtemp(&t[0]))
            std::abort();
        dir = t;
        std::atexit(removeScratch);
    }
    return dir + "/" + name;
}

template <typename Reader>
int run(const uint8_t* data, size_t size, const char* name, Reader reader)
{
    const std::string path = scratchPath(name);
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f || std::fwrite(data, 1, size, f) != size || std::fclose(f) != 0)
        std::abort();
    try {
        reader(path);
    } catch (const std::exception&) {
    }
    return 0;
}

}  // namespace fuzzinput
