#include "app/JobEntry.h"

#include <OpenEXR/ImfThreading.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <typeinfo>

#include "app/Options.h"
#include "app/RenderJob.h"
#include "libglutil/ContextSession.h"
#include "libglutil/GLVersion.h"
#include "libglutil/Stage.h"

unsigned exrThreadCount(unsigned hardwareThreads)
{
    return std::max(2u, std::min(hardwareThreads, 16u));
}

std::string failureReport(const std::exception& e)
{
    // GCC marks types with internal linkage with a leading '*'; it is not part
    // of the name.
    const char* type = typeid(e).name();
    if (*type == '*')
        ++type;
    return std::string("Error (") + type + "): " + e.what();
}

int jobEntry(int argc, char** argv)
{
    JobOptions options;
    ParseAction action;
    try {
        action = parseOptions(argc, argv, options);
    } catch (const UsageError& e) {
        const std::string program = argc > 0 && argv[0] ? argv[0] : "tessara-render";
        std::fputs(usageText(e.what(), program).c_str(), stdout);
        std::fflush(stdout);
        std::exit(-1);
    }

    if (action == ParseAction::PrintVersion) {
        std::printf("version: %s\n", kVersionText);
        return 0;
    }
    if (action == ParseAction::PrintVersionAndGL) {
        std::printf("version: %s\n", kVersionText);
        std::fflush(stdout);
        ContextSession session(argc, argv);
        std::printf("%s", glInfoReport().c_str());
        return 0;
    }

    Imf::setGlobalThreadCount(int(exrThreadCount(std::thread::hardware_concurrency())));

    // Lives until the job returns; destroyed before the options.
    ContextSession session(argc, argv);
    finishStage("GL_CONTEXT");
    return runRenderJob(options);
}
