#pragma once
// The command line: the options record of one run and the parsing loop that
// fills it. Options are recognised by the value of optionHash alone.
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>

constexpr const char* kVersionText = "21.01.5008";

struct JobOptions {
    std::filesystem::path inputPath;      // always the first argument
    std::filesystem::path outputPrefix;   // default: inputPath without its extension
    std::filesystem::path logoPath;       // empty: no logo
    std::string exrCompression = "dwa";   // mapped to an OpenEXR compression when writing
    int32_t erWidth = 0;                  // 0: chosen from the first source image
    int32_t cfWidth = 0;                  // 0: a quarter of the equirect width
    bool autoLevel = true;
    bool writeErExr = false;
    bool writeErHdr = false;
    bool writeErJpg = false;
    bool writeCfExr = false;
    bool writeCfJpg = false;
};

// What the command line asks for once it is parsed.
enum class ParseAction {
    RunJob,              // JobOptions is complete, render
    PrintVersion,        // "-v": version line only
    PrintVersionAndGL,   // "-V": version line and the GL report
};

// A command line the program cannot run: the message goes into the usage text.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Parses argv[0..argc) (argv[argc] must be the terminating null entry) into
// `options`. Stops at "-v" or "-V". Throws UsageError for fewer than one
// argument or an unknown option after the first; std::invalid_argument /
// std::out_of_range ("stoi") for a bad width; std::logic_error when an option
// that takes a value is the last argument.
ParseAction parseOptions(int argc, char** argv, JobOptions& options);

// The usage text with `error` and the program name, as printed on standard output.
std::string usageText(const std::string& error, const std::string& programName);
