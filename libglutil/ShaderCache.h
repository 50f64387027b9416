#pragma once
// The process-wide cache of built shader programs (sharedShader in
// libglutil/Shader.h), kept free of GL headers so that the Qt context code
// can empty it.
#include <cstddef>

// Deletes the cached programs; must run while their context is still current.
void releaseSharedShaders();

// Programs currently held by the cache.
size_t sharedShaderCount();
