// tessara-batch: renders every line of a manifest, each line the command line
// of one tessara-render run, in one process with one GL context. A failed line
// is reported and the next one starts from a clean context; finished lines are
// recorded in a state folder so that a rerun renders only what is left.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "app/CommandLine.h"
#include "app/Options.h"
#include "app/RenderJob.h"
#include "app/RenderPlan.h"
#include "libglutil/StageTimer.h"
#include "image/FormatText.h"
#include "image/OutputFile.h"
#include "libglutil/ContextSession.h"
#include "libglutil/GLVersion.h"
#include "libglutil/Stage.h"
#include "libglutil/StateReset.h"
#include "tools/batch/Manifest.h"
#include "tools/batch/Report.h"
#include "tools/batch/Shard.h"
#include "tools/batch/StateDir.h"
#include "tools/batch/Status.h"

namespace fs = std::filesystem;

namespace {

const char* const kUsage =
    "Usage: tessara-batch MANIFEST [--state DIR] [--report FILE] [--shard K/N | --shard auto [--shards N]] "
    "[--force] [--plan] [--status [--json]]\n"
    "  MANIFEST  one tessara-render command line per line (input first, then its options);\n"
    "            blank lines and lines starting with # are skipped; relative paths are\n"
    "            relative to the manifest's folder\n"
    "  --state   folder of the completion records (default: MANIFEST.state beside it)\n"
    "  --report  append one JSON object per line handled to FILE (tasks on several hosts\n"
    "            may share one)\n"
    "  --shard   render the lines whose index modulo N is K; auto: from a Slurm job array\n"
    "            or a Kubernetes Indexed Job (JOB_COMPLETION_INDEX with --shards N)\n"
    "  --force   render lines again even when they are recorded as done\n"
    "  --plan    print what each line would read and write, and whether it is done;\n"
    "            render and write nothing\n"
    "  --status  print how many lines of all shards are done, failed, running and not\n"
    "            started, the errors of the failed lines and the size of the outputs;\n"
    "            render and write nothing; with --json (or --report -) as one JSON document\n";

struct BatchOptions {
    std::string manifest;
    std::string stateDir;
    std::string report;
    std::string shard;  // empty: 0/1
    int shards = 0;
    bool force = false;
    bool plan = false;
    bool status = false;
    bool json = false;
};

// Reads the batch's own command line into `o`; throws UsageError.
ParseAction parseBatchOptions(int argc, char** argv, BatchOptions& o)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc)
                throw UsageError(arg + " needs a value");
            return argv[++i];
        };
        if (arg == "--state")
            o.stateDir = value();
        else if (arg == "--report")
            o.report = value();
        else if (arg == "--shard")
            o.shard = value();
        else if (arg == "--shards") {
            const std::string n = value();
            char* end = nullptr;
            const long v = std::strtol(n.c_str(), &end, 10);
            if (n.empty() || *end || v < 1 || v > 1000000)
                throw UsageError("--shards takes a positive count, not '" + n + "'");
            o.shards = int(v);
        } else if (arg == "--force")
            o.force = true;
        else if (arg == "--plan")
            o.plan = true;
        else if (arg == "--status")
            o.status = true;
        else if (arg == "--json")
            o.json = true;
        else if (arg == "-h" || arg == "--help")
            return ParseAction::PrintHelp;
        else if (arg == "--version")
            return ParseAction::PrintVersion;
        else if (o.manifest.empty() && !arg.empty() && arg[0] != '-')
            o.manifest = arg;
        else
            throw UsageError("unknown option '" + arg + "'");
    }
    if (o.manifest.empty())
        throw UsageError("no manifest given");
    if (o.status && o.report == "-") {
        o.json = true;
        o.report.clear();
    }
    if (o.json && !o.status)
        throw UsageError("--json goes with --status");
    if (o.status && !o.report.empty())
        throw UsageError("--status writes nothing: with it, --report takes only '-' (the JSON document on standard output)");
    return ParseAction::RunJob;
}

