// stdlib.frag: helpers shared by every fragment shader. The program places this
// file after the "#version" line and the pass's define lines and before the
// pass's own text, so it has no version line of its own and may test defines
// (USE_ARRAY_TEXTURE). It must compile as GLSL 1.20, 1.30 and 3.30 (core and
// compatibility): integer and float arithmetic are kept apart explicitly.
//
// Coordinates (the same everywhere, nothing is ever flipped):
// - Texture row 0 is the first row in memory, i.e. the top of an image whose
//   rows are stored top first. Pixel (x, y) is column x of memory row y.
// - _gl_TexCoord is the fragment's position in viewport pixels, pixel centres
//   at +0.5. glReadPixels returns the bottom row first, so the fragment at
//   _gl_TexCoord.y = r + 0.5 lands in memory row r of the read-back buffer:
//   output row 0 is the top row of the result image.
// - fetchImageN takes integer pixel coordinates; sampleImageN takes continuous
//   ones with pixel centres at integers ((0, 0) = first pixel in memory), so
//   the input pixel under a same-sized output fragment is _gl_TexCoord - 0.5.
//   Both clamp to the image edges.
//
// Per-unit uniforms, set by Texture::bind for the unit the texture is bound to:
// texSizeN (size of the whole image), texIsRGBEN, texIsHDRN, texIsMipMapN (0/1),
// and, below GLSL 1.30 where samplers cannot report their size, tileSizeN
// (tile width, tile height, piece count). An image wider than the GPU allows is
// split into a left and a right half of width texSize0.x / 2: on units 0 and 1,
// or under USE_ARRAY_TEXTURE in layers 0 and 1 of texUnit0. Only unit 0 may
// hold a split image; fetchImage1/sampleImage1 read a single piece.
//
// RGBE texels (texIsRGBEN = 1) hold the bytes R, G, B, E of a Radiance pixel;
// the value is byte * 2^(E - 136), black when E = 0. They are decoded before
// any interpolation.

#if defined(USE_ARRAY_TEXTURE) && __VERSION__ < 130
#extension GL_EXT_texture_array : require
#endif

#if __VERSION__ >= 330
in vec2 _gl_TexCoord;
out vec4 fragColor;
#else
#define _gl_TexCoord gl_TexCoord[0].xy
#define fragColor gl_FragColor
#endif

#ifdef USE_ARRAY_TEXTURE
#define _TexSampler sampler2DArray
#else
#define _TexSampler sampler2D
#endif

uniform _TexSampler texUnit0;
uniform _TexSampler texUnit1;
uniform _TexSampler texUnit2;
uniform _TexSampler texUnit3;
uniform _TexSampler texUnit4;
uniform _TexSampler texUnit5;

uniform ivec2 texSize0;
uniform ivec2 texSize1;
uniform ivec2 texSize2;
uniform ivec2 texSize3;
uniform ivec2 texSize4;
uniform ivec2 texSize5;

uniform int texIsRGBE0;
uniform int texIsRGBE1;
uniform int texIsRGBE2;
uniform int texIsRGBE3;
uniform int texIsRGBE4;
uniform int texIsRGBE5;

uniform int texIsHDR0;
uniform int texIsHDR1;
uniform int texIsHDR2;
uniform int texIsHDR3;
uniform int texIsHDR4;
uniform int texIsHDR5;

uniform int texIsMipMap0;
uniform int texIsMipMap1;
uniform int texIsMipMap2;
uniform int texIsMipMap3;
uniform int texIsMipMap4;
uniform int texIsMipMap5;

#if __VERSION__ < 130
uniform ivec3 tileSize0;
uniform ivec3 tileSize1;
uniform ivec3 tileSize2;
uniform ivec3 tileSize3;
uniform ivec3 tileSize4;
uniform ivec3 tileSize5;
#endif

// 2^e for integer-valued e, exact (exp2 of an integer is not guaranteed to be).
float _pow2(float e)
{
    e = clamp(e, -126.0, 127.0);
#if __VERSION__ >= 330
    return intBitsToFloat((int(e) + 127) * 8388608);
#else
    return exp2(e);
#endif
}

