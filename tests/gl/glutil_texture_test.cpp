// Texture upload, readback, splitting and binding against the real driver.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "glutil_helpers.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/GLError.h"
#include "libglutil/Shader.h"
#include "libglutil/Texture.h"

namespace {

// Rows of a packed image with `stride` bytes per row, `rowBytes` used.
std::vector<uint8_t> packRows(const uint8_t* data, int rows, size_t rowBytes, size_t stride)
{
    std::vector<uint8_t> out(rowBytes * size_t(rows));
    for (int y = 0; y < rows; ++y)
        std::memcpy(&out[size_t(y) * rowBytes], data + size_t(y) * stride, rowBytes);
    return out;
}

// Renders test_copy (fetchImage0 shifted by `offset`) into a w x h RGBA8 target.
std::vector<uint8_t> copyPass(const Texture& image, int w, int h, int offsetX, int offsetY)
{
    installTestShaders();
    Shader program("test_copy", "");
    image.bind(GL_TEXTURE0);
    Texture target(w, h, GL_RGBA8);
    bindAsRenderTarget(target);
    glUniform2i(program.uniformLocation("offset"), offsetX, offsetY);
    glClear(GL_COLOR_BUFFER_BIT);
    fullScreenPass(w, h);
    return readRGBA(target);
}

// Expands RGB rows to RGBA with alpha 255 (what an RGB8 texture returns in a pass).
std::vector<uint8_t> toRGBA(const std::vector<uint8_t>& rgb)
{
    std::vector<uint8_t> out(rgb.size() / 3 * 4);
    for (size_t i = 0, j = 0; i < rgb.size(); i += 3, j += 4) {
        out[j] = rgb[i];
        out[j + 1] = rgb[i + 1];
        out[j + 2] = rgb[i + 2];
        out[j + 3] = 255;
    }
    return out;
}

}  // namespace

// Upload in 256-row bands and readback must return every byte unchanged, for
// widths whose rows are not a multiple of 4 bytes (unpack alignment 1) and for
// heights that end inside a band.
TEST(TextureTransfer, UploadThenReadbackIsExact)
{
    struct Case { int w, h; GLenum internal, format; };
    const Case cases[] = {
        {301, 517, GL_RGB8, GL_RGB},    // 903-byte rows, two band boundaries plus a partial band
        {301, 256, GL_RGB8, GL_RGB},    // exactly one band
        {300, 257, GL_RGBA8, GL_RGBA},  // one row into the second band
        {1, 1, GL_RGBA8, GL_RGBA},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h) + " channels " +
                     std::to_string(channelsOf(c.format)));
        const size_t rowBytes = size_t(c.w) * channelsOf(c.format);
        const auto pixels = patternBytes(rowBytes * c.h, 1000u + c.w + c.h);
        Texture tex;
        tex.create(c.w, c.h, c.internal, c.format, pixels.data());
        EXPECT_EQ(tex.count(), 1);
        std::vector<uint8_t> back(pixels.size());
        tex.readPixels(back.data(), c.format);
        EXPECT_TRUE(back == pixels);
    }
}

// A row stride wider than the image (a sub-view of a larger buffer) uploads
// only the view's pixels.
TEST(TextureTransfer, RowStrideSelectsTheView)
{
    const int w = 123, h = 300, stride = 1002;  // 334 pixels, not a multiple of 4 bytes: alignment 1
    const auto buffer = patternBytes(size_t(stride) * h, 7);
    Texture tex;
    tex.create(w, h, GL_RGB8, GL_RGB, buffer.data() + 5, stride);
    std::vector<uint8_t> back(size_t(w) * 3 * h);
    tex.readPixels(back.data(), GL_RGB);
    EXPECT_TRUE(back == packRows(buffer.data() + 5, h, size_t(w) * 3, stride));
}