// The line's words as a tessara-render command line, parsed into `options`.
ParseAction parseLine(const ManifestLine& line, JobOptions& options)
{
    std::vector<std::string> args = {"tessara-render"};
    args.insert(args.end(), line.args.begin(), line.args.end());
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(&a[0]);
    argv.push_back(nullptr);
    return parseOptions(int(args.size()), argv.data(), options);
}

// Prints the plan of every line on stdout, without a GL context and without
// writing anything; returns 1 when a line cannot be planned, else 0.
int printPlans(const std::vector<const ManifestLine*>& lines, const StateDir& state, bool force)
{
    int status = 0;
    for (const ManifestLine* line : lines) {
        std::string text;
        try {
            if (!line->splitError.empty())
                throw UsageError(line->splitError);
            JobOptions options;
            const ParseAction action = parseLine(*line, options);
            if (action == ParseAction::PrintHelp)
                text = "prints the help\n";
            else if (action != ParseAction::RunJob)
                text = "prints the version\n";
            else {
                std::ostringstream plan, discarded;  // console lines belong to the run that renders
                printPlan(planJob(options, discarded), plan);
                text = plan.str();
                std::vector<OutputEntry> outputs;
                if (!force && state.isDone(line->number, line->text, &outputs))
                    text += "done: a run skips it\n";
            }
        } catch (const UsageError& e) {
            text = std::string("Error: ") + e.what() + "\n";
            status = 1;
        } catch (const std::exception& e) {
            text = failureReport(e) + "\n";
            status = 1;
        }
        std::printf("line %d: %s\n", line->number, line->text.c_str());
        for (size_t from = 0; from < text.size();) {
            const size_t end = text.find('\n', from);
            std::printf("  %s\n", text.substr(from, end - from).c_str());
            from = end + 1;
        }
    }
    return status;
}

// Collects what one line wrote: its committed outputs, and its temporary files
// in the line's journal before anything is written to them.
class LineOutputs : public OutputFileObserver {
public:
    LineOutputs(const StateDir& state, int lineNumber) : state_(state), line_(lineNumber) {}
    void created(const std::string& tempPath) override { state_.journalTempFile(line_, tempPath); }
    void committed(const std::string& finalPath) override
    {
        for (const std::string& p : paths)
            if (p == finalPath)
                return;
        paths.push_back(finalPath);
    }
    std::vector<std::string> paths;

private:
    const StateDir& state_;
    int line_;
};

// Peak resident memory since the last reset, in MB (0 when unavailable).
void resetPeakMemory()
{
    std::ofstream("/proc/self/clear_refs") << "5";
}

double peakMemoryMB()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.compare(0, 6, "VmHWM:") == 0)
            return std::strtod(line.c_str() + 6, nullptr) / 1024.0;
    return 0.0;
}

class Batch {
public:
    Batch(int& argc, char** argv, const BatchOptions& options, StateDir state, std::unique_ptr<ReportFile> report)
        : argc_(argc), argv_(argv), options_(options), state_(std::move(state)), report_(std::move(report))
    {
    }

    // Renders the selected lines; returns the exit status.
    int run(const std::vector<const ManifestLine*>& lines)
    {
        total_ = lines.size();
        std::vector<const ManifestLine*> busy;  // locked by another process right now
        for (const ManifestLine* line : lines)
            if (!take(*line, false))
                busy.push_back(line);
        // Lines another process was rendering: wait for it, then take what it left.
        for (const ManifestLine* line : busy)
            take(*line, true);
        return failed_ ? 1 : 0;
    }

private:
    // Takes the line's lock, waiting for it or not, and renders the line
    // unless it is done; false when another process holds the lock. Whether
    // it is done is decided with the lock held, so of several processes
    // racing for a line exactly one renders it.
    bool take(const ManifestLine& line, bool wait)
    {
        LineClaim claim = state_.claim(line.number, line.text, wait);
        if (!claim.lock.held())
            return false;
        if (claim.done && !options_.force) {
            LineResult result = newResult(line);
            result.outputs = std::move(claim.outputs);
            result.status = "skipped";
            finish(result);
        } else {
            renderLocked(line);
        }
        return true;
    }

    LineResult newResult(const ManifestLine& line) const
    {
        LineResult result;
        result.line = line.number;
        result.input = lineInput(line);
        return result;
    }

