#pragma once
// The program between its command line and the render job.
#include <exception>
#include <string>

// Parses the command line, answers "-v" / "-V", sizes the OpenEXR worker pool,
// opens the hidden GL context and runs the render job. Returns the exit
// status. A usage error prints the usage text on standard output and exits
// the process with -1. Every other failure is an exception for the caller.
int jobEntry(int argc, char** argv);

// OpenEXR worker threads for a machine with `hardwareThreads` threads
// (0 when unknown): at most 16, at least 2.
unsigned exrThreadCount(unsigned hardwareThreads);

// The top-level failure line without its newline:
// "Error (" + implementation type name of e's dynamic type + "): " + e.what().
std::string failureReport(const std::exception& e);
