#pragma once
// Which lines of a manifest one process renders: the lines whose index (0-based,
// counting rendered lines only) modulo `count` is `index`.
#include <functional>
#include <string>

struct Shard {
    int index = 0;
    int count = 1;
    std::string source;  // where index and count came from, for the start-up line
    bool takes(size_t lineIndex) const { return int(lineIndex % size_t(count)) == index; }
};

// "K/N" with 0 <= K < N. Throws std::invalid_argument with the reason.
Shard parseShard(const std::string& text);

// The shard of a job-array task, from the environment (`lookup` is getenv or a
// stand-in): Slurm's SLURM_ARRAY_TASK_ID with SLURM_ARRAY_TASK_COUNT or
// SLURM_ARRAY_TASK_MIN/MAX (the task's index counted from MIN), else a
// Kubernetes Indexed Job's JOB_COMPLETION_INDEX with `shards` (0: not given)
// as the count. Throws std::invalid_argument when neither is there or the
// values do not describe a contiguous array.
Shard shardFromEnvironment(const std::function<const char*(const char*)>& lookup, int shards);