    // Called with the line's lock held.
    void renderLocked(const ManifestLine& line)
    {
        LineResult result = newResult(line);
        const auto started = std::chrono::steady_clock::now();
        state_.clearLeftovers(line.number);
        state_.removeRecord(line.number, line.text);
        if (!line.splitError.empty()) {
            result.error = "Error: " + line.splitError;
            std::fprintf(stderr, "%s\n", result.error.c_str());
        } else {
            renderLine(line, result);
        }
        if (result.error.empty()) {
            for (const std::string& path : committed_) {
                std::error_code ec;
                const uintmax_t bytes = fs::file_size(path, ec);
                if (ec) {
                    result.error = "Error (batch): output '" + path + "' was planned but not written";
                    break;
                }
                result.outputs.push_back({path, bytes});
            }
        }
        try {
            if (result.error.empty()) {
                // The outputs' names on the disk before the record that vouches for them.
                syncCommittedFolders();
                state_.writeRecord(line.number, line.text, result.outputs);
                syncCommittedFolders();
                state_.removeFailure(line.number, line.text);
            }
        } catch (const std::exception& e) {
            result.error = failureReport(e);
        }
        if (!result.error.empty()) {
            try {
                state_.writeFailure(line.number, line.text, result.error);
            } catch (const std::exception& e) {
                std::fprintf(stderr, "%s\n", failureReport(e).c_str());
            }
        }
        state_.removeJournal(line.number);
        result.status = result.error.empty() ? "ok" : "failed";
        result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        finish(result);
    }

    // Runs the line as tessara-render would run it on the batch's context.
    void renderLine(const ManifestLine& line, LineResult& result)
    {
        committed_.clear();
        LineOutputs outputs(state_, line.number);
        JobOptions options;
        RenderPlan plan;
        try {
            const ParseAction action = parseLine(line, options);
            if (action == ParseAction::PrintVersion) {
                printVersion();
                return;
            }
            if (action == ParseAction::PrintHelp) {
                std::fputs(helpText("tessara-render").c_str(), stdout);
                std::fflush(stdout);
                return;
            }
            ensureContext();
            resetContextState();
            globalTimer().start = StageTimer::now();
            globalTimer().pausedAt = 0.0;
            resetPeakMemory();
            setStageListener([&result](const std::string& timer, const char* stage, double seconds) {
                result.stages.emplace_back(timer.empty() || timer == stage ? std::string(stage) : timer + " " + stage,
                                           seconds);
            });
            OutputFileObserver* previous = setOutputFileObserver(&outputs);
            struct Detach {
                OutputFileObserver* previous;
                ~Detach()
                {
                    setOutputFileObserver(previous);
                    setStageListener(nullptr);
                }
            } detach{previous};
            if (action == ParseAction::PrintVersionAndGL) {
                printVersion();
                std::printf("%s", glInfoReport().c_str());
                std::fflush(stdout);
            } else if (runRenderJob(options, &plan) != 0) {
                result.error = "Error (tonemapping only): unsupported image dimensions, the input was only "
                               "tone-mapped to a JPEG";
            }
        } catch (const UsageError& e) {
            std::fputs(usageText(e.what(), "tessara-render").c_str(), stdout);
            std::fflush(stdout);
            result.error = std::string("Error: ") + e.what();
        } catch (const std::exception& e) {
            result.error = failureReport(e);
            std::fprintf(stderr, "%s\n", result.error.c_str());
        } catch (...) {
            result.error = "Error (unknown): an exception of unknown type";
            std::fprintf(stderr, "%s\n", result.error.c_str());
        }
        result.peakMemoryMB = peakMemoryMB();
        // The record lists every file the plan names, and anything else the
        // line committed; a planned file that was not written fails the line.
        committed_ = plan.outputFiles();
        for (const std::string& path : outputs.paths)
            if (std::find(committed_.begin(), committed_.end(), path) == committed_.end())
                committed_.push_back(path);
    }

    // The GL context is started on the first line that renders: a rerun
    // that finds every line done never starts an X server.
    void ensureContext()
    {
        if (!session_)
            session_ = startRenderContext(argc_, argv_);
    }

