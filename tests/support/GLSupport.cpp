#include "GLSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "libglutil/BesideExecutable.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/FullScreenPass.h"
#include "libglutil/Shader.h"
#include "libglutil/Texture.h"
#include "support/Support.h"

namespace fs = std::filesystem;

namespace support {

std::vector<uint8_t> patternBytes(size_t count, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::vector<uint8_t> bytes(count);
    for (auto& b : bytes)
        b = uint8_t(rng() >> 24);
    return bytes;
}

void installTestShaders()
{
    static bool done = false;
    if (done)
        return;
    const fs::path dir = fs::path(besideExecutable("stdlib.frag")).parent_path();
    for (const auto& entry : fs::directory_iterator(sourcePath("shaders")))
        fs::copy_file(entry.path(), dir / entry.path().filename(), fs::copy_options::overwrite_existing);
    done = true;
}

std::vector<float> runPass(const Shader& program, const Texture* image, int w, int h,
                           const std::function<void()>& setUniforms)
{
    program.use();
    if (image)
        image->bind(GL_TEXTURE0);
    const RenderTarget target(w, h, GL_RGBA32F);
    if (setUniforms)
        setUniforms();
    glClearColor(0, 0, 0, 0);
    glClear(GL_COLOR_BUFFER_BIT);
    fullScreenPass(w, h);
    std::vector<float> out(size_t(w) * size_t(h) * 4);
    target.framebuffer.read(out.data(), GL_RGBA, GL_FLOAT, w, h);
    return out;
}

}  // namespace support
