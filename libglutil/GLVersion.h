#pragma once
// GL facts of the current context, usable from GL code (no Qt headers here).
#include <string>

// 10 * major + minor of the current context (e.g. 45 for 4.5), from the first
// and third characters of GL_VERSION; cached on first success.
// Throws opengl_error "Initializing OpenGL failed: no valid context".
int glVersionNumber();

// The -V report (vendor, renderer, versions, texture limit, memory); never throws.
std::string glInfoReport();
