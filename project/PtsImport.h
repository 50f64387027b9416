#pragma once
// Import of a pts stitching script: the source images (in the order of their
// "o f" lines), the orientation entry and the control points. Every other
// line is ignored.
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
