// Pass "rgb2rgbe": turns the float RGB strip on unit 0 into the bytes that are
// read back into the panorama, one output pixel per input pixel, starting at
// strip row firstRow (LDR strips are packed in bands; HDR strips whole).
//
// HDR (default): Radiance RGBE bytes, identical to the CPU encoder's for the
// same floats (exponent of the largest component as frexp gives it, mantissas
// truncated, not rounded); see encodeRGBE in stdlib.frag.
// LDR: the values quantised to 8 bits here, round to nearest, so that every
// driver delivers the same bytes whatever its own float-to-byte conversion.
// WEIGHTED: the strip holds weighted sums (colour * w, w) in linear light; the
// colour is their quotient (black where no weight arrived), sRGB-encoded for
// LDR.

#if defined(LDR)
uniform int firstRow;
#else
const int firstRow = 0;
#endif

void main()
{
    ivec2 p = ivec2(_gl_TexCoord) + ivec2(0, firstRow);
#if __VERSION__ >= 130
#if defined(USE_ARRAY_TEXTURE)
    vec3 c = texelFetch(texUnit0, ivec3(p, 0), 0).rgb;
#else
    vec3 c = texelFetch(texUnit0, p, 0).rgb;
#endif
#else
    vec3 c = fetchImage0(p).rgb;
#endif
#if defined(WEIGHTED)
#if __VERSION__ >= 130
#if defined(USE_ARRAY_TEXTURE)
    vec4 sum = texelFetch(texUnit0, ivec3(p, 0), 0);
#else
    vec4 sum = texelFetch(texUnit0, p, 0);
#endif
#else
    vec4 sum = fetchImage0(p);
#endif
    c = sum.a > 0.0 ? sum.rgb / sum.a : vec3(0.0);
#if defined(LDR)
    c = linearToSrgb(c);
#endif
#endif
#if defined(LDR)
    fragColor = vec4(floor(clamp(c, 0.0, 1.0) * 255.0 + 0.5) / 255.0, 1.0);
#else
    fragColor = encodeRGBE(c);
#endif
}
