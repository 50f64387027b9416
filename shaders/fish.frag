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

// ---------------------------------------------------------------------------
// Stitching: one source image (unit 0) drawn into one strip of the panorama.
//
// Geometry. The strip is outFovX degrees of longitude wide and the full 180
// degrees high; output row 0 is the top (the zenith side). A fragment at
// viewport position (x, y) looks along the strip-local direction
//     lon = (x / outSize.x - 0.5) * outFovX,   lat = 90 - y / outSize.y * 180
//     D   = (cos lat sin lon, sin lat, cos lat cos lon)
// and C = cameraMat * D is that direction in the camera frame (x to the image's
// right, y to its top, z along the optical axis). cameraMat already contains
// the strip's own longitude, the capture's levelling and the image's yaw,
// pitch and roll. The camera model is then, step by step:
//     q = |C.xy|, theta = atan(q, C.z)
//     fisheye (FISHEYE):   f = w / fov,             r_i = f * theta
//     rectilinear:         f = (w/2) / tan(fov/2),  r_i = f * tan(theta), C.z > 0
//     R = min(w, h) / 2, rho = r_i / R, k = 1 - a - b - c
//     r_s = r_i * (a rho^3 + b rho^2 + c rho + k)          (rho < rho*, below)
//     x = (w-1)/2 + d + r_s C.x / q,  y = (h-1)/2 + e - r_s C.y / q
// in source pixels with pixel centres at integers, row 0 at the top. fov always
// spans the image width w. rho* is the first turning point of the distortion
// polynomial: beyond it the map folds back, and such directions are no part of
// the image (the source holds nothing valid there), so the valid area is the
// frame [-0.5, w-0.5] x [-0.5, h-0.5] cut by the circle of radius R * P(rho*)
// around the optical centre.
//
// Everything that depends only on the uniforms (focal length, rho*, how far
// off the axis the image reaches, feather layout) is worked out once per
// draw by fish.vert and arrives here as flat varyings.
//
// Photometry (not in the mask variant): the sample is divided by the
// vignetting polynomial V = 1 + vb r^2 + vc r^4 + vd r^6 (Va is taken as 1),
// r measured from the geometric image centre at the sample position and
// normalised by half the diagonal, and multiplied by 2^exposureOffset. These
// gains act on linear light: 8-bit (LDR) sources are sRGB-encoded, so they
// are decoded, scaled and encoded again; HDR sources are linear and are then
// taken through colorMat.
//
// Blending. Every image has a smooth weight w >= 0 that is zero outside its
// valid area; the strip receives the weighted mean sum(w_j c_j) / sum(w_j)
// whatever the draw order, through source-over blending with
//     alpha = w / (S + w),  S = sum of the weights drawn before.
// S comes from the coverage mask (unit 1, USE_MASK), a low-resolution RGB8
// target that the RENDER_MASK variant blends over with colour 1 and alpha
// 1 - exp(-K w), so that it holds m = 1 - exp(-K S) and S = -ln(1 - m) / K.
// K = 0.7 keeps m below 0.9 for the largest sums that occur (about 2 to 3)
// while resolving small sums to a few thousandths. The weights vary slowly, so
// a bilinear read of the coarse mask is enough; its 8-bit steps only move the
// share between images that agree, never the coverage. LDR strips blend the
// sRGB-encoded values they are read back as.
//
// The weight is the product of
//  - a hand-over across the strip for ring images (optical axis within 60
//    degrees of the horizon): a strip draws, per ring, the image on its left
//    and the one on its right, and each of these is drawn in the neighbouring
//    strip on its side too. The left image's weight falls smoothly from 1 at
//    the strip's left edge to 0 at its right edge, the right image's the other
//    way round, so the two sum to 1 and at every strip border only the images
//    drawn on both sides carry weight, with the same values: strips join
//    without a seam. Inside the strip both weights are positive, so a
//    direction that only one of them sees (near the poles) is still filled.
//    Zenith and nadir images (entry 0) are drawn into every strip and take
//    no such factor.
//  - an edge feather: a smoothstep over the distance to the nearest border of
//    the valid area (frame edges and the circle of rho*), 10 % of the shorter
//    image side wide, times a 2-pixel rim, with a small floor in between so
//    that shares stay well conditioned where only image borders overlap. With
//    openSouth the border facing the nadir (1: a top or bottom edge, 2: a left
//    or right edge, as for frames rolled by about 90 degrees; which one of the
//    pair follows from cameraMat), and the part of the circle facing it, get
//    only a short feather: the lowest ring has no image below it and keeps
//    its full share down to its valid limit.
//  - for 8-bit sources, a clip factor: samples whose brightest channel is at
//    the top of the range weigh 1/50, so that an image with burnt-out
//    highlights gives way to one that still sees the scene there (images of
//    an auto-exposed series differ by an EV or more).
// Directions outside the valid area, or with weight 0, are discarded.
// ---------------------------------------------------------------------------

