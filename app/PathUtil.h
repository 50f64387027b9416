#pragma once
// Tests on path texts used to pick the input kind and the output layout.
#include <string>

// True when the path's extension, without its dot and lower-cased, is
// non-empty and occurs anywhere in the blank-separated `list` (a plain
// substring search: "dr" matches "hdr exr").
bool hasExtensionIn(const std::string& path, const std::string& list);

// True when the path text ends in "/" or "\" (an output prefix naming a directory).
bool endsWithSeparator(const std::string& path);
