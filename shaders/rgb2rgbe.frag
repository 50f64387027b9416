// Pass "rgb2rgbe": turns the float RGB strip on unit 0 into the bytes that are
// read back into the panorama, one output pixel per input pixel.
//
// HDR (default): Radiance RGBE bytes, identical to the CPU encoder's for the
// same floats (exponent of the largest component as frexp gives it, mantissas
// truncated, not rounded); see encodeRGBE in stdlib.frag.
// LDR: the values quantised to 8 bits here, round to nearest, so that every
// driver delivers the same bytes whatever its own float-to-byte conversion.

void main()
{
    vec3 c = fetchImage0(ivec2(_gl_TexCoord)).rgb;
#if defined(LDR)
    fragColor = vec4(floor(clamp(c, 0.0, 1.0) * 255.0 + 0.5) / 255.0, 1.0);
#else
    fragColor = encodeRGBE(c);
#endif
}
