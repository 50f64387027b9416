#pragma once
// Helpers of the GL tests: deterministic bytes, the test passes in
// tests/shaders, and running a pass to read its float target back.
#include <cstdint>
#include <functional>
#include <vector>

class Shader;
class Texture;

namespace support {

// Pseudo-random bytes (fixed seed per call site): any misplaced row, column
// or channel shows up.
std::vector<uint8_t> patternBytes(size_t count, uint32_t seed);

// Copies tests/shaders/*.frag to where the program loads its shaders from.
void installTestShaders();

// Draws `program` over a new w x h RGBA32F target with `image` (if any) on
// unit 0, after `setUniforms`, and returns the target's RGBA floats, rows in
// memory order.
std::vector<float> runPass(const Shader& program, const Texture* image, int w, int h,
                           const std::function<void()>& setUniforms = {});

}  // namespace support
