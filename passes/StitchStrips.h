#pragma once
// Steps the stitching paths share: strips read back into the panorama, the
// turn to the heading, and the path for projects of any other rig.
#include <cstddef>
#include <string>

#include "image/ImageView.h"
#include "libglutil/Framebuffer.h"
#include "libglutil/Shader.h"
#include "libglutil/Texture.h"
#include "passes/Stitch.h"
#include "project/Project.h"

// Packs the float strip through `pack` (the "rgb2rgbe" program of the job's
// kind, which reads unit 0) and reads it into the panorama from column x0 on.
// LDR jobs give the RGBA8 band target the bytes pass through (band by band);
// HDR jobs none (one RGBE strip is made for the readback).
void readBackStripInto(const MutableImageView& panorama, int x0, const Texture& strip, const Shader& pack,
                       const RenderTarget* byteBand);

// Turns every row left by `shift` bytes (less than a row).
void turnRowsLeft(const MutableImageView& panorama, size_t shift);

// The general path of stitchEquirect (same arguments and results): every
// source drawn, by its own angles, lens and crop, into every strip it
// reaches, blended by weights that fall to zero toward its border, or with
// tuning.multiBand band by band along seams between the sources.
void stitchRig(const MutableImageView& panorama, const std::string& projectPath, Project& project, bool hdr,
               bool useOrientation, const StitchTuning& tuning);
