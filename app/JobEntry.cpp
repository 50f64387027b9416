#include "app/JobEntry.h"

#include <cstdio>

#include "app/CommandLine.h"
#include "app/Options.h"
#include "app/RenderJob.h"
#include "libglutil/ContextSession.h"

namespace {

class RenderProgram : public CommandLineProgram {
public:
    const char* name() const override { return "tessara-render"; }
    ParseAction parse(int argc, char** argv) override { return parseOptions(argc, argv, options_); }
    void printUsageError(const std::string& error, const std::string& programName) const override
    {
        std::fputs(usageText(error, programName).c_str(), stdout);
        std::fflush(stdout);
    }
    std::string helpText(const std::string& programName) const override { return ::helpText(programName); }
    int run(int& argc, char** argv) override
    {
        // Lives until the job returns; destroyed before the options.
        const std::unique_ptr<ContextSession> session = startRenderContext(argc, argv);
        return runRenderJob(options_);
    }

private:
    JobOptions options_;
};

}  // namespace

int jobEntry(int argc, char** argv)
{
    RenderProgram program;
    return runCommandLine(program, argc, argv);
}
