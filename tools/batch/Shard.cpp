#include "tools/batch/Shard.h"

#include <charconv>
#include <stdexcept>

namespace {

// A whole decimal number of at most nine digits, or -1.
int parseCount(const char* text)
{
    if (!text || !*text)
        return -1;
    const std::string s(text);
    int value = 0;
    const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
    if (ec != std::errc() || end != s.data() + s.size() || value < 0 || s.size() > 9)
        return -1;
    return value;
}

Shard checked(Shard shard)
{
    if (shard.count < 1 || shard.index < 0 || shard.index >= shard.count)
        throw std::invalid_argument("shard " + std::to_string(shard.index) + "/" + std::to_string(shard.count) +
                                    " is not one of 0/N to (N-1)/N (" + shard.source + ")");
    return shard;
}

}  // namespace

Shard parseShard(const std::string& text)
{
    const size_t slash = text.find('/');
    Shard shard;
    shard.source = "--shard " + text;
    if (slash == std::string::npos)
        throw std::invalid_argument("--shard takes K/N or auto, not '" + text + "'");
    shard.index = parseCount(text.substr(0, slash).c_str());
    shard.count = parseCount(text.substr(slash + 1).c_str());
    if (shard.index < 0 || shard.count < 0)
        throw std::invalid_argument("--shard takes K/N or auto, not '" + text + "'");
    return checked(shard);
}

Shard shardFromEnvironment(const std::function<const char*(const char*)>& lookup, int shards)
{
    auto value = [&](const char* name) { return parseCount(lookup(name)); };
    auto text = [&](const char* name) {
        const char* v = lookup(name);
        return std::string(name) + "=" + (v ? v : "");
    };
    Shard shard;
    if (lookup("SLURM_ARRAY_TASK_ID")) {
        const int id = value("SLURM_ARRAY_TASK_ID");
        const int count = value("SLURM_ARRAY_TASK_COUNT");
        const int min = lookup("SLURM_ARRAY_TASK_MIN") ? value("SLURM_ARRAY_TASK_MIN") : 0;
        const int max = value("SLURM_ARRAY_TASK_MAX");
        shard.source = "Slurm job array, " + text("SLURM_ARRAY_TASK_ID") + " " +
                       (count >= 0 ? text("SLURM_ARRAY_TASK_COUNT") : text("SLURM_ARRAY_TASK_MAX")) + " " +
                       text("SLURM_ARRAY_TASK_MIN");
        if (id < 0 || min < 0 || (count < 0 && max < 0))
            throw std::invalid_argument("Slurm array variables are incomplete (" + shard.source + ")");
        // An array with gaps ("0,4,7" or "0-8:2") cannot be mapped onto shards.
        if (count >= 0 && max >= 0 && max - min + 1 != count)
            throw std::invalid_argument("the Slurm array is not contiguous (" + shard.source + ")");
        shard.index = id - min;
        shard.count = count >= 0 ? count : max - min + 1;
        return checked(shard);
    }
    if (lookup("JOB_COMPLETION_INDEX")) {
        shard.source = "Kubernetes Indexed Job, " + text("JOB_COMPLETION_INDEX") + " --shards " + std::to_string(shards);
        shard.index = value("JOB_COMPLETION_INDEX");
        if (shards < 1)
            throw std::invalid_argument("JOB_COMPLETION_INDEX needs the number of completions as --shards N");
        shard.count = shards;
        return checked(shard);
    }
    throw std::invalid_argument(
        "--shard auto: neither SLURM_ARRAY_TASK_ID (Slurm job array) nor JOB_COMPLETION_INDEX "
        "(Kubernetes Indexed Job) is set");
}