    void finish(const LineResult& result)
    {
        ++done_;
        if (result.status == "failed")
            ++failed_;
        std::string progress = "[" + std::to_string(done_) + "/" + std::to_string(total_) + "] " + result.input + " ";
        if (result.status == "ok")
            progress += formatText("ok %.2f s", result.seconds);
        else if (result.status == "failed")
            progress += "failed: " + result.error;
        else
            progress += "skipped";
        std::fprintf(stderr, "%s\n", progress.c_str());
        std::fflush(stderr);
        if (report_ && !report_->append(reportLine(result)))
            std::fprintf(stderr, "tessara-batch: writing the report failed\n");
    }

    int& argc_;
    char** argv_;
    const BatchOptions& options_;
    StateDir state_;
    std::unique_ptr<ReportFile> report_;
    std::unique_ptr<ContextSession> session_;
    std::vector<std::string> committed_;
    size_t total_ = 0;
    size_t done_ = 0;
    size_t failed_ = 0;
};

std::string absolute(const std::string& path) { return path.empty() ? path : fs::absolute(path).string(); }

// The batch's whole run once its command line is read.
int runBatch(BatchOptions options, int& argc, char** argv)
{
    Shard shard;
    shard.source = "no sharding";
    if (options.status)
        shard.source = "all shards";
    else if (options.shard == "auto")
        shard = shardFromEnvironment([](const char* name) { return std::getenv(name); }, options.shards);
    else if (!options.shard.empty())
        shard = parseShard(options.shard);

    const std::vector<ManifestLine> manifest = readManifest(options.manifest);
    const fs::path manifestPath = fs::absolute(options.manifest);
    if (options.stateDir.empty())
        options.stateDir = manifestPath.string() + ".state";
    StateDir state(absolute(options.stateDir), !options.plan && !options.status);

    std::unique_ptr<ReportFile> report;
    if (!options.report.empty() && !options.plan)
        report = std::make_unique<ReportFile>(absolute(options.report), options.report);

    std::vector<const ManifestLine*> selected;
    for (size_t i = 0; i < manifest.size(); ++i)
        if (shard.takes(i))
            selected.push_back(&manifest[i]);
    if (!options.status)
        std::fprintf(stderr, "tessara-batch: shard %d/%d (%s): %zu of %zu lines\n", shard.index, shard.count,
                     shard.source.c_str(), selected.size(), manifest.size());

    // Paths in the lines are relative to the manifest's folder.
    if (::chdir(manifestPath.parent_path().c_str()) != 0)
        throw std::runtime_error("Cannot enter the manifest's folder '" + manifestPath.parent_path().string() + "'");

    // --status reads the manifest and the state folder of all shards, writes
    // nothing and needs no display.
    if (options.status) {
        const BatchStatus status = surveyBatch(manifest, state);
        std::fputs((options.json ? statusJson(status) : statusText(status)).c_str(), stdout);
        return 0;
    }
    if (options.plan)
        return printPlans(selected, state, options.force);
    return Batch(argc, argv, options, std::move(state), std::move(report)).run(selected);
}

class BatchProgram : public CommandLineProgram {
public:
    const char* name() const override { return "tessara-batch"; }
    ParseAction parse(int argc, char** argv) override { return parseBatchOptions(argc, argv, options_); }
    void printUsageError(const std::string& error, const std::string&) const override
    {
        std::fprintf(stderr, "tessara-batch: %s\n%s", error.c_str(), kUsage);
    }
    std::string helpText(const std::string&) const override
    {
        return std::string(kUsage) +
               "  --version   print the version\n"
               "  -h, --help  print this help\n";
    }
    int run(int& argc, char** argv) override
    {
        try {
            return runBatch(options_, argc, argv);
        } catch (const std::invalid_argument& e) {  // a shard that cannot be read
            std::fprintf(stderr, "tessara-batch: %s\n", e.what());
            return -1;
        }
    }

private:
    BatchOptions options_;
};

}  // namespace

int main(int argc, char** argv)
{
    BatchProgram program;
    return runCommandLine(program, argc, argv);
}
