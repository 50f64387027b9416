// GPU side of the tone-mapping pass.
#include "passes/Tonemap.h"

#include <iostream>
#include <stdexcept>

#include "image/ExponentStats.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/FullScreenPass.h"
#include "libglutil/Shader.h"
#include "libglutil/Stage.h"
#include "libglutil/Texture.h"

MutableImageView tonemap(const MutableImageView& rgbe)
{
    StageTimer total("[T] tonemap (total)");
    const int width = rgbe.width(), height = rgbe.height();
    // The chunks are runs of the pixel sequence and the output is written
    // packed over the input, so the input must be packed RGBE.
    if (rgbe.channels() != 4 || !rgbe.packed())
        throw std::runtime_error("tonemap: the RGBE image must be packed (4 bytes a pixel, no row padding)");

    const SceneKey key = measureSceneKey(rgbe);
    std::cerr << "avgLum = " << key.avgLum << ", maxLum = " << key.rawMax << std::endl;
    finishStage("avg log lum");

    const Shader& program = sharedShader("tonemap", "");
    program.setUniform("avgLum", key.avgLum);
    program.setUniform("maxLum", whiteLuminance(key));
    finishStage("shader");

    const ToneChunks chunks = toneChunks(width, height);
    const int64_t chunkPixels = int64_t(chunks.width) * chunks.height;
    const RenderTarget target(chunks.width, chunks.height, GL_RGB8);

    for (int k = 0; k < chunks.count; ++k) {
        const uint8_t* in = rgbe.data() + k * chunkPixels * 4;
        // Each chunk's line shows the plain minimum.
        const ImageView chunk(in, chunks.width, chunks.height, 4);
        const ExponentStats stats = exponentStats(chunk);
        printExponentStats(chunk.width(), chunk.height(), stats.maxE, stats.lowestE, stats.mean());

        const Texture input = Texture::upload(chunks.width, chunks.height, GL_RGBA8, GL_RGBA, in, 4 * chunks.width);
        finishStage("cpu -> gpu (render)");

        input.bind(GL_TEXTURE0);
        target.framebuffer.bind();
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        fullScreenPass(chunks.width, chunks.height);
        finishStage("render (tonemap)");

        // 3 bytes a pixel land behind the 4-byte input of this and the later
        // chunks: nothing still to be uploaded is overwritten.
        target.framebuffer.read(rgbe.data() + k * chunkPixels * 3, GL_RGB, GL_UNSIGNED_BYTE, chunks.width, chunks.height);
        finishStage("gpu -> cpu (render)");
    }

    return MutableImageView(rgbe.data(), width, height, 3);
}
