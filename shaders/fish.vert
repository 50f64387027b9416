// Vertex stage of the "fish" pass. It places the full-screen rectangle exactly
// as the default vertex shader does (_gl_TexCoord in viewport pixels) and, for
// the stitching variants, works out once per draw what depends only on the
// uniforms (the lens's valid radius, the image's reach on the sphere, its
// feather layout), so that the fragment stage does not repeat it for every
// pixel. These values reach fragments as flat varyings. See fish.frag for the
// model.

#if __VERSION__ >= 330
uniform vec2 viewportSize;
layout (location = 0) in vec4 vertex;
out vec2 _gl_TexCoord;
#endif

#if !defined(RENDER_LOGO)

#if __VERSION__ >= 130
#define FLAT_OUT flat out
#else
#define FLAT_OUT varying
#endif

uniform mat3 cameraMat;
uniform float fov;
uniform float lens_a;
uniform float lens_b;
uniform float lens_c;
uniform float lens_d;
uniform float lens_e;
uniform vec2 inSize;
uniform int openSouth;
#if !defined(RENDER_MASK)
uniform float exposureOffset;
#endif

FLAT_OUT vec4 lensInfo;     // focal length (px), R (px), k, radius of the valid circle (px)
FLAT_OUT vec4 reachInfo;    // rho*, latitude of the optical axis (deg), angular reach (deg), cos(reach)
FLAT_OUT vec4 shareInfo;    // ring image (1/0), side of the strip (-1 left, 1 right), unused
FLAT_OUT vec4 featherInfo;  // feather widths (px) of the left, right, top, bottom frame edges
FLAT_OUT vec4 southInfo;    // nadir in the image (x, y down), circle feather wide, narrow
#if !defined(RENDER_MASK)
FLAT_OUT float exposureGain;
#endif

const float DEG_TO_RAD = 0.017453292;
const float FEATHER = 0.1;         // fraction of the shorter image side
const float SOUTH_FEATHER = 0.02;  // the nadir-facing border with openSouth
const float FAR_RHO = 100.0;
const float NO_LIMIT = 1e30;

float polySlope(float r, float k)
{
    return ((4.0 * lens_a * r + 3.0 * lens_b) * r + 2.0 * lens_c) * r + k;
}

float poly(float r, float k)
{
    return (((lens_a * r + lens_b) * r + lens_c) * r + k) * r;
}

// Smallest positive root rho* of dP/drho (P = a rho^4 + b rho^3 + c rho^2 +
// k rho), NO_LIMIT when there is none in reach. The slope starts at k > 0 and
// is monotonic between its own turning points, so the first sign change is
// bracketed and bisected.
float rhoLimit(float k)
{
    if (k <= 0.0)
        return 0.0;
    float lo = 0.0;
    float hi = -1.0;
    float t1 = FAR_RHO;
    float t2 = FAR_RHO;
    if (abs(lens_a) > 1e-12) {
        // turning points of the slope: 12 a r^2 + 6 b r + 2 c = 0
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
    if (t1 > 0.0 && t1 < FAR_RHO) {
        if (polySlope(t1, k) <= 0.0)
            hi = t1;
        else
            lo = t1;
    }
    if (hi < 0.0 && t2 > 0.0 && t2 < FAR_RHO) {
        if (polySlope(t2, k) <= 0.0)
            hi = t2;
        else
            lo = max(lo, t2);
    }
    if (hi < 0.0) {
        if (polySlope(FAR_RHO, k) > 0.0)
            return NO_LIMIT;
        hi = FAR_RHO;
    }
    for (int i = 0; i < 40; ++i) {
        float mid = 0.5 * (lo + hi);
        if (polySlope(mid, k) > 0.0)
            lo = mid;
        else
            hi = mid;
    }
    return lo;
}

void computeLensInfo()
{
    float w = inSize.x;
    float h = inSize.y;
#if defined(FISHEYE)
    float focal = w / (fov * DEG_TO_RAD);
#else
    float focal = 0.5 * w / tan(0.5 * fov * DEG_TO_RAD);
#endif
    float radius = 0.5 * min(w, h);
    float k = 1.0 - lens_a - lens_b - lens_c;
    float rhoMax = rhoLimit(k);
    float circle = rhoMax < NO_LIMIT ? radius * poly(rhoMax, k) : NO_LIMIT;
    lensInfo = vec4(focal, radius, k, circle);

    // How far off the optical axis any valid sample can lie: to the farthest
    // frame corner or to the valid circle, whichever is nearer.
    vec2 centre = 0.5 * (inSize - vec2(1.0)) + vec2(lens_d, lens_e);
    vec2 far = max(centre + vec2(0.5), inSize - vec2(0.5) - centre);
    float corner = length(far) + 1.0;
    float rhoReach = rhoMax;
    if (corner < circle) {
        float lo = 0.0;
        float hi = min(rhoMax, FAR_RHO);
        if (radius * poly(hi, k) > corner) {
            for (int i = 0; i < 40; ++i) {
                float mid = 0.5 * (lo + hi);
                if (radius * poly(mid, k) < corner)
                    lo = mid;
                else
                    hi = mid;
            }
        }
        rhoReach = hi;
    }
#if defined(FISHEYE)
    float reach = rhoReach * radius / focal;
#else
    float reach = atan(rhoReach * radius / focal);
#endif
    // Half a degree of slack keeps float rounding from cutting valid pixels.
    reach = min(reach + 0.5 * DEG_TO_RAD, 3.14159265);
    vec3 axis = vec3(cameraMat[0][2], cameraMat[1][2], cameraMat[2][2]);
    float axisLat = asin(clamp(axis.y, -1.0, 1.0)) / DEG_TO_RAD;
    reachInfo = vec4(rhoMax, axisLat, reach / DEG_TO_RAD, cos(reach));

    // Ring images (axis within 60 degrees of the horizon) hand over to their
    // ring neighbour across the strip; which side of the strip the image
    // belongs to follows from its axis (see fish.frag).
    float ring = abs(axis.y) < 0.8660254 ? 1.0 : 0.0;
    float axisLon = atan(axis.x, axis.z) / DEG_TO_RAD;
    shareInfo = vec4(ring, axisLon < 0.0 ? -1.0 : 1.0, 0.0, 0.0);

    float wide = FEATHER * min(w, h);
    float narrow = SOUTH_FEATHER * min(w, h);
    featherInfo = vec4(wide);
    // The nadir seen in the image: cameraMat * (0, -1, 0), with image y down.
    vec2 nadir = vec2(-cameraMat[1].x, cameraMat[1].y);
    if (openSouth == 1) {
        if (nadir.y > 0.0)
            featherInfo.w = narrow;
        else
            featherInfo.z = narrow;
    } else if (openSouth == 2) {
        if (nadir.x > 0.0)
            featherInfo.y = narrow;
        else
            featherInfo.x = narrow;
    }
    float nadirLength = length(nadir);
    southInfo = vec4(nadirLength > 1e-6 ? nadir / nadirLength : vec2(0.0), wide,
                     openSouth != 0 ? narrow : wide);
#if !defined(RENDER_MASK)
    exposureGain = exp2(exposureOffset);
#endif
}

#endif  // !RENDER_LOGO

void main()
{
#if __VERSION__ >= 330
    gl_Position = vec4(vertex.xy, 0.0, 1.0);
    _gl_TexCoord = vertex.zw * viewportSize;
#else
    gl_Position = ftransform();
    gl_TexCoord[0] = gl_MultiTexCoord0;
#endif
#if !defined(RENDER_LOGO)
    computeLensInfo();
#endif
}
