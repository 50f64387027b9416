#pragma once
// The command line: the options record of one run and the parsing loop that
// fills it. Options are recognised by the value of optionHash alone.
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "image/OptionHash.h"

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

// Hash values of the option texts. Dispatch compares these values only, so an
// argument whose hash collides with one of them is taken as that option.
namespace optionHashes {
constexpr uint32_t outputPrefix = 0xc19c3b47;
constexpr uint32_t erWidth = 0x88cbd9;
constexpr uint32_t cfWidth = 0x7dedcb;
constexpr uint32_t erExr = 0x194a71d0;
constexpr uint32_t erHdr = 0x66835f61;
constexpr uint32_t erJpg = 0x47802182;
constexpr uint32_t cfExr = 0x193f93c2;
constexpr uint32_t cfJpg = 0x4786be90;
constexpr uint32_t noAutoLevel = 0x32f09c1d;
constexpr uint32_t logo = 0x655cb82e;
constexpr uint32_t exrCompression = 0xb3e1f509;
constexpr uint32_t version = 0x59701e;
constexpr uint32_t versionAndGL = 0x59747e;
}  // namespace optionHashes

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
