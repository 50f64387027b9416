// Pass "rig": one source image (unit 0) of a project of any rig, drawn into
// one strip of the panorama as its weighted contribution (colour * w, w), to
// be summed by additive blending over every source and divided out when the
// strip is packed ("rgb2rgbe" with WEIGHTED).
//
// Geometry as in "fish": a fragment at viewport position (x, y) of a strip
// looks along the strip-local direction lon = x * degPerPixel,
// lat = 90 - y * degPerPixel (cameraMat holds the strip's start longitude,
// the levelling and the image's yaw, pitch and roll), C = cameraMat * D in the
// camera frame, then
//     r_i = f theta (fisheye) or f tan theta (rectilinear, C.z > 0),
//     rho = r_i / R, r_s = r_i (a rho^3 + b rho^2 + c rho + k),
//     p = optical centre + r_s (C.x, -C.y) / |C.xy|
// in source pixels (centres at integers, row 0 at the top); directions at or
// past the fold radius rho* have no sample. The CPU works out f, R, k, rho*
// and the radius of the fold circle once per draw (project/LensModel).
//
// Usable area: the crop rectangle (the frame when there is none) within the
// frame, for a circular fisheye the ellipse inscribed in the crop, and the
// fold circle; a circle loses a rim of a few pixels. The weight is a smoothstep of the normalised distance to the
// nearest border of that area: 0 on the border, 1 only at its centre, so that
// every output pixel is a blend of all the images that see it, each fading out
// smoothly toward its border.
//
// Photometry: the sample is divided by the vignetting polynomial
// 1 + vb r^2 + vc r^4 + vd r^6 (r from the geometric centre over half the
// diagonal) and multiplied by 2^exposure, in linear light: 8-bit sources are
// decoded from sRGB first (the packing encodes again); HDR sources are taken
// through colorMat.
//
// Variants for the multi-band blend ("blend"): MAX_WEIGHT writes the weight
// alone (blended with GL_MAX over every source: the highest weight of each
// pixel), SEAM_MASK 1 where this source's weight is that highest weight
// (unit 1) and 0 elsewhere, LAYER the source's colour with alpha 1 wherever it
// has weight. Rows past the bottom of the panorama (strips padded to whole
// pyramid levels) have no direction and get nothing.

uniform mat3 cameraMat;
uniform float degPerPixel;
uniform vec4 lens;       // focal length (px), R (px), k, rho*
uniform vec4 distortion; // a, b, c, radius of the fold circle (px)
uniform vec2 opticalCentre;
uniform vec2 inSize;
uniform vec4 crop;       // centre (x, y) and half size (x, y), source pixels
uniform int circular;    // the crop's inscribed ellipse bounds the image
uniform int fisheye;
uniform float exposureGain;
uniform vec3 vign;
#if !defined(LDR)
uniform mat3 colorMat;
#endif

const float DEG_TO_RAD = 0.017453292;
// Pixels along a crop circle's border mix the picture with the dark outside
// (and the codec smears that a few pixels further): they are left out.
const float CIRCLE_RIM = 4.0;

void main()
{
    if (_gl_TexCoord.y * degPerPixel > 180.0)
        discard;
    float lon = _gl_TexCoord.x * degPerPixel * DEG_TO_RAD;
    float lat = (90.0 - _gl_TexCoord.y * degPerPixel) * DEG_TO_RAD;
    vec3 dir = vec3(cos(lat) * sin(lon), sin(lat), cos(lat) * cos(lon));
    vec3 cam = cameraMat * dir;
    float q = length(cam.xy);
    float ri;
    if (fisheye != 0) {
        ri = lens.x * atan(q, cam.z);
    } else {
        if (cam.z <= 0.0)
            discard;
        ri = lens.x * q / cam.z;
    }
    float rho = ri / lens.y;
    if (rho >= lens.w)
        discard;
    float rs = ri * (((distortion.x * rho + distortion.y) * rho + distortion.z) * rho + lens.z);
    vec2 p = opticalCentre + (rs / max(q, 1e-30)) * vec2(cam.x, -cam.y);

    vec2 offset = (p - crop.xy) / crop.zw;
    vec2 frameOffset = (p - 0.5 * (inSize - vec2(1.0))) / (0.5 * inSize);
    float inside = 1.0 - max(abs(frameOffset.x), abs(frameOffset.y));
    if (circular != 0)
        inside = min(inside, 1.0 - length(offset) - CIRCLE_RIM / min(crop.z, crop.w));
    else
        inside = min(inside, 1.0 - max(abs(offset.x), abs(offset.y)));
    inside = min(inside, 1.0 - rs / distortion.w);
    if (inside <= 0.0)
        discard;
    float weight = smoothstep(0.0, 1.0, min(inside, 1.0));
#if defined(MAX_WEIGHT)
    fragColor = vec4(weight);
#elif defined(SEAM_MASK)
    float highest = _texel(texUnit1, ivec2(_gl_TexCoord), 0, vec2(texSize1)).r;
    fragColor = vec4(weight >= highest ? 1.0 : 0.0);
#else

    vec2 fromCentre = p - 0.5 * (inSize - vec2(1.0));
    float r2 = dot(fromCentre, fromCentre) / (0.25 * dot(inSize, inSize));
    float vignette = max(1.0 + r2 * (vign.x + r2 * (vign.y + r2 * vign.z)), 1e-3);
    vec4 texel = sampleImage0(p);
#if defined(LDR)
    vec3 colour = srgbToLinear(texel.rgb);
#else
    vec3 colour = colorMat * texel.rgb;
#endif
    colour *= exposureGain / vignette;
#if defined(LAYER)
    fragColor = vec4(colour, 1.0);
#else
    fragColor = vec4(colour * weight, weight);
#endif
#endif
}
