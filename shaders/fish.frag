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
// Photometry (not in the mask variant): the sample is divided by the
// vignetting polynomial V = 1 + vb r^2 + vc r^4 + vd r^6, r measured from the
// geometric image centre at the sample position and normalised by half the
// diagonal, and multiplied by 2^exposureOffset. These gains act on linear
// light: 8-bit (LDR) sources are sRGB-encoded, so they are decoded, scaled and
// encoded again; HDR sources are linear and are then taken through colorMat.
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
// share between images that agree, never the coverage.
//
// The weight is the product of
//  - a longitude share for ring images (optical axis within 60 degrees of the
//    horizon): 1 near the image's own longitude, falling smoothly to 0 at a
//    reach of 0.9 slot (fisheye layout) or 0.7 slot (two-ring layout). Two ring
//    neighbours one slot apart then share a longitude exactly (the two shares
//    sum to 1). The reach keeps an image out of the strips that do not draw
//    it: each strip draws only its two ring neighbours per ring, and at every
//    strip border the images drawn on one side and not on the other already
//    have weight 0, so strips join without a seam. Zenith and nadir images
//    (entry 0) have no longitude share.
//  - an edge feather: smoothstep over 10 % of the shorter image side from each
//    frame edge and from the circle of rho*, times a 2-pixel rim, with a small
//    floor in between so that shares stay well conditioned where only image
//    borders overlap. With openSouth the border facing the nadir (1: a top or
//    bottom edge, 2: a left or right edge, as for frames rolled by about 90
//    degrees; which one of the pair follows from cameraMat) gets only a short
//    feather: the lowest ring has no image below it and keeps its full share
//    down to its valid limit.
// Directions outside the valid area, or with weight 0, are discarded.
// ---------------------------------------------------------------------------

uniform mat3 cameraMat;
uniform float fov;
uniform float lens_a;
uniform float lens_b;
uniform float lens_c;
uniform float lens_d;
uniform float lens_e;
uniform vec2 inSize;
uniform vec2 outSize;
uniform float outFovX;
uniform int openSouth;
#if !defined(RENDER_MASK)
uniform vec3 vign;
uniform float exposureOffset;
#if !defined(LDR)
uniform mat3 colorMat;
#endif
#endif

const float DEG_TO_RAD = 0.017453292;
const float MASK_K = 0.7;
const float FEATHER = 0.1;        // edge feather, fraction of the shorter side
const float SOUTH_FEATHER = 0.02; // feather of the nadir-facing border (openSouth)
const float RIM = 2.0;            // pixels over which the weight leaves 0
const float WEIGHT_FLOOR = 0.03;
const float MAX_HALF = 65504.0;

// dP/drho of P(rho) = a rho^4 + b rho^3 + c rho^2 + k rho.
float polySlope(float r, float k)
{
    return ((4.0 * lens_a * r + 3.0 * lens_b) * r + 2.0 * lens_c) * r + k;
}

float poly(float r, float k)
{
    return (((lens_a * r + lens_b) * r + lens_c) * r + k) * r;
}

// Smallest positive root of dP/drho, or a huge value when there is none in
// reach. dP/drho starts at k > 0; between its turning points it is monotonic,
// so the first sign change is bracketed and found by bisection.
float rhoLimit(float k)
{
    const float FAR = 100.0;
    float lo = 0.0;
    float hi = -1.0;
    // turning points of dP/drho: 12 a r^2 + 6 b r + 2 c = 0
    float t1 = FAR;
    float t2 = FAR;
    if (abs(lens_a) > 1e-12) {
        float disc = 36.0 * lens_b * lens_b - 96.0 * lens_a * lens_c;
        if (disc >= 0.0) {
            float s = sqrt(disc);
            float u = (-6.0 * lens_b - s) / (24.0 * lens_a);
            float v = (-6.0 * lens_b + s) / (24.0 * lens_a);
            t1 = min(u, v);
            t2 = max(u, v);
        }
    } else if (abs(lens_b) > 1e-12) {
        t1 = -lens_c / (3.0 * lens_b);
    }
    if (t1 > 0.0 && t1 < FAR) {
        if (polySlope(t1, k) <= 0.0) hi = t1; else lo = t1;
    }
    if (hi < 0.0 && t2 > 0.0 && t2 < FAR) {
        if (polySlope(t2, k) <= 0.0) hi = t2; else lo = max(lo, t2);
    }
    if (hi < 0.0) {
        if (polySlope(FAR, k) > 0.0) return 1e30;
        hi = FAR;
    }
    for (int i = 0; i < 24; ++i) {
        float mid = 0.5 * (lo + hi);
        if (polySlope(mid, k) > 0.0) lo = mid; else hi = mid;
    }
    return lo;
}

float ramp(float d, float width)
{
    return smoothstep(0.0, width, d);
}

#if !defined(RENDER_MASK) && defined(LDR)
// 8-bit sources: the sharpened texture holds plain sRGB bytes (its RGBA8
// format would otherwise mark it as RGBE), so it is read directly.
vec3 fetchRaw0(ivec2 p)
{
#if defined(USE_ARRAY_TEXTURE)
    return texelFetch(texUnit0, ivec3(p, 0), 0).rgb;
#else
    return texelFetch(texUnit0, p, 0).rgb;
#endif
}

