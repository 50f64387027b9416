#pragma once
// Import of a pts stitching script: the source images (in the order of their
// "o f" lines), the orientation entry and the control points. Every other
// line is ignored. An image line's lens type number gives the entry's
// projection and its "C" field the crop. A script without "o f" image lines
// takes its images from its "i" lines instead (w, h, f, v, y, r, p, a to e,
// Eev, Va to Vd, C and n fields; "=k" links to the k-th "i" line). The
// project's layout is decided here (rigLayoutOf).
//
// Throws std::runtime_error "Error opening project '<path>'" when the file
// cannot be opened, "failed to parse project '<path>'" when it holds no image
// and no orientation line, and a runtime_error naming the line for a link to
// an image that does not exist yet or a matching line too long to parse.
// Number conversions fail with the standard library's invalid_argument /
// out_of_range ("stof", "stoi", "stoul").
#include <string>

#include "project/Project.h"

Project importPtsScript(const std::string& path);
