#include "tools/batch/Status.h"

#include "image/FormatText.h"
#include "tools/batch/Report.h"

std::string lineInput(const ManifestLine& line) { return line.args.empty() ? line.text : line.args.front(); }

BatchStatus surveyBatch(const std::vector<ManifestLine>& manifest, const StateDir& state)
{
    std::vector<std::pair<int, std::string>> keys;
    for (const ManifestLine& line : manifest)
        keys.emplace_back(line.number, line.text);
    const std::vector<LineStatus> lines = state.survey(keys);
    BatchStatus status;
    status.lines = manifest.size();
    for (size_t i = 0; i < lines.size(); ++i) {
        switch (lines[i].state) {
        case LineState::Done:
            ++status.done;
            for (const OutputEntry& output : lines[i].outputs)
                status.outputBytes += output.bytes;
            break;
        case LineState::Running: ++status.running; break;
        case LineState::Failed:
            ++status.failed;
            status.failures.push_back({manifest[i].number, lineInput(manifest[i]), lines[i].error});
            break;
        case LineState::NotStarted: ++status.notStarted; break;
        }
    }
    return status;
}

std::string statusText(const BatchStatus& s)
{
    std::string out = formatText("lines: %zu\ndone: %zu\nfailed: %zu\nrunning: %zu\nnot started: %zu\n", s.lines,
                                 s.done, s.failed, s.running, s.notStarted);
    out += formatText("outputs of done lines: %llu bytes (%.1f MiB)\n", static_cast<unsigned long long>(s.outputBytes),
                      double(s.outputBytes) / (1024.0 * 1024.0));
    for (const FailedLine& f : s.failures)
        out += formatText("failed line %d: %s: ", f.line, f.input.c_str()) + f.error + "\n";
    return out;
}

std::string statusJson(const BatchStatus& s)
{
    std::string out = formatText(
        "{\"lines\":%zu,\"done\":%zu,\"failed\":%zu,\"running\":%zu,\"not_started\":%zu,\"output_bytes\":%llu,"
        "\"failures\":[",
        s.lines, s.done, s.failed, s.running, s.notStarted, static_cast<unsigned long long>(s.outputBytes));
    for (size_t i = 0; i < s.failures.size(); ++i)
        out += formatText(i ? ",{\"line\":%d,\"input\":" : "{\"line\":%d,\"input\":", s.failures[i].line) +
               jsonString(s.failures[i].input) + ",\"error\":" + jsonString(s.failures[i].error) + "}";
    return out + "]}\n";
}
