#pragma once
// Files that ship with the program (shaders, helper tools, a bundled X
// server) lie in the directory of the running executable.
#include <string>

// That directory joined with `fileName`: Qt's application directory once the
// application object exists, before that (and in tools without one) the
// directory of /proc/self/exe.
std::string besideExecutable(const std::string& fileName);
