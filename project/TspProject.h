#pragma once
// Loader of the capture system's JSON project document (.tsp): one entry per
// capture slot, with the source file names derived from the document's own
// name, plus the orientation entry when the document has "orientation".
//
// The loader adds no messages of its own: an unreadable or malformed file, a
// missing key or a value that is not a number fail with the property-tree
// library's exceptions (json_parser_error, ptree_bad_path, ptree_bad_data).
#include <string>

#include "project/Project.h"

Project loadTspProject(const std::string& path);
