#pragma once
// Tone mapping of an RGBE panorama into 8-bit RGB, in place.
//
// The scene key (log-average and maximum luminance) is measured on the CPU
// from the RGBE bytes; the per-pixel curve runs in the "tonemap" shader. The
// image goes to the GPU in a few large chunks, and each chunk's 3-byte result
// is written back over the 4-byte input it came from: since chunk k's output
// ends before chunk k+1's input begins, no input is overwritten before it has
// been uploaded.
#include <cstdint>

#include "image/ImageView.h"

// Tone-maps the packed RGBE view (4 channels, stride 4 * width) and returns
// a packed 3-channel view over the same memory. Needs the GL context. Prints
// the scene key and per-chunk exposure statistics on standard error and
// reports its total time under "[T] tonemap (total)".
MutableImageView tonemap(const MutableImageView& rgbe);

// ---- CPU side of the pass (no GL), exposed for tests and the benchmark ----

// log2 approximation on the float's bits: exponent plus a quadratic in the
// mantissa fraction f, f * 0.3465736 * (1 - f). Error below 0.09 stops.
float fastLog2(float y);

// Log-average and maximum of the luminance 0.3 R + 0.59 G + 0.11 B of the
// RGBE pixels (E = 0 skipped), in RGBE value units. Up to 2,000,000 pixels
// every pixel is visited, above that every 11th pixel slot in memory order.
struct SceneKey {
    float avgLum = 0;
    float rawMax = 0;  // 2^(largest sampled log2 luminance)
};
SceneKey measureSceneKey(const ImageView& rgbe);

// White point handed to the shader: the larger of 5 * avgLum and 0.9 * rawMax
// (the second on equality).
float whiteLuminance(const SceneKey& key);

// How the panorama is cut for the GPU: `count` consecutive runs of
// width * height pixels, each uploaded as a width x height texture.
struct ToneChunks {
    int count = 1;
    int width = 0;
    int height = 0;
};
ToneChunks toneChunks(int width, int height);

// CPU twin of the "tonemap" shader for one linear RGB value: Reinhard's
// photographic operator with key 0.18 on avgLum and white point maxLum,
// applied to the luminance and carried to the colour by the ratio, then the
// sRGB transfer curve and rounding to bytes.
void toneMapPixel(const float rgb[3], float avgLum, float maxLum, uint8_t out[3]);
