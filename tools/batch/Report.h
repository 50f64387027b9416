#pragma once
// The JSON Lines report of a batch: one object per manifest line handled.
#include <string>
#include <utility>
#include <vector>

#include "tools/batch/StateDir.h"

struct LineResult {
    int line = 0;              // 1-based line number in the manifest
    std::string input;         // the line's first argument (or its text when it could not be split)
    std::string status;        // "ok", "failed" or "skipped"
    std::string error;         // the failure line ("Error (...): ..."), empty unless failed
    std::vector<OutputEntry> outputs;
    double seconds = 0.0;      // wall time of the line
    std::vector<std::pair<std::string, double>> stages;  // stage lines in order: name, seconds
    double peakMemoryMB = 0.0; // resident-set peak while the line ran (0: unknown)
};

// `text` as a JSON string literal (quotes included). Bytes from 0x80 up are
// copied unchanged, so UTF-8 text stays UTF-8.
std::string jsonString(const std::string& text);

// One report line, without its newline:
// {"line":3,"input":"a.tsp","status":"ok","error":"","outputs":[{"path":"a.jpg","bytes":123}],
//  "seconds":2.310,"stages":[{"stage":"render","seconds":0.500}],"peak_rss_mb":812.4}
std::string reportLine(const LineResult& result);

// A JSON Lines report that tasks on several hosts append to at once. Each
// line goes out in one write() with the file's flock held: O_APPEND alone
// does not keep writers on different NFS clients apart (each client appends
// at the end it last saw), while taking the lock makes the client fetch the
// file's current size and releasing it sends the data to the server. A line
// cut short by a writer that was killed mid-write is ended before the next
// one, so it never merges with it.
class ReportFile {
public:
    // Opens `path` for appending, creating it. Throws std::runtime_error
    // "Failed to open file '%s'" (with `name` as given on the command line).
    ReportFile(const std::string& path, const std::string& name);
    ~ReportFile();
    ReportFile(const ReportFile&) = delete;
    ReportFile& operator=(const ReportFile&) = delete;

    // Appends `line` and a newline; false when it could not be written.
    bool append(const std::string& line) const;

private:
    int fd_ = -1;
};