#if __VERSION__ >= 130
#define FLAT_IN flat in
#else
#define FLAT_IN varying
#endif

uniform mat3 cameraMat;
uniform float lens_a;
uniform float lens_b;
uniform float lens_c;
uniform float lens_d;
uniform float lens_e;
uniform vec2 inSize;
uniform vec2 outSize;
uniform float outFovX;
#if !defined(RENDER_MASK)
uniform vec3 vign;
#if !defined(LDR)
uniform mat3 colorMat;
#endif
#endif

// Per-draw values worked out by fish.vert.
FLAT_IN vec4 lensInfo;     // focal length (px), R (px), k, radius of the valid circle (px)
FLAT_IN vec4 reachInfo;    // rho*, latitude of the optical axis (deg), angular reach (deg), cos(reach)
FLAT_IN vec4 shareInfo;    // ring image (1/0), side of the strip (-1 left, 1 right), unused
FLAT_IN vec4 featherInfo;  // feather widths (px) of the left, right, top, bottom frame edges
FLAT_IN vec4 southInfo;    // nadir in the image (x, y down), circle feather wide, narrow
#if !defined(RENDER_MASK)
FLAT_IN float exposureGain;
#endif

const float DEG_TO_RAD = 0.017453292;
const float MASK_K = 0.7;
const float RIM = 2.0;  // pixels over which the weight leaves 0
const float WEIGHT_FLOOR = 0.03;
const float MAX_HALF = 65504.0;
const float CLIP_FLOOR = 0.02;

// The unit-0 texel under the linear filter (the stitcher gives 8-bit
// sharpened sources the linear filter; RGBE sources keep nearest sampling),
// at pixel position p with pixel centres at integers, clamped to the edge.
vec4 sampleFiltered0(vec2 p)
{
    vec2 uv = (p + vec2(0.5)) / inSize;
#if __VERSION__ >= 130
    // One level: an explicit level spares the implicit derivatives.
#if defined(USE_ARRAY_TEXTURE)
    return textureLod(texUnit0, vec3(uv, 0.0), 0.0);
#else
    return textureLod(texUnit0, uv, 0.0);
#endif
#else
    return _filtered(texUnit0, uv);
#endif
}

#if defined(USE_MASK)
// The coverage mask (unit 1, RGB8, linear filter), bilinear at the position of
// this strip fragment.
float sampleMask()
{
    vec2 uv = _gl_TexCoord / outSize;
#if __VERSION__ >= 130
#if defined(USE_ARRAY_TEXTURE)
    return textureLod(texUnit1, vec3(uv, 0.0), 0.0).r;
#else
    return textureLod(texUnit1, uv, 0.0).r;
#endif
#else
    return _filtered(texUnit1, uv).r;
#endif
}
#endif

// Weight factor of a clipped 8-bit sample: an image whose highlights ran
// into 255 (an auto-exposed series differs by an EV or more between images)
// gives way to images that still see the true value there. Images that agree
// are scaled alike, so their shares do not change.
float clipFactor(vec3 srgb)
{
    return 1.0 - (1.0 - CLIP_FLOOR) * smoothstep(0.95, 0.99, max(max(srgb.r, srgb.g), srgb.b));
}

#if !defined(RENDER_MASK) && defined(LDR)
// encode(decode(c) * gain) on the sRGB curve, gainRoot = gain^(1/2.4). Where
// input and result both lie on the curve's power segment this is exactly
// (c + 0.055) gainRoot - 0.055, and where both lie on its linear toe exactly
// c * gain: one power per pixel instead of six. Across the knee (inputs
// within a few levels of byte 10) the power form stays within half an
// 8-bit level of the full evaluation.
vec3 scaleSrgb(vec3 c, float gain, float gainRoot)
{
    vec3 power = (c + vec3(0.055)) * gainRoot - vec3(0.055);
    vec3 toe = c * gain;
    return mix(power, toe, vec3(lessThanEqual(max(c, toe), vec3(0.04045))));
}
#endif

// Sine and cosine of an angle in [-pi, pi] (radians), folded into
// [0, pi/2] and evaluated by their Taylor series to the 11th and 12th power:
// the error stays below the float rounding there (6e-8), and the strips never
// need the general range reduction of the built-in functions.
vec2 sinCos(float x)
{
    float a = abs(x);
    float folded = min(a, 3.14159265 - a);
    float t = folded * folded;
    float s = folded * (1.0 + t * (-1.0 / 6.0 + t * (1.0 / 120.0 + t * (-1.0 / 5040.0 +
              t * (1.0 / 362880.0 + t * (-1.0 / 39916800.0))))));
    float c = 1.0 + t * (-0.5 + t * (1.0 / 24.0 + t * (-1.0 / 720.0 + t * (1.0 / 40320.0 +
              t * (-1.0 / 3628800.0 + t * (1.0 / 479001600.0))))));
    return vec2(x < 0.0 ? -s : s, a > 1.57079633 ? -c : c);
}

