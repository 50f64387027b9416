// Pass "blend": the multi-band blend of a rig's sources (Burt and Adelson),
// level by level over pyramids whose level k + 1 is exactly half of level k
// (sizes are multiples of 2^levels). One variant per step:
//
// REDUCE    level k + 1 of a pyramid from level k (unit 0): the mean of each
//           2 x 2 block (one bilinear fetch at their shared corner). Image
//           pyramids hold premultiplied (colour * a, a), a the share of the
//           block that the image sees, so that its colour at any level is
//           (rgb / a) wherever it sees anything: holes fill from around them
//           and no black from outside the image leaks into its bands.
// BAND      one source's band k, weighted by its smoothed seam mask, added
//           (additive blending) into the band sums: out = (L * g, g) with
//           L = G_k - expand(G_k+1) (G_k the normalised colour at level k,
//           unit 0; level k + 1 on unit 1, bilinear; the expanded value where
//           level k sees nothing, so that L is 0 there) and g the mask's level
//           k (unit 2). At the coarsest level (COARSEST) L = G_k.
// COLLAPSE  result at level k: the normalised band sum at level k (unit 0)
//           plus the result of level k + 1 expanded (unit 1, bilinear; none
//           with COARSEST), read `offset` pixels into level k (the strip's
//           margin, at level 0). Alpha 1 where any source sees the pixel at
//           level 0, else the pixel stays black: (0, 0).

uniform vec2 offset;

vec3 normalised(vec4 premultiplied)
{
    return premultiplied.a > 0.0 ? premultiplied.rgb / premultiplied.a : vec3(0.0);
}

void main()
{
#if defined(REDUCE)
    vec2 fine = vec2(texSize0);
    fragColor = _filtered(texUnit0, (2.0 * _gl_TexCoord) / fine);
#elif defined(BAND)
    ivec2 p = ivec2(_gl_TexCoord);
    vec4 level = _texel(texUnit0, p, 0, vec2(texSize0));
#if defined(COARSEST)
    vec3 expanded = vec3(0.0);
#else
    vec4 coarse = _filtered(texUnit1, _gl_TexCoord / vec2(texSize0));
    vec3 expanded = normalised(coarse);
#endif
    vec3 colour = level.a > 0.0 ? level.rgb / level.a : expanded;
    float g = _texel(texUnit2, p, 0, vec2(texSize2)).r;
    fragColor = vec4((colour - expanded) * g, g);
#else  // COLLAPSE
    vec2 at = _gl_TexCoord + offset;
    vec4 sum = _texel(texUnit0, ivec2(at), 0, vec2(texSize0));
    vec3 colour = normalised(sum);
#if !defined(COARSEST)
    colour += _filtered(texUnit1, at / vec2(texSize0)).rgb;
#endif
    fragColor = sum.a > 0.0 ? vec4(colour, 1.0) : vec4(0.0);
#endif
}
