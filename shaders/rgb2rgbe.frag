// Pass "rgb2rgbe": turns the float RGB strip on unit 0 into the bytes that are
// read back into the panorama, one output pixel per input pixel (the target
// has the strip's size, so no clamping or split-image handling is needed).
//
// HDR (default): Radiance RGBE bytes, identical to the CPU encoder's for the
// same floats (exponent of the largest component as frexp gives it, mantissas
// truncated, not rounded); see encodeRGBE in stdlib.frag.
// LDR: the values quantised to 8 bits here, round to nearest, so that every
// driver delivers the same bytes whatever its own float-to-byte conversion.

void main()
{
#if __VERSION__ >= 130
#if defined(USE_ARRAY_TEXTURE)
    vec3 c = texelFetch(texUnit0, ivec3(ivec2(_gl_TexCoord), 0), 0).rgb;
#else
    vec3 c = texelFetch(texUnit0, ivec2(_gl_TexCoord), 0).rgb;
#endif
#else
    vec3 c = fetchImage0(ivec2(_gl_TexCoord)).rgb;
#endif
#if defined(LDR)
    fragColor = vec4(floor(clamp(c, 0.0, 1.0) * 255.0 + 0.5) / 255.0, 1.0);
#else
    fragColor = encodeRGBE(c);
#endif
}
