#pragma once
// The command line: the options record of one run and the parsing loop that
// fills it. Options are recognised by the value of optionHash alone.
#include <cstdint>
#include <filesystem>
#include <string>

#include "app/CommandLine.h"
#include "image/TileEncoding.h"

struct JobOptions {
    std::filesystem::path inputPath;      // always the first argument
    std::filesystem::path outputPrefix;   // default: inputPath without its extension
    std::filesystem::path logoPath;       // empty: no logo
    std::string exrCompression = "dwa";   // mapped to an OpenEXR compression when writing
    int32_t erWidth = 0;                  // 0: chosen from the first source image
    int32_t cfWidth = 0;                  // 0: a quarter of the equirect width
    TileEncoding tiles;                   // format and quality of JPEG-set faces and tiles
    bool autoLevel = true;
    bool reprojectAnySize = false;        // .hdr/.exr inputs of any 2:1 size go to every output
    bool writeErExr = false;
    bool writeErHdr = false;
    bool writeErJpg = false;
    bool writeCfExr = false;
    bool writeCfJpg = false;
};

// Parses argv[0..argc) (argv[argc] must be the terminating null entry) into
// `options`. Stops at "-v", "--version", "-V", "-h" or "--help". Throws UsageError for fewer than one
// argument, an unknown option after the first or a tile format or quality
// out of its range; std::invalid_argument /
// std::out_of_range ("stoi") for a bad width; std::logic_error when an option
// that takes a value is the last argument.
ParseAction parseOptions(int argc, char** argv, JobOptions& options);

// The usage text with `error` and the program name, as printed on standard output.
std::string usageText(const std::string& error, const std::string& programName);

// The text of --help: the usage line, then one line for each option.
std::string helpText(const std::string& programName);
