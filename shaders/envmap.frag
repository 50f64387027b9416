// Pass "envmap", fragment stage: samples the equirectangular panorama on unit 0
// in the direction of this face pixel (see envmap.vert for the face frame).
//
// Panorama convention: pixel centres at integers, X = lon * W / 360 + (W - 1) / 2
// with lon growing to the right, Y = (H - 1) / 2 - lat * H / 180 with row 0 at
// the top. The face table's yaw counts from the back (the front face f has
// yaw 180), so the matrix's frame is the panorama frame turned by 180 degrees
// about the vertical axis: x and z change sign.
uniform vec2 inSize;

#if __VERSION__ >= 130
in vec3 faceDir;
#else
varying vec3 faceDir;
#endif

const float PI = 3.14159265358979;

void main()
{
    vec3 d = vec3(-faceDir.x, faceDir.y, -faceDir.z);
    float horizontal = length(d.xz);
    // atan(0, 0) is undefined; the poles have no longitude.
    float lon = horizontal > 0.0 ? atan(d.x, d.z) : 0.0;
    float lat = atan(d.y, horizontal);
    float x = lon * inSize.x / (2.0 * PI) + 0.5 * (inSize.x - 1.0);
    float y = 0.5 * (inSize.y - 1.0) - lat * inSize.y / PI;
    if (x < 0.0)
        x += inSize.x;
    vec4 c;
    if (x > inSize.x - 1.0) {
        // Between the last and the first column: sampleImage0 clamps at the
        // edges, so the seam is interpolated here.
        float t = x - (inSize.x - 1.0);
        c = mix(sampleImage0(vec2(inSize.x - 1.0, y)), sampleImage0(vec2(0.0, y)), t);
    } else {
        c = sampleImage0(vec2(x, y));
    }
    fragColor = vec4(c.rgb, 1.0);
}
