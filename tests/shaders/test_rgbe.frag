// Decodes the unit-0 RGBE image, scales it by `gain` and encodes it again.
uniform float gain;

void main()
{
    ivec2 p = ivec2(floor(_gl_TexCoord));
    fragColor = encodeRGBE(fetchImage0(p).rgb * gain);
}
