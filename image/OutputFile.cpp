#include "image/OutputFile.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "image/FormatText.h"

namespace {
OutputFileObserver* g_observer = nullptr;

// Temporary files "<name>.tmp-<pid>" whose process no longer exists, per
// directory. A process killed while writing leaves its temporary file behind;
// the next run that writes the same output removes it. The directory is read
// once per run (a tile pyramid writes thousands of files into one), and only
// temporaries of outputs this run writes are removed, never those of a live
// process (kill(pid, 0) fails with ESRCH only when no such process exists).
class StaleTemporaries {
public:
    void removeFor(const std::string& finalPath)
    {
        const std::filesystem::path path(finalPath);
        const std::string dir = path.parent_path().string();
        const std::string prefix = path.filename().string() + ".tmp-";
        std::lock_guard<std::mutex> lock(mutex_);
        auto found = byDirectory_.find(dir);
        if (found == byDirectory_.end())
            found = byDirectory_.emplace(dir, scan(dir.empty() ? "." : dir)).first;
        for (const std::string& name : found->second)
            if (name.compare(0, prefix.size(), prefix) == 0 && name.rfind(".tmp-") == prefix.size() - 5)
                std::remove((path.parent_path() / name).c_str());
    }

private:
    // Names ending in ".tmp-" and a process id that is not running.
    static std::vector<std::string> scan(const std::string& dir)
    {
        std::vector<std::string> stale;
        std::error_code ec;
        for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
            const std::string name = it->path().filename().string();
            const size_t tmp = name.rfind(".tmp-");
            if (tmp == std::string::npos || tmp + 5 == name.size() || name.size() - tmp - 5 > 9 ||
                name.find_first_not_of("0123456789", tmp + 5) != std::string::npos)
                continue;
            const long pid = std::stol(name.substr(tmp + 5));
            if (pid > 0 && pid != long(::getpid()) && ::kill(pid_t(pid), 0) != 0 && errno == ESRCH)
                stale.push_back(name);
        }
        return stale;
    }

    std::mutex mutex_;
    std::map<std::string, std::vector<std::string>> byDirectory_;
};

}  // namespace

OutputFileObserver* setOutputFileObserver(OutputFileObserver* observer)
{
    OutputFileObserver* previous = g_observer;
    g_observer = observer;
    return previous;
}

AtomicOutputFile::AtomicOutputFile(std::string finalPath)
    : finalPath_(std::move(finalPath)), tempPath_(finalPath_ + ".tmp-" + std::to_string(::getpid()))
{
    static StaleTemporaries stale;
    stale.removeFor(finalPath_);
    if (g_observer)
        g_observer->created(tempPath_);
}

AtomicOutputFile::~AtomicOutputFile()
{
    if (!committed_)
        std::remove(tempPath_.c_str());
}

void AtomicOutputFile::write(const std::function<void(std::ofstream&)>& fill)
{
    std::ofstream out(tempPath_, std::ios::binary | std::ios::trunc);
    if (!out)
        throw std::runtime_error(formatText("Failed to open file '%s': %s", finalPath_.c_str(), std::strerror(errno)));
    fill(out);
    out.close();
    if (!out)
        throw std::runtime_error(formatText("Failed to write file '%s': %s", finalPath_.c_str(), std::strerror(errno)));
    commit();
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
