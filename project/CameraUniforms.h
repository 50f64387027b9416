#pragma once
// Hands one project entry to the stitching shader as uniforms. The program
// must be in use. Sets, in this order: cameraMat (cameraMatrix of the entry's
// yaw, pitch, roll with the given correction and strip offset, column-major,
// untransposed), fov, lens_a .. lens_e, then exposureOffset and vign (vb, vc,
// vd) only when the program has a uniform "vign" (the two are switched
// together: a shader built without vignetting gets no exposure offset
// either), then inSize and outSize (texture sizes as floats). va is not sent.
// Every uniform but the vign probe goes through the shader's named lookup,
// which reports a missing one.
#include <utility>

#include "libglutil/Shader.h"
#include "libglutil/Texture.h"
#include "project/Project.h"

void setCameraUniforms(const Shader& program, const ImageEntry& entry, const Texture& in, const Texture& out,
                       std::pair<float, float> correction, std::pair<float, float> stripOffset);
