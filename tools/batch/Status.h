#pragma once
// Where a whole batch stands, over all shards, from its manifest and state
// folder alone: what `tessara-batch MANIFEST --status` prints.
#include <cstdint>
#include <string>
#include <vector>

#include "tools/batch/Manifest.h"
#include "tools/batch/StateDir.h"

struct FailedLine {
    int line = 0;
    std::string input;
    std::string error;
};

struct BatchStatus {
    size_t lines = 0, done = 0, failed = 0, running = 0, notStarted = 0;
    uint64_t outputBytes = 0;  // the recorded sizes of the done lines' outputs
    std::vector<FailedLine> failures;
};

// The line's input as reports name it: its first argument, or its text when
// it could not be split.
std::string lineInput(const ManifestLine& line);

BatchStatus surveyBatch(const std::vector<ManifestLine>& manifest, const StateDir& state);

// For people: the counts, the outputs' size and one line per failed line.
std::string statusText(const BatchStatus& status);

// For scripts: one JSON document with the same facts, on one line:
// {"lines":4,"done":1,"failed":1,"running":1,"not_started":1,"output_bytes":123,
//  "failures":[{"line":3,"input":"a.pts","error":"Error (...): ..."}]}
std::string statusJson(const BatchStatus& status);
