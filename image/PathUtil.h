#pragma once
// Tests on path texts: the file-type extensions that pick the input kind and
// the image decoder, and the output prefix that names a folder.
#include <string>

// The path's extension as the filesystem library takes it (none for ".name"
// or a path ending in a separator), without its dot, lower-cased.
std::string lowerExtension(const std::string& path);

// The text after the last dot of the whole path, lower-cased: the image
// loader's rule ("pano.HDR" -> "hdr", "dir/.jpg" -> "jpg", "a.b/c" -> "b/c").
std::string lowerTextAfterLastDot(const std::string& path);

// True when lowerExtension(path) is non-empty and occurs anywhere in the
// blank-separated `list` (a plain substring search: "dr" matches "hdr exr").
bool hasExtensionIn(const std::string& path, const std::string& list);

// True when the path text ends in "/" or "\" (an output prefix naming a directory).
bool endsWithSeparator(const std::string& path);
