// Pass "fish": projects one source image into an equirectangular strip.
// The same file also carries the logo pass, selected by RENDER_LOGO.

#if defined(RENDER_LOGO)

// Logo pass: one tile of the nadir band of the panorama, outFovX degrees of
// longitude wide around its centre and reaching up from the nadir by as many
// degrees per row as per column (memory row 0 at the top of the band). Each
// pixel's direction is turned by cameraMat into the frame of a camera looking
// straight down (z to the nadir, y to the back of the panorama, x to its
// left), whatever the tile, and projected gnomonically onto the plane below:
// the cap of fov / 2 degrees around the nadir becomes the logo image's
// inscribed circle. Seen from above with the front of the panorama at the top
// (the d cube face), the logo is upright, undistorted and centred.
// passes/LogoGeometry.cpp (logoSamplePosition) is the CPU twin.
uniform float outFovX;
uniform float fov;
uniform vec2 inSize;
uniform vec2 outSize;
uniform mat3 cameraMat;

// Linear value of the logo's white in RGBE output: two stops above the
// exposure the stitching normalises panoramas to, so that an 8-bit logo's
// white still tone-maps to near white.
const float logoWhite = 4.0;

void main()
{
    float degPerPixel = outFovX / outSize.x;
    float lon = radians((_gl_TexCoord.x - 0.5 * outSize.x) * degPerPixel);
    float lat = radians(-90.0 + (outSize.y - _gl_TexCoord.y) * degPerPixel);
    vec3 v = vec3(cos(lat) * sin(lon), sin(lat), cos(lat) * cos(lon));
    vec3 p = cameraMat * v;
    vec2 q = vec2(-p.x, p.y) / (p.z * tan(radians(0.5 * fov)));
    float halfSide = 0.5 * min(inSize.x, inSize.y);
    vec4 c = sampleImage0(0.5 * (inSize - 1.0) + q * halfSide);
#if defined(RGBE_OUT)
    vec3 radiance = texIsRGBE0 != 0 ? c.rgb : logoWhite * srgbToLinear(c.rgb);
    fragColor = encodeRGBE(radiance);
#else
    vec3 display = texIsRGBE0 != 0 ? linearToSrgb(clamp(c.rgb, 0.0, 1.0)) : c.rgb;
    fragColor = vec4(display, 1.0);
#endif
}

#else

// Stitching pass (filled in with the lens model and the blend weights).
void main()
{
    fragColor = vec4(0.0);
}

#endif
