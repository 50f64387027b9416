// Bilinear sample of the unit-0 image at origin + (output pixel) * step, with
// output pixel centres at integers.
uniform vec2 origin;
uniform vec2 step;

void main()
{
    fragColor = sampleImage0(origin + (_gl_TexCoord - vec2(0.5)) * step);
}
