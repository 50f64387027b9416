#include "image/OutputFile.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "image/FormatText.h"

namespace {
OutputFileObserver* g_observer = nullptr;
}

OutputFileObserver* setOutputFileObserver(OutputFileObserver* observer)
{
    OutputFileObserver* previous = g_observer;
    g_observer = observer;
    return previous;
}

AtomicOutputFile::AtomicOutputFile(std::string finalPath)
    : finalPath_(std::move(finalPath)), tempPath_(finalPath_ + ".tmp-" + std::to_string(::getpid()))
{
    if (g_observer)
        g_observer->created(tempPath_);
}

AtomicOutputFile::~AtomicOutputFile()
{
    if (!committed_)
        std::remove(tempPath_.c_str());
}

void AtomicOutputFile::commit()
{
    if (committed_)
        return;
    if (std::rename(tempPath_.c_str(), finalPath_.c_str()) != 0)
        throw std::runtime_error(
            formatText("Failed to write file '%s': %s", finalPath_.c_str(), std::strerror(errno)));
    committed_ = true;
    if (g_observer)
        g_observer->committed(finalPath_);
}
