// Per pixel of the unit-0 image value v (red channel): srgbToLinear(v),
// linearToSrgb(v) and the round trip linearToSrgb(srgbToLinear(v)).
void main()
{
    vec3 v = fetchImage0(ivec2(floor(_gl_TexCoord))).rrr;
    fragColor = vec4(srgbToLinear(v).r, linearToSrgb(v).r, linearToSrgb(srgbToLinear(v)).r, 1.0);
}
