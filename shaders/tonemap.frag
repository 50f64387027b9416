// Tone mapping of an RGBE chunk on unit 0 into display-referred 8-bit RGB.
//
// Reinhard's photographic operator on the luminance: the scene is scaled so
// that its log-average luminance avgLum maps to the key 0.18, compressed by
// L (1 + L / Lw^2) / (1 + L) with the white point Lw = the key-scaled maxLum,
// and the colour follows the luminance ratio. Then the sRGB transfer curve,
// and explicit rounding to bytes so that every driver writes the same values.
// passes/ToneCurve.cpp (toneMapPixel) is the CPU twin of this file.
uniform float avgLum;
uniform float maxLum;

const float key = 0.18;

void main()
{
    vec3 c = fetchImage0(ivec2(_gl_TexCoord)).rgb;
    float lum = dot(c, vec3(0.3, 0.59, 0.11));
    float scaled = key * lum / avgLum;
    float white = key * maxLum / avgLum;
    float display = scaled * (1.0 + scaled / (white * white)) / (1.0 + scaled);
    vec3 d = lum > 0.0 ? c * (display / lum) : vec3(0.0);
    vec3 srgb = linearToSrgb(clamp(d, 0.0, 1.0));
    fragColor = vec4(floor(srgb * 255.0 + 0.5) / 255.0, 1.0);
}
