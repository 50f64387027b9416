// Declares and uses every camera uniform so that none is optimised away.
// NO_VIGN drops vign (exposureOffset stays declared: the setter must leave it
// alone when vign is absent); NO_LENS_E drops lens_e.
uniform mat3 cameraMat;
uniform float fov;
uniform float lens_a;
uniform float lens_b;
uniform float lens_c;
uniform float lens_d;
#ifndef NO_LENS_E
uniform float lens_e;
#endif
uniform float exposureOffset;
#ifndef NO_VIGN
uniform vec3 vign;
#endif
uniform vec2 inSize;
uniform vec2 outSize;

void main()
{
    vec3 v = cameraMat * vec3(_gl_TexCoord, 1.0);
    float s = fov + lens_a + lens_b + lens_c + lens_d + exposureOffset + inSize.x + inSize.y + outSize.x + outSize.y;
#ifndef NO_LENS_E
    s += lens_e;
#endif
#ifndef NO_VIGN
    v += vign;
#endif
    fragColor = vec4(v, s);
}
