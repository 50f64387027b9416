// Uses every per-unit uniform of unit 0 and 1 so that none is optimised away.
void main()
{
    fragColor = vec4(float(texSize0.x + texSize0.y + texIsRGBE0 + texIsHDR0 + texIsMipMap0),
                     float(texSize1.x + texIsRGBE1 + texIsHDR1 + texIsMipMap1), 0.0, 1.0)
                + fetchImage0(ivec2(0)) + fetchImage1(ivec2(0));
}
