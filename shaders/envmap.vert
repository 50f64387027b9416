// Pass "envmap", vertex stage: the full-screen pass of one cube face.
//
// Besides the texture coordinate in viewport pixels it hands the fragment
// stage the viewing direction of the face, interpolated linearly between the
// corners (exact, since the direction through a face is affine in the pixel
// position). Face-local frame: x to the face's right, y up, z forward; pixel
// (i, j) with j counted down from the top row (memory row 0) lies at
//   (2(i + 0.5)/s - 1, 1 - 2(j + 0.5)/s, 1).
// yaw_pitch_mat turns it into the frame of the face table, whose yaw counts
// from the back of the panorama; envmap.frag turns that into panorama
// longitude and latitude. passes/CubeGeometry.cpp is the CPU twin.
uniform vec2 viewportSize;
uniform vec2 outSize;
uniform mat3 yaw_pitch_mat;

#if __VERSION__ >= 330
layout (location = 0) in vec4 vertex;
out vec2 _gl_TexCoord;
#endif
#if __VERSION__ >= 130
out vec3 faceDir;
#else
varying vec3 faceDir;
#endif

void main()
{
#if __VERSION__ >= 330
    gl_Position = vec4(vertex.xy, 0.0, 1.0);
    vec2 tc = vertex.zw * viewportSize;
    _gl_TexCoord = tc;
#else
    // Legacy quad: vertex and texture coordinate are both in viewport pixels.
    gl_Position = ftransform();
    vec2 tc = gl_MultiTexCoord0.xy;
    gl_TexCoord[0] = gl_MultiTexCoord0;
#endif
    vec3 local = vec3(2.0 * tc.x / outSize.x - 1.0, 1.0 - 2.0 * tc.y / outSize.y, 1.0);
    faceDir = yaw_pitch_mat * local;
}