// Above 4096 x 4096 pixels the readback goes in bands of 8388608 / w rows; the
// band boundaries (every 2046 rows here) must not drop or repeat rows, and a
// GL_PACK_ROW_LENGTH set by the caller must be honoured in every band.
TEST(TextureTransfer, BandedReadbackIsExact)
{
    const int w = 4100, h = 4100;
    const auto pixels = patternBytes(size_t(w) * h * 4, 99);
    Texture tex;
    tex.create(w, h, GL_RGBA8, GL_RGBA, pixels.data());
    std::vector<uint8_t> back(pixels.size());
    tex.readPixels(back.data(), GL_RGBA);
    EXPECT_TRUE(back == pixels);

    // Read a 4097 x 4097 corner into a buffer laid out with the full row length.
    const int cw = 4097, ch = 4097;
    std::vector<uint8_t> corner(size_t(w) * ch * 4, 0);
    glPixelStorei(GL_PACK_ROW_LENGTH, w);
    tex.readPixels(corner.data(), GL_RGBA, cw, ch);
    glPixelStorei(GL_PACK_ROW_LENGTH, 0);
    size_t mismatches = 0;
    for (int y = 0; y < ch; ++y)
        mismatches += std::memcmp(&corner[size_t(y) * w * 4], &pixels[size_t(y) * w * 4], size_t(cw) * 4) != 0;
    EXPECT_EQ(mismatches, 0u);
}

// An image wider than 10000 pixels and at most 8192 high is split at the 8192
// cap even where the GPU could hold it: 12000 wide gives two 6000-wide pieces.
// The left piece reads back directly; the right piece is checked through a
// pass that fetches with an offset, which also covers the shader's piece choice.
TEST(TextureSplit, WideImageSplitsAndBothPiecesAreExact)
{
    const int w = 12000, h = 300;
    const auto pixels = patternBytes(size_t(w) * h * 4, 12000);
    Texture tex;
    tex.create(w, h, GL_RGBA8, GL_RGBA, pixels.data());
    ASSERT_EQ(tex.tileWidth(), 6000);
    ASSERT_EQ(tex.tileHeight(), h);
    EXPECT_EQ(tex.count(), Texture::target() == GL_TEXTURE_2D_ARRAY ? 1 : 2);
    EXPECT_EQ(tex.layers(), Texture::target() == GL_TEXTURE_2D_ARRAY ? 2 : 1);

    const auto left = readRGBA(tex, 6000, h);
    EXPECT_TRUE(left == packRows(pixels.data(), h, 6000 * 4, size_t(w) * 4));

    // GL_RGBA8 counts as RGBE: turn decoding off through the uniform the pass sees.
    installTestShaders();
    Shader program("test_copy", "");
    tex.bind(GL_TEXTURE0);
    glUniform1i(glGetUniformLocation(program.program(), "texIsRGBE0"), 0);
    Texture target(6000, h, GL_RGBA8);
    glUniform2i(program.uniformLocation("offset"), 6000, 0);
    glClear(GL_COLOR_BUFFER_BIT);
    fullScreenPass(6000, h);
    const auto right = readRGBA(target);
    EXPECT_TRUE(right == packRows(pixels.data() + 6000 * 4, h, 6000 * 4, size_t(w) * 4));
}

// An odd split width drops the last column: 12001 splits into 6000 + 6000 and
// column 12000 is not stored (the shader clamps to column 11999).
TEST(TextureSplit, OddWidthDropsLastColumn)
{
    const int w = 12001, h = 40;
    const auto pixels = patternBytes(size_t(w) * h * 3, 12001);
    Texture tex;
    tex.create(w, h, GL_RGB8, GL_RGB, pixels.data());
    EXPECT_EQ(tex.tileWidth(), 6000);
    // Output pixel x shows image column x + 6001: the last output column asks
    // for column 12000, which comes back as column 11999.
    const auto out = copyPass(tex, 6000, h, 6001, 0);
    const auto expected = toRGBA(packRows(pixels.data() + 6001 * 3, h, 5999 * 3, size_t(w) * 3));
    size_t bad = 0;
    for (int y = 0; y < h; ++y) {
        bad += std::memcmp(&out[size_t(y) * 6000 * 4], &expected[size_t(y) * 5999 * 4], 5999 * 4) != 0;
        const uint8_t* last = &out[(size_t(y) * 6000 + 5999) * 4];
        const uint8_t* col11999 = &pixels[(size_t(y) * w + 11999) * 3];
        bad += std::memcmp(last, col11999, 3) != 0;
    }
    EXPECT_EQ(bad, 0u);
}

