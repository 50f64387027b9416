#pragma once
// The render job: from the parsed command line to the written outputs.
#include "app/Options.h"

struct RenderPlan;

// Runs one job on the current GL context: obtains the equirect panorama (by
// stitching the project, or by reading a .hdr/.exr this program rendered),
// draws the logo, turns an upside-down capture, makes the thumbnail and writes
// the selected outputs in their fixed order. Returns 0, or -1 when an image
// input of a size this program does not render was only tone-mapped to a
// JPEG. Every failure is an exception; no output file is left half written.
// The decisions are made into a RenderPlan first (planJob), checked once
// against the GPU and the logo file, then the plan's steps run in order;
// `options` is left as given. When `planned` is given it receives the plan
// once it is checked, before the panorama is made (the batch program records
// its output files).
int runRenderJob(const JobOptions& options, RenderPlan* planned = nullptr);