// Linear value of an RGBE texel read as bytes / 255.
vec3 decodeRGBE(vec4 t)
{
    vec4 b = floor(t * 255.0 + vec4(0.5));
    if (b.a == 0.0)
        return vec3(0.0);
    // byte * 2^(E - 136) = (byte / 256) * 2^(E - 128); the second form stays
    // clear of denormals for every exponent the images use.
    return (b.rgb / 256.0) * _pow2(b.a - 128.0);
}

// Low 8 bits of an integer-valued float (as the CPU encoder's byte cast).
vec4 _low8(vec4 v)
{
    return v - 256.0 * floor(v / 256.0);
}

// RGBE bytes / 255 of a linear colour, byte for byte what the CPU encoder
// gives: v = max channel = m * 2^e with m in [0.5, 1), mantissas truncated
// toward zero of channel * 2^(8 - e), exponent byte e + 128; v < 1e-32 is black.
vec4 encodeRGBE(vec3 c)
{
    float v = max(max(c.b, c.g), c.r);
    if (v < 1e-32)
        return vec4(0.0);
    float e = floor(log2(v)) + 1.0;
    // log2 may be off by one ulp at powers of two: settle e exactly. The
    // comparisons are against 2^e itself (exact, and within the float range
    // for e up to 127), not against v scaled by 2^-e, which leaves the
    // range for v >= 2^126.
    if (e < 128.0 && v >= _pow2(e))
        e += 1.0;
    else if (v < _pow2(e - 1.0))
        e -= 1.0;
    vec3 scaled = c * _pow2(8.0 - e);
    vec3 mantissa = sign(scaled) * floor(abs(scaled));
    return _low8(vec4(mantissa, e + 128.0)) / 255.0;
}

// sRGB transfer curve (IEC 61966-2-1), per channel; inputs below 0 give 0.
vec3 srgbToLinear(vec3 c)
{
    c = max(c, vec3(0.0));
    vec3 lo = c / 12.92;
    vec3 hi = pow((c + vec3(0.055)) / 1.055, vec3(2.4));
    return mix(hi, lo, vec3(lessThanEqual(c, vec3(0.04045))));
}

vec3 linearToSrgb(vec3 c)
{
    c = max(c, vec3(0.0));
    vec3 lo = c * 12.92;
    vec3 hi = 1.055 * pow(c, vec3(1.0 / 2.4)) - vec3(0.055);
    return mix(hi, lo, vec3(lessThanEqual(c, vec3(0.0031308))));
}

// Clamps an integer pixel position into [0, size - 1] (float arithmetic: integer
// clamp does not exist in GLSL 1.20; exact for every texture size).
ivec2 _clampPixel(ivec2 p, ivec2 size)
{
    return ivec2(clamp(vec2(p), vec2(0.0), vec2(size) - vec2(1.0)));
}

// Raw texel at integer position p of one piece (layer for array textures).
// tileSize is only used below GLSL 1.30, where texelFetch does not exist.
vec4 _texel(_TexSampler s, ivec2 p, int layer, vec2 tileSize)
{
#if __VERSION__ >= 130
#ifdef USE_ARRAY_TEXTURE
    return texelFetch(s, ivec3(p, layer), 0);
#else
    return texelFetch(s, p, 0);
#endif
#else
    vec2 uv = (vec2(p) + vec2(0.5)) / tileSize;
#ifdef USE_ARRAY_TEXTURE
    return texture2DArray(s, vec3(uv, float(layer)));
#else
    return texture2D(s, uv);
#endif
#endif
}

// Hardware-filtered sample at normalised coordinates of layer 0.
vec4 _filtered(_TexSampler s, vec2 uv)
{
#if __VERSION__ >= 130
#ifdef USE_ARRAY_TEXTURE
    return texture(s, vec3(uv, 0.0));
#else
    return texture(s, uv);
#endif
#else
#ifdef USE_ARRAY_TEXTURE
    return texture2DArray(s, vec3(uv, 0.0));
#else
    return texture2D(s, uv);
#endif
#endif
}

