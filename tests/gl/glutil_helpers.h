#pragma once
// Shared pieces of the GL layer tests: deterministic images, the test passes
// beside the executable, readback of a pass, and re-running this test binary
// in a child process under another environment (core profile, array textures,
// a copy of the executable with stand-in tools beside it).
#include <GL/glew.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

class Texture;

// Pseudo-random bytes (fixed seed per call site) so that any misplaced row,
// column or channel shows up.
std::vector<uint8_t> patternBytes(size_t count, uint32_t seed);

// Copies tests/shaders/*.frag into the directory shaders are loaded from.
void installTestShaders();

// Reads `target` (first piece) as RGBA bytes, rows in memory order.
std::vector<uint8_t> readRGBA(Texture& target, int w = 0, int h = 0);

struct ChildResult {
    int status = -1;     // exit status, or -1 when it did not exit normally
    std::string output;  // standard output and error together
};

// Runs `executable` with a gtest filter and extra environment variables and
// waits for it.
ChildResult runTestChild(const std::string& executable, const std::string& filter,
                         const std::vector<std::pair<std::string, std::string>>& env);

// Path of the running test binary.
std::string selfExecutable();

// True in a child started by runTestChild (such children skip the re-running tests).
bool isTestChild();
