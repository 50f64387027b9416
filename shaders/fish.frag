// Pass "fish": projects one source image into an equirectangular strip.
// The same file also carries the logo pass, selected by RENDER_LOGO.

#if defined(RENDER_LOGO)

// Logo pass (filled in with the logo drawing).
void main()
{
    fragColor = vec4(0.0);
}

#else

// Stitching pass (filled in with the lens model and the blend weights).
void main()
{
    fragColor = vec4(0.0);
}

#endif
