// Pass "sharpen": a mild sharpening of a source image (unit 0) into an RGBA8
// target of the same size, before it is resampled into the panorama.
//
// The sharpened value is c + AMOUNT * (c - mean of the four direct
// neighbours), a small lift of the highest frequencies that makes up for part
// of the softening of bilinear resampling. The result is clamped, per channel,
// to the range of the five pixels it was made from: a hard edge gets steeper
// but never overshoots, so there are no ringing halos and no dark or bright
// fringes along the border of a fisheye's image circle. Border pixels repeat
// their edge neighbour.
//
// LDR: the source is 8-bit sRGB and the result stays 8-bit sRGB (alpha 1).
// HDR: the source is RGBE, decoded to linear light by fetchImage0; the result
// is encoded back to RGBE bytes.
// DIRECT_FETCH: the source is in one piece, and 8-bit (LDR) or RGBE (HDR).

const float AMOUNT = 0.5;

// The source pixel at p, which lies inside the image. DIRECT_FETCH: the
// source is in one piece, 8-bit colour in an LDR job and RGBE in an HDR one,
// so its texels are read directly, without the general fetch's clamping,
// piece selection and format test (the same values at half the cost).
vec3 source(ivec2 p)
{
#if defined(DIRECT_FETCH) && __VERSION__ >= 130
#if defined(USE_ARRAY_TEXTURE)
    vec4 t = texelFetch(texUnit0, ivec3(p, 0), 0);
#else
    vec4 t = texelFetch(texUnit0, p, 0);
#endif
#if defined(LDR)
    return t.rgb;
#else
    return decodeRGBE(t);
#endif
#else
    return fetchImage0(p).rgb;
#endif
}

void main()
{
    ivec2 p = ivec2(_gl_TexCoord);
    ivec2 lim = texSize0 - ivec2(1);
    vec3 c = source(p);
    vec3 l = source(ivec2(max(p.x - 1, 0), p.y));
    vec3 r = source(ivec2(min(p.x + 1, lim.x), p.y));
    vec3 u = source(ivec2(p.x, max(p.y - 1, 0)));
    vec3 d = source(ivec2(p.x, min(p.y + 1, lim.y)));
    vec3 lo = min(c, min(min(l, r), min(u, d)));
    vec3 hi = max(c, max(max(l, r), max(u, d)));
    vec3 s = clamp(c + AMOUNT * (c - 0.25 * (l + r + u + d)), lo, hi);
#if defined(LDR)
    fragColor = vec4(s, 1.0);
#else
    fragColor = encodeRGBE(s);
#endif
}