// The size limit: with the 8192 cap, exactly twice the cap is accepted and one
// more pixel is refused; a height above the GPU's own limit is refused too.
TEST(TextureSplit, SizeLimits)
{
    Texture ok;
    ok.create(16384, 1, GL_RGBA8, GL_RGBA, nullptr);
    EXPECT_EQ(ok.tileWidth(), 8192);
    try {
        Texture tooWide;
        tooWide.create(16385, 1, GL_RGBA8, GL_RGBA, nullptr);
        ADD_FAILURE() << "no exception";
    } catch (const opengl_error& e) {
        EXPECT_STREQ(e.what(), "Maximum texture size of GPU is too small (16385x1 > 8192)");
    }
    GLint max = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &max);
    try {
        Texture tooHigh(1, max + 1, GL_RGBA8);
        ADD_FAILURE() << "no exception";
    } catch (const opengl_error& e) {
        EXPECT_EQ(std::string(e.what()), "Maximum texture size of GPU is too small (1x" + std::to_string(max + 1) +
                                             " > " + std::to_string(max) + ")");
    }
}

// bind returns the first unit after the texture and fills the per-unit
// uniforms named after the first unit it occupies.
TEST(TextureBind, ReturnsNextUnitAndSetsUniforms)
{
    installTestShaders();
    Shader program("test_uniforms", "");
    // The program comes with its samplers preset to units 0 and 1.
    GLint unit0 = -1, unit1 = -1;
    glGetUniformiv(program.program(), glGetUniformLocation(program.program(), "texUnit0"), &unit0);
    glGetUniformiv(program.program(), glGetUniformLocation(program.program(), "texUnit1"), &unit1);
    EXPECT_EQ(unit0, 0);
    EXPECT_EQ(unit1, 1);
    Texture split;
    split.create(12000, 8, GL_RGBA8, GL_RGBA, patternBytes(12000 * 8 * 4, 1).data());
    const GLenum afterSplit = split.bind(GL_TEXTURE0);
    EXPECT_EQ(afterSplit, Texture::target() == GL_TEXTURE_2D_ARRAY ? GLenum(GL_TEXTURE1) : GLenum(GL_TEXTURE2));
    GLint size[2] = {0, 0}, rgbe = -1, hdr = -1, mip = -1;
    glGetUniformiv(program.program(), glGetUniformLocation(program.program(), "texSize0"), size);
    glGetUniformiv(program.program(), glGetUniformLocation(program.program(), "texIsRGBE0"), &rgbe);
    glGetUniformiv(program.program(), glGetUniformLocation(program.program(), "texIsHDR0"), &hdr);
    glGetUniformiv(program.program(), glGetUniformLocation(program.program(), "texIsMipMap0"), &mip);
    EXPECT_EQ(size[0], 12000);
    EXPECT_EQ(size[1], 8);
    EXPECT_EQ(rgbe, 1);
    EXPECT_EQ(hdr, 1);
    EXPECT_EQ(mip, 0);
    GLint active = 0;
    glGetIntegerv(GL_ACTIVE_TEXTURE, &active);
    EXPECT_EQ(GLenum(active), GLenum(GL_TEXTURE0));

    Texture rgb;
    rgb.create(5, 7, GL_RGB8, GL_RGB, patternBytes(5 * 7 * 3, 2).data());
    EXPECT_EQ(rgb.bind(GL_TEXTURE1), GLenum(GL_TEXTURE2));
    glGetUniformiv(program.program(), glGetUniformLocation(program.program(), "texSize1"), size);
    glGetUniformiv(program.program(), glGetUniformLocation(program.program(), "texIsRGBE1"), &rgbe);
    glGetUniformiv(program.program(), glGetUniformLocation(program.program(), "texIsHDR1"), &hdr);
    EXPECT_EQ(size[0], 5);
    EXPECT_EQ(size[1], 7);
    EXPECT_EQ(rgbe, 0);
    EXPECT_EQ(hdr, 0);

    Texture float16(4, 4, GL_RGB16F);
    EXPECT_TRUE(float16.isHDR());
    EXPECT_FALSE(float16.isRGBE());
    Texture empty;
    EXPECT_EQ(empty.bind(GL_TEXTURE3), GLenum(GL_TEXTURE3));
    EXPECT_EQ(glErrorReport(__FILE__, __LINE__), "");
}

