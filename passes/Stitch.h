#pragma once
// Equirectangular stitching of a capture project on the GPU.
#include <cstddef>
#include <cstdint>
#include <string>

#include "image/ImageView.h"
#include "project/Project.h"

// Renders the project's source images into `panorama` (zero-filled by the
// caller, panoramaChannels(hdr) channels: 8-bit RGB, or with `hdr` Radiance
// RGBE; rows a whole number of pixels apart). The panorama is drawn in
// vertical strips, one per capture slot; its width must be a multiple of the
// slot count. Source files are found relative to the directory of
// `projectPath`. The entries' yaw values are made relative to entry 1 in place.
// With `useOrientation`, a trailing orientation entry turns the panorama to its
// heading and levels it. HDR results are normalised to a mean exponent of -2.
// Needs a current GL context; failures are exceptions.
struct StitchTuning {
    // Each source is drawn only over the part of a strip it can reach; else
    // over the whole strip (the same pixels, slower).
    bool boundDraws = true;
    // A source with enough pixels per degree to spare is decoded smaller
    // (see loadImage).
    bool reduceSources = true;
    // With reduceSources, 1 to 8 decodes every source at that many eighths
    // of its size (as far as its decoder can) instead (for measurements).
    int decodeEighths = 0;
    // In an LDR job, 8-bit sources are sharpened on the CPU while the last
    // one is drawn; else by the GPU pass (the same bytes on llvmpipe).
    bool cpuSharpening = true;
    // Projects of the general layout: multi-band blending of the sources,
    // else their plain weighted mean.
    bool multiBand = true;
};
void stitchEquirect(const MutableImageView& panorama, const std::string& projectPath, Project& project, bool hdr,
                    bool useOrientation, const StitchTuning& tuning = {});

// The capture layout, decided by the number of project entries (the
// orientation entry counts): up to 7 entries are one ring of fisheye images
// around entry 0 (5 slots of 72 degrees), more are two rings of 6 slots of 60
// degrees.
struct StitchLayout {
    int slotCount;
    float slotAngle;  // degrees
    bool fisheye;
};
StitchLayout stitchLayout(size_t entryCount);

// Adds delta (mod 256) to every non-zero exponent byte of an RGBE image so
// that the truncated mean exponent becomes -2; returns false and changes
// nothing when every pixel is black. Prints "mean e: <mean>" on standard error.
bool normalizeExposure(const MutableImageView& rgbe);

// Bytes by which every row is turned left so that the given heading (degrees)
// lies at the centre column: always in [0, rowBytes).
size_t headingShiftBytes(const StitchLayout& layout, float heading, int outWidth, int bytesPerPixel);
