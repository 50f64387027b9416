// Copies the unit-0 image texel by texel (decoded when RGBE), shifted by
// `offset`: output pixel (x, y) = image pixel (x, y) + offset.
uniform ivec2 offset;

void main()
{
    ivec2 p = ivec2(floor(_gl_TexCoord)) + offset;
    fragColor = fetchImage0(p);
}
