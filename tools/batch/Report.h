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
