// Texture transfer throughput: upload and readback of a 20-megapixel image
// through Texture (256-row upload bands, banded readback), on whatever GL the
// headless context gets (llvmpipe on CI machines).
//
//   bench_gl_transfer [repetitions]     (default 5; the best run is reported)
//
// Besides the RGBA8 figures the renderer's own read-backs use, it shows the cost of
// reading a half-float target as bytes (the driver converts on the CPU).
#include <GL/glew.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <vector>

#include "libglutil/ContextSession.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/Texture.h"

namespace {

double seconds()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// Best wall time of `reps` runs of `work`, each ended with glFinish.
double best(int reps, const std::function<void()>& work)
{
    double bestTime = 1e30;
    for (int i = 0; i < reps; ++i) {
        glFinish();
        const double t0 = seconds();
        work();
        glFinish();
        bestTime = std::min(bestTime, seconds() - t0);
    }
    return bestTime;
}

void report(const char* what, int w, int h, size_t bytes, double t)
{
    std::printf("%-44s %dx%d %7.1f MB  %8.4f s  %8.1f MB/s\n", what, w, h, double(bytes) / 1e6, t,
                double(bytes) / 1e6 / t);
}

}  // namespace

int main(int argc, char** argv)
{
    const int reps = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    int qtArgc = 1;
    ContextSession session(qtArgc, argv);
    std::printf("GL: %s | %s\n", reinterpret_cast<const char*>(glGetString(GL_RENDERER)),
                reinterpret_cast<const char*>(glGetString(GL_VERSION)));

    const int w = 5472, h = 3648;  // 19.96 MP, a typical 20 MP camera frame
    std::vector<uint8_t> rgba(size_t(w) * h * 4);
    std::mt19937 rng(1);
    for (auto& b : rgba)
        b = uint8_t(rng());
    std::vector<uint8_t> rgb(size_t(w) * h * 3);
    for (size_t i = 0, j = 0; j < rgb.size(); i += 4, j += 3)
        std::copy_n(&rgba[i], 3, &rgb[j]);
    std::vector<uint8_t> back(rgba.size());

    Texture tex;
    report("upload RGBA8 (create + 256-row bands)", w, h, rgba.size(), best(reps, [&] {
               tex.destroy();
               tex = Texture::upload(w, h, GL_RGBA8, GL_RGBA, rgba.data());
           }));
    // Where the upload time goes: storage allocation versus the copy itself.
    glBindTexture(GL_TEXTURE_2D, tex.piece(0));
    report("  re-upload into existing storage, bands", w, h, rgba.size(), best(reps, [&] {
               for (int y = 0; y < h; y += 256)
                   glTexSubImage2D(GL_TEXTURE_2D, 0, 0, y, w, std::min(256, h - y), GL_RGBA, GL_UNSIGNED_BYTE,
                                   rgba.data() + size_t(y) * w * 4);
           }));
    report("  re-upload into existing storage, one call", w, h, rgba.size(), best(reps, [&] {
               glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, w, h, GL_RGBA, GL_UNSIGNED_BYTE, rgba.data());
           }));
    const Framebuffer texTarget(tex);
    report("readback RGBA8 as RGBA bytes (banded)", w, h, rgba.size(),
           best(reps, [&] { texTarget.read(back.data(), GL_RGBA, GL_UNSIGNED_BYTE, w, h); }));
    if (back != rgba) {
        std::fprintf(stderr, "readback differs from the upload\n");
        return 1;
    }

    Texture photo;
    report("upload RGB8 from RGB bytes", w, h, rgb.size(), best(reps, [&] {
               photo.destroy();
               photo = Texture::upload(w, h, GL_RGB8, GL_RGB, rgb.data());
           }));
    std::vector<uint8_t> backRgb(rgb.size());
    const Framebuffer photoTarget(photo);
    report("readback RGB8 as RGB bytes (banded)", w, h, rgb.size(),
           best(reps, [&] { photoTarget.read(backRgb.data(), GL_RGB, GL_UNSIGNED_BYTE, w, h); }));

    const RenderTarget half(w, h, GL_RGBA16F);
    glClearColor(0.25f, 0.5f, 0.75f, 1.0f);
    glClear(GL_COLOR_BUFFER_BIT);
    glClearColor(0, 0, 0, 0);
    report("readback RGBA16F as RGBA bytes (CPU convert)", w, h, rgba.size(),
           best(reps, [&] { half.framebuffer.read(back.data(), GL_RGBA, GL_UNSIGNED_BYTE, w, h); }));
    return 0;
}
