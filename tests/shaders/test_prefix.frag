// Renders what this file saw before its own text: the version number, the
// value of a define given by the test, and whether the defines were in place
// before stdlib.frag (stdlib.frag's helpers exist, and the define that it
// tests, USE_ARRAY_TEXTURE, is visible here exactly when the array mode is on).
void main()
{
    float arrayMode = 0.0;
#ifdef USE_ARRAY_TEXTURE
    arrayMode = 1.0;
#endif
    // encodeRGBE comes from stdlib.frag: a failing compile leaves the target black.
    vec4 one = encodeRGBE(vec3(1.0));
    fragColor = vec4(float(__VERSION__ / 10) / 255.0, float(TEST_VALUE) / 255.0, arrayMode, one.a);
}
