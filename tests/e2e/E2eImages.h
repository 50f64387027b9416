#pragma once
// Images for command-line tests: synthetic equirect panoramas written as
// Radiance files, and the facts about output files the tests check.
#include <set>
#include <string>

#include "image/ImageView.h"

// A smooth RGBE panorama (values between about 0.02 and 40, no flat areas)
// of width x height; `flat` gives one colour everywhere (small files).
Image syntheticEquirect(int width, int height, bool flat = false);

// Writes an RGBE image as a Radiance file.
void writeHdrFile(const std::string& path, const ImageView& rgbe);

struct Size {
    int width = 0;
    int height = 0;
    bool operator==(const Size& o) const { return width == o.width && height == o.height; }
};

// Size of a JPEG file (decoded, so a truncated file fails the test).
Size jpegSize(const std::string& path);

// Names of the plain files in `dir` (not recursive).
std::set<std::string> filesIn(const std::string& dir);

// Largest and mean absolute difference of the decoded RGB values of two RGBE
// images of the same size, relative to the first image's value per channel.
struct RelativeError {
    double max = 0;
    double mean = 0;
};
RelativeError compareRgbe(const ImageView& expected, const ImageView& actual);
