#pragma once
// The front of both programs (tessara-render and tessara-batch): parse the
// command line, answer a usage error, --help and the version options, then
// run the program's job. Nothing here ends the process: every path returns
// the exit status to main().
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

class ContextSession;

constexpr const char* kVersionText = "21.01.5008";

// What a command line asks of a program once it is parsed.
enum class ParseAction {
    RunJob,             // the program's own work
    PrintVersion,       // "-v" / "--version": version line only
    PrintVersionAndGL,  // "-V": version line and the GL report
    PrintHelp,          // "-h" / "--help": the help text on standard output
};

// A command line the program cannot run: the message goes into the usage text.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One program's side of the front.
class CommandLineProgram {
public:
    virtual ~CommandLineProgram() = default;
    // The name the texts use when argv[0] is missing.
    virtual const char* name() const = 0;
    // Reads argv[0..argc) into the program's options; throws UsageError.
    virtual ParseAction parse(int argc, char** argv) = 0;
    // Prints the usage text for a command line it cannot run.
    virtual void printUsageError(const std::string& error, const std::string& programName) const = 0;
    // The text printed for --help, ending in a newline.
    virtual std::string helpText(const std::string& programName) const = 0;
    // Runs the job parse() asked for; returns the exit status.
    virtual int run(int& argc, char** argv) = 0;
};

// parse -> usage error (status -1) / help / version (status 0) / run. An
// exception from any of them is reported with failureReport on standard
// error and gives status -1.
int runCommandLine(CommandLineProgram& program, int& argc, char** argv);

// "version: " + kVersionText on standard output, flushed.
void printVersion();

// The context a render runs on: the OpenEXR worker pool sized, the hidden GL
// context open (libglutil/ContextSession.h) and the stage "GL_CONTEXT"
// recorded. The session lives as long as the returned object.
std::unique_ptr<ContextSession> startRenderContext(int& argc, char** argv);

// OpenEXR worker threads for a machine with `hardwareThreads` threads
// (0 when unknown): at most 16, at least 2.
unsigned exrThreadCount(unsigned hardwareThreads);

// The top-level failure line without its newline:
// "Error (" + implementation type name of e's dynamic type + "): " + e.what().
std::string failureReport(const std::exception& e);