vec3 sampleRaw0(vec2 p)
{
    vec2 base = floor(p);
    vec2 t = p - base;
    ivec2 lim = texSize0 - ivec2(1);
    ivec2 p0 = clamp(ivec2(base), ivec2(0), lim);
    ivec2 p1 = clamp(ivec2(base) + ivec2(1), ivec2(0), lim);
    vec3 top = mix(fetchRaw0(p0), fetchRaw0(ivec2(p1.x, p0.y)), t.x);
    vec3 bottom = mix(fetchRaw0(ivec2(p0.x, p1.y)), fetchRaw0(p1), t.x);
    return mix(top, bottom, t.y);
}
#endif

void main()
{
    float lonLocal = (_gl_TexCoord.x / outSize.x - 0.5) * outFovX;
    float lat = 90.0 - _gl_TexCoord.y / outSize.y * 180.0;

    // The optical axis in the strip frame is the third row of cameraMat.
    vec3 axis = vec3(cameraMat[0][2], cameraMat[1][2], cameraMat[2][2]);
    float share = 1.0;
    if (abs(axis.y) < 0.8660254) {
        float axisLon = atan(axis.x, axis.z) / DEG_TO_RAD;
        float offset = abs(mod(lonLocal - axisLon + 180.0, 360.0) - 180.0);
#if defined(FISHEYE)
        float reach = 0.9 * outFovX;
#else
        float reach = 0.7 * outFovX;
#endif
        share = 1.0 - smoothstep(outFovX - reach, reach, offset);
        if (share <= 0.0) discard;
    }

    float lonR = lonLocal * DEG_TO_RAD;
    float latR = lat * DEG_TO_RAD;
    float cosLat = cos(latR);
    vec3 dir = vec3(cosLat * sin(lonR), sin(latR), cosLat * cos(lonR));
    vec3 cam = cameraMat * dir;

    float w = inSize.x;
    float h = inSize.y;
    float q = length(cam.xy);
#if defined(FISHEYE)
    float focal = w / (fov * DEG_TO_RAD);
    float ri = focal * atan(q, cam.z);
#else
    if (cam.z <= 0.0) discard;
    float focal = 0.5 * w / tan(0.5 * fov * DEG_TO_RAD);
    float ri = focal * q / cam.z;
#endif
    float radius = 0.5 * min(w, h);
    float rho = ri / radius;
    float k = 1.0 - lens_a - lens_b - lens_c;
    float rhoMax = rhoLimit(k);
    if (rho >= rhoMax) discard;
    float rs = ri * (((lens_a * rho + lens_b) * rho + lens_c) * rho + k);
    float toImage = rs / max(q, 1e-30);
    vec2 centre = 0.5 * (inSize - vec2(1.0));
    vec2 p = vec2(centre.x + lens_d + toImage * cam.x, centre.y + lens_e - toImage * cam.y);

    float dLeft = p.x + 0.5;
    float dRight = w - 0.5 - p.x;
    float dTop = p.y + 0.5;
    float dBottom = h - 0.5 - p.y;
    float dFrame = min(min(dLeft, dRight), min(dTop, dBottom));
    if (dFrame < 0.0) discard;
    float dCircle = rhoMax > 1e29 ? 1e30 : radius * poly(rhoMax, k) - rs;

    // Feather widths; the nadir-facing border gets the short one with openSouth.
    float wide = FEATHER * min(w, h);
    float narrow = SOUTH_FEATHER * min(w, h);
    float fLeft = wide, fRight = wide, fTop = wide, fBottom = wide, fCircle = wide;
    if (openSouth != 0) {
        // The nadir seen in the image: cameraMat * (0, -1, 0), image y down.
        vec2 nadir = vec2(-cameraMat[1].x, cameraMat[1].y);
        if (openSouth == 1) {
            if (nadir.y > 0.0) fBottom = narrow; else fTop = narrow;
        } else {
            if (nadir.x > 0.0) fRight = narrow; else fLeft = narrow;
        }
        vec2 fromAxis = p - centre - vec2(lens_d, lens_e);
        float southness = dot(fromAxis, nadir) / max(length(fromAxis) * length(nadir), 1e-20);
        fCircle = mix(wide, narrow, smoothstep(0.5, 0.8, southness));
    }
    float feather = ramp(dLeft, fLeft) * ramp(dRight, fRight) * ramp(dTop, fTop)
                  * ramp(dBottom, fBottom) * ramp(dCircle, fCircle);
    float rim = ramp(min(dFrame, dCircle), RIM);
    float weight = share * rim * (WEIGHT_FLOOR + (1.0 - WEIGHT_FLOOR) * feather);
    if (weight <= 0.0) discard;

#if defined(RENDER_MASK)
    fragColor = vec4(1.0, 1.0, 1.0, 1.0 - exp(-MASK_K * weight));
#else
    float alpha = 1.0;
#if defined(USE_MASK)
    vec2 maskPos = _gl_TexCoord / outSize * vec2(texSize1) - vec2(0.5);
    float m = min(sampleImage1(maskPos).r, 0.998);
    float before = -log(1.0 - m) / MASK_K;
    alpha = weight / (before + weight);
#endif

    vec2 fromCentre = p - centre;
    float r2 = dot(fromCentre, fromCentre) / (0.25 * dot(inSize, inSize));
    float vignette = 1.0 + r2 * (vign.x + r2 * (vign.y + r2 * vign.z));
    float gain = exp2(exposureOffset) / max(vignette, 1e-3);
#if defined(LDR)
    vec3 colour = sampleRaw0(p);
    if (gain != 1.0) colour = linearToSrgb(srgbToLinear(colour) * gain);
    colour = clamp(colour, 0.0, 1.0);
#else
    vec3 colour = sampleImage0(p).rgb * gain;
    colour = clamp(colorMat * colour, 0.0, MAX_HALF);
#endif
    fragColor = vec4(colour, alpha);
#endif
}

#endif