// Width of one piece of the unit-0 image (the whole width unless split).
int _tileWidth0()
{
#if __VERSION__ >= 130
    return textureSize(texUnit0, 0).x;
#else
    return tileSize0.x;
#endif
}

vec2 _tileSize0()
{
#if __VERSION__ >= 130
    return vec2(textureSize(texUnit0, 0).xy);
#else
    return vec2(tileSize0.xy);
#endif
}

vec2 _tileSize1()
{
#if __VERSION__ >= 130
    return vec2(textureSize(texUnit1, 0).xy);
#else
    return vec2(tileSize1.xy);
#endif
}

bool _isSplit0()
{
    return _tileWidth0() < texSize0.x;
}

// Undecoded texel of the unit-0 image, choosing the piece of a split image by x.
vec4 _fetchRaw0(ivec2 p)
{
    p = _clampPixel(p, texSize0);
    if (_isSplit0()) {
        int tileWidth = texSize0.x / 2;
        if (p.x >= tileWidth) {
            // An odd split width does not store the last column: use the one before.
            ivec2 q = ivec2(p.x - tileWidth, p.y);
            if (q.x > tileWidth - 1)
                q.x = tileWidth - 1;
#ifdef USE_ARRAY_TEXTURE
            return _texel(texUnit0, q, 1, _tileSize0());
#else
            return _texel(texUnit1, q, 0, _tileSize0());
#endif
        }
    }
    return _texel(texUnit0, p, 0, _tileSize0());
}

vec4 fetchImage0(ivec2 p)
{
    vec4 t = _fetchRaw0(p);
    if (texIsRGBE0 != 0)
        return vec4(decodeRGBE(t), 1.0);
    return t;
}

vec4 fetchImage1(ivec2 p)
{
    vec4 t = _texel(texUnit1, _clampPixel(p, texSize1), 0, _tileSize1());
    if (texIsRGBE1 != 0)
        return vec4(decodeRGBE(t), 1.0);
    return t;
}

// Bilinear sample of the unit-0 image at continuous pixel position p (centres at
// integers), clamped at the edges, decoded before interpolation and seamless
// across the halves of a split image.
vec4 sampleImage0(vec2 p)
{
    vec2 size = vec2(texSize0);
    p = clamp(p, vec2(0.0), size - vec2(1.0));
    if (texIsRGBE0 == 0 && texIsHDR0 == 0 && !_isSplit0()) {
        // An 8-bit photograph in one piece: the GL_LINEAR filter with clamping
        // to the edge computes the same thing in one fetch.
        return _filtered(texUnit0, (p + vec2(0.5)) / size);
    }
    vec2 base = floor(p);
    vec2 f = p - base;
    ivec2 i0 = ivec2(base);
    ivec2 i1 = ivec2(min(base + vec2(1.0), size - vec2(1.0)));
    vec4 a = fetchImage0(i0);
    vec4 b = fetchImage0(ivec2(i1.x, i0.y));
    vec4 c = fetchImage0(ivec2(i0.x, i1.y));
    vec4 d = fetchImage0(i1);
    return mix(mix(a, b, f.x), mix(c, d, f.x), f.y);
}

vec4 sampleImage1(vec2 p)
{
    vec2 size = vec2(texSize1);
    p = clamp(p, vec2(0.0), size - vec2(1.0));
    if (texIsRGBE1 == 0 && texIsHDR1 == 0)
        return _filtered(texUnit1, (p + vec2(0.5)) / size);
    vec2 base = floor(p);
    vec2 f = p - base;
    ivec2 i0 = ivec2(base);
    ivec2 i1 = ivec2(min(base + vec2(1.0), size - vec2(1.0)));
    vec4 a = fetchImage1(i0);
    vec4 b = fetchImage1(ivec2(i1.x, i0.y));
    vec4 c = fetchImage1(ivec2(i0.x, i1.y));
    vec4 d = fetchImage1(i1);
    return mix(mix(a, b, f.x), mix(c, d, f.x), f.y);
}
