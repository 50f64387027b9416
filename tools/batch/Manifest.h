#pragma once
// The manifest of a batch: one renderer command line per line.
#include <stdexcept>
#include <string>
#include <vector>

// A line that cannot be split into arguments (an open quote, a trailing backslash).
class ManifestLineError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Splits one line into arguments the way a POSIX shell splits words, without
// any expansion: blanks and tabs separate arguments; 'single quotes' keep
// everything literally; "double quotes" keep everything except that a
// backslash before $ ` " \ is dropped; outside quotes a backslash keeps the
// next character literally. '' and "" give an empty argument.
std::vector<std::string> splitArguments(const std::string& line);

struct ManifestLine {
    int number = 0;                  // 1-based line number in the file
    std::string text;                // the line as written (no line end)
    std::vector<std::string> args;   // input file first, then its options
    std::string splitError;          // non-empty when the line could not be split
};

// Every line that is not blank and does not start with '#' (blanks before it
// allowed), in file order. "\r\n" line ends are accepted. Throws
// std::runtime_error "Error opening file '%s'" when the file cannot be read.
std::vector<ManifestLine> readManifest(const std::string& path);