void main()
{
    float lat = 90.0 - _gl_TexCoord.y / outSize.y * 180.0;
    // The angle to the optical axis is at least the difference in latitude.
    if (abs(lat - reachInfo.y) > reachInfo.z)
        discard;
    float lonLocal = (_gl_TexCoord.x / outSize.x - 0.5) * outFovX;
    float share = 1.0;
    if (shareInfo.x > 0.5) {
        float across = _gl_TexCoord.x / outSize.x;
        share = smoothstep(0.0, 1.0, shareInfo.y > 0.0 ? across : 1.0 - across);
    }

    float lonR = lonLocal * DEG_TO_RAD;
    float latR = lat * DEG_TO_RAD;
    vec2 lonSC = sinCos(lonR);
    vec2 latSC = sinCos(latR);
    vec3 dir = vec3(latSC.y * lonSC.x, latSC.x, latSC.y * lonSC.y);
    vec3 cam = cameraMat * dir;
    if (cam.z < reachInfo.w)
        discard;

    float focal = lensInfo.x;
    float radius = lensInfo.y;
    float k = lensInfo.z;
    float q = length(cam.xy);
#if defined(FISHEYE)
    float ri = focal * atan(q, cam.z);
#else
    if (cam.z <= 0.0)
        discard;
    float ri = focal * q / cam.z;
#endif
    float rho = ri / radius;
    if (rho >= reachInfo.x)
        discard;
    float rs = ri * (((lens_a * rho + lens_b) * rho + lens_c) * rho + k);
    float toImage = rs / max(q, 1e-30);
    vec2 centre = 0.5 * (inSize - vec2(1.0));
    vec2 fromAxis = vec2(toImage * cam.x, -toImage * cam.y);
    vec2 p = centre + vec2(lens_d, lens_e) + fromAxis;

    vec4 border = vec4(p.x + 0.5, inSize.x - 0.5 - p.x, p.y + 0.5, inSize.y - 0.5 - p.y);
    float dFrame = min(min(border.x, border.y), min(border.z, border.w));
    if (dFrame < 0.0)
        discard;
    float dCircle = lensInfo.w - rs;

    // Feather: a smooth ramp over the distance to the nearest border, each
    // border measured in its own feather width. Near the nadir-facing part of
    // the circle the short feather applies too.
    float southness = dot(fromAxis, southInfo.xy) / max(rs, 1e-20);
    float circleFeather = mix(southInfo.z, southInfo.w, smoothstep(0.5, 0.8, southness));
    vec4 relative = border / featherInfo;
    float nearest = min(min(min(relative.x, relative.y), min(relative.z, relative.w)),
                        dCircle / circleFeather);
    float feather = smoothstep(0.0, 1.0, nearest);
    float rim = smoothstep(0.0, RIM, min(dFrame, dCircle));
    float weight = share * rim * (WEIGHT_FLOOR + (1.0 - WEIGHT_FLOOR) * feather);
    if (weight <= 0.0)
        discard;

#if defined(RENDER_MASK)
    // The mask program is not told the job's kind: 8-bit sources are the ones
    // whose sharpened texels carry alpha 1 (an RGBE texel's alpha is its
    // exponent byte, never 255 for real images).
    vec4 texel = sampleFiltered0(p);
    if (texel.a > 0.998)
        weight *= clipFactor(texel.rgb);
    fragColor = vec4(1.0, 1.0, 1.0, 1.0 - exp(-MASK_K * weight));
#else
    vec2 fromCentre = p - centre;
    float r2 = dot(fromCentre, fromCentre) / (0.25 * dot(inSize, inSize));
    float vignette = max(1.0 + r2 * (vign.x + r2 * (vign.y + r2 * vign.z)), 1e-3);
    float gain = exposureGain / vignette;
#if defined(LDR)
    vec3 source = sampleFiltered0(p).rgb;
    weight *= clipFactor(source);
    float gainRoot = exposureGain == 1.0 && vignette == 1.0 ? 1.0 : exp2(log2(gain) / 2.4);
    vec3 colour = clamp(scaleSrgb(source, gain, gainRoot), 0.0, 1.0);
#else
    vec3 colour = sampleImage0(p).rgb * gain;
    colour = clamp(colorMat * colour, 0.0, MAX_HALF);
#endif

    float alpha = 1.0;
#if defined(USE_MASK)
    float m = min(sampleMask(), 0.998);
    float before = -log(1.0 - m) / MASK_K;
    alpha = weight / (before + weight);
#endif
    fragColor = vec4(colour, alpha);
#endif
}

#endif
