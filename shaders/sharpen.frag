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

const float AMOUNT = 0.5;

void main()
{
    ivec2 p = ivec2(_gl_TexCoord);
    ivec2 lim = texSize0 - ivec2(1);
    vec3 c = fetchImage0(p).rgb;
    vec3 l = fetchImage0(ivec2(max(p.x - 1, 0), p.y)).rgb;
    vec3 r = fetchImage0(ivec2(min(p.x + 1, lim.x), p.y)).rgb;
    vec3 u = fetchImage0(ivec2(p.x, max(p.y - 1, 0))).rgb;
    vec3 d = fetchImage0(ivec2(p.x, min(p.y + 1, lim.y))).rgb;
    vec3 lo = min(c, min(min(l, r), min(u, d)));
    vec3 hi = max(c, max(max(l, r), max(u, d)));
    vec3 s = clamp(c + AMOUNT * (c - 0.25 * (l + r + u + d)), lo, hi);
#if defined(LDR)
    fragColor = vec4(s, 1.0);
#else
    fragColor = encodeRGBE(s);
#endif
}
