// Writes each fragment's own pixel position: (x % 256, y % 256, x / 256, y / 256)
// as bytes, to check where _gl_TexCoord rows land after readback.
void main()
{
    vec2 p = floor(_gl_TexCoord);
    vec2 hi = floor(p / 256.0);
    vec2 lo = p - 256.0 * hi;
    fragColor = vec4(lo, hi) / 255.0;
}
