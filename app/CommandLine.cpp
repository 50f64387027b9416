#include "app/CommandLine.h"

#include <OpenEXR/ImfThreading.h>

#include <algorithm>
#include <cstdio>
#include <thread>
#include <typeinfo>

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

void printVersion()
{
    std::printf("version: %s\n", kVersionText);
    std::fflush(stdout);
}

std::unique_ptr<ContextSession> startRenderContext(int& argc, char** argv)
{
    Imf::setGlobalThreadCount(int(exrThreadCount(std::thread::hardware_concurrency())));
    auto session = std::make_unique<ContextSession>(argc, argv);
    finishStage("GL_CONTEXT");
    return session;
}

namespace {

int answer(CommandLineProgram& program, int& argc, char** argv)
{
    const std::string name = argc > 0 && argv[0] ? argv[0] : program.name();
    ParseAction action;
    try {
        action = program.parse(argc, argv);
    } catch (const UsageError& e) {
        program.printUsageError(e.what(), name);
        return -1;
    }
    switch (action) {
    case ParseAction::PrintHelp:
        std::fputs(program.helpText(name).c_str(), stdout);
        return 0;
    case ParseAction::PrintVersion:
        printVersion();
        return 0;
    case ParseAction::PrintVersionAndGL: {
        printVersion();
        const ContextSession session(argc, argv);
        std::printf("%s", glInfoReport().c_str());
        return 0;
    }
    case ParseAction::RunJob:
        break;
    }
    return program.run(argc, argv);
}

}  // namespace

int runCommandLine(CommandLineProgram& program, int& argc, char** argv)
{
    try {
        return answer(program, argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", failureReport(e).c_str());
    } catch (...) {
        std::fprintf(stderr, "Error (unknown): an exception of unknown type\n");
    }
    return -1;
}
