#pragma once
// tessara-render between its command line and the render job.

// Parses the command line, answers a usage error, --help and the version
// options, sizes the OpenEXR worker pool, opens the hidden GL context and
// runs the render job (app/CommandLine.h). Returns the exit status: 0, or -1
// for a usage error, a failure (reported on standard error) or an image that
// was only tone-mapped.
int jobEntry(int argc, char** argv);
