// The logo pass: renders the nadir band in tiles and reads them back into the
// panorama's bottom rows.
#include "passes/Logo.h"

#include "image/ImageLoader.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/FullScreenPass.h"
#include "libglutil/Shader.h"
#include "libglutil/Stage.h"
#include "libglutil/Texture.h"

void drawLogo(const MutableImageView& panorama, const std::string& logoPath, bool hdr)
{
    const int width = panorama.width(), height = panorama.height();
    const float fov = logoFov();
    const int n = logoTileCount(width);
    const int tileWidth = width / n;
    const int bandHeight = logoBandHeight(fov, height);
    const RenderTarget target(tileWidth, bandHeight, GL_RGBA8);

    Texture logo = loadImage(logoPath);
    finishStage("load (logo)");

    const Shader& program = sharedShader("fish", hdr ? "#define RENDER_LOGO\n#define RGBE_OUT\n" : "#define RENDER_LOGO\n#define LDR\n");
    program.setUniform("outFovX", 360.0f / float(n));
    program.setUniform("fov", 2.0f * fov);
    program.setUniform("inSize", float(logo.width()), float(logo.height()));
    program.setUniform("outSize", float(target.width()), float(target.height()));

    const GLenum format = hdr ? GL_RGBA : GL_RGB;
    for (int i = 0; i < n; ++i) {
        const Mat3 cameraMat = logoCameraMatrix(i, n);
        program.setMatrix3("cameraMat", cameraMat.data());
        logo.bind(GL_TEXTURE0);
        target.framebuffer.bind();
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        fullScreenPass(target.width(), target.height());

        target.framebuffer.read(panorama.pixel(i * tileWidth, height - bandHeight), format, GL_UNSIGNED_BYTE,
                                target.width(), target.height(), panorama.stride() / panorama.channels());
    }
    finishStage("render logo");
}