// Ownership: a move leaves the source empty and the names alive in the
// destination; destroy releases textures and framebuffer; a render target is
// given one framebuffer however often it is bound.
TEST(TextureOwnership, MoveAndDestroy)
{
    Texture a(16, 16, GL_RGBA8);
    const GLuint name = a.piece(0);
    const GLuint fbo = a.framebuffer();
    ASSERT_NE(fbo, 0u);
    bindAsRenderTarget(a);
    bindAsRenderTarget(a);
    EXPECT_EQ(a.framebuffer(), fbo);

    Texture b(std::move(a));
    EXPECT_EQ(a.count(), 0);
    EXPECT_EQ(a.piece(0), 0u);
    EXPECT_EQ(a.framebuffer(), 0u);
    a.destroy();  // nothing left to release
    EXPECT_TRUE(glIsTexture(name));
    EXPECT_EQ(b.piece(0), name);

    Texture c;
    c = std::move(b);
    EXPECT_EQ(c.width(), 16);
    c.destroy();
    EXPECT_FALSE(glIsTexture(name));
    EXPECT_FALSE(glIsFramebuffer(fbo));
}

TEST(TextureFormats, ChannelsOfRejectsUnknownFormats)
{
    EXPECT_EQ(channelsOf(GL_RED), 1);
    EXPECT_EQ(channelsOf(GL_RGB), 3);
    EXPECT_EQ(channelsOf(GL_RGBA), 4);
    try {
        channelsOf(GL_BGR);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "unknown GL format: 32992");
    }
}

// The one-shot mipmap request: the next creation with data gets a chain one
// level short of complete (4096 gives 12 levels), HDR formats never get one,
// and the request is used up by the first creation that reads it.
TEST(TextureMipmap, RequestIsOneShotAndSkipsHdr)
{
    if (!glewIsSupported("GL_VERSION_4_2"))
        GTEST_SKIP() << "level count is only fixed with immutable storage";
    const auto pixels = patternBytes(4096 * 4 * 3, 3);
    Texture::mipmapRequest() = true;
    Texture mip;
    mip.create(4096, 4, GL_RGB8, GL_RGB, pixels.data());
    EXPECT_TRUE(mip.isMipMap());
    EXPECT_FALSE(Texture::mipmapRequest());
    GLint levels = 0;
    glBindTexture(Texture::target(), mip.piece(0));
    glGetTexParameteriv(Texture::target(), GL_TEXTURE_IMMUTABLE_LEVELS, &levels);
    EXPECT_EQ(levels, Texture::target() == GL_TEXTURE_2D_ARRAY ? 1 : 12);

    Texture plain;
    plain.create(64, 4, GL_RGB8, GL_RGB, pixels.data());
    EXPECT_FALSE(plain.isMipMap());

    Texture::mipmapRequest() = true;
    Texture rgbe;
    rgbe.create(64, 4, GL_RGBA8, GL_RGBA, patternBytes(64 * 4 * 4, 4).data());
    EXPECT_FALSE(rgbe.isMipMap());
    EXPECT_FALSE(Texture::mipmapRequest());
    EXPECT_EQ(glErrorReport(__FILE__, __LINE__), "");
}

// copyTo converts a half-float target into 8-bit on the GPU: 0.25, 0.5, 0.75,
// 1.0 become 64, 128, 191, 255 (GL rounds to nearest; 0.75 * 255 = 191.25).
TEST(TextureCopy, FloatTargetToRGBA8)
{
    Texture half(40, 300, GL_RGBA16F);
    glClearColor(0.25f, 0.5f, 0.75f, 1.0f);
    glClear(GL_COLOR_BUFFER_BIT);
    glClearColor(0, 0, 0, 0);
    Texture bytes(40, 300, GL_RGBA8);
    half.copyTo(bytes);
    const auto out = readRGBA(bytes);
    int bad = 0;
    for (size_t i = 0; i < out.size(); i += 4)
        bad += out[i] != 64 || out[i + 1] != 128 || out[i + 2] != 191 || out[i + 3] != 255;
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(glErrorReport(__FILE__, __LINE__), "");
}
