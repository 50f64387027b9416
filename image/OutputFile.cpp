#include "image/OutputFile.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <vector>

#include "image/FormatText.h"

namespace {
OutputFileObserver* g_observer = nullptr;

// Folders that got a new name since the last syncCommittedFolders().
std::mutex g_unsyncedMutex;
std::set<std::string> g_unsyncedFolders;

// The parts of a temporary name after ".tmp-": "<host>-<pid>-<8 hex digits>".
// Many hosts write into one shared folder, and every pod of a Kubernetes Job
// is process 1 of its own namespace, so the host name keeps the names of
// different machines apart and the random part those of equal process ids.
struct TemporaryTag {
    std::string host;
    long pid = 0;
};

// "<host>-<pid>-<8 hex>" parsed from the right (host names contain '-'); false
// for anything else, so files merely named like temporaries are left alone.
bool parseTemporaryTag(const std::string& tag, TemporaryTag& out)
{
    const size_t randomDash = tag.rfind('-');
    if (randomDash == std::string::npos || randomDash == 0 || tag.size() - randomDash - 1 != 8 ||
        tag.find_first_not_of("0123456789abcdef", randomDash + 1) != std::string::npos)
        return false;
    const size_t pidDash = tag.rfind('-', randomDash - 1);
    if (pidDash == std::string::npos || pidDash == 0 || randomDash - pidDash - 1 < 1 || randomDash - pidDash - 1 > 9 ||
        tag.find_first_not_of("0123456789", pidDash + 1) < randomDash)
        return false;
    out.host = tag.substr(0, pidDash);
    out.pid = std::stol(tag.substr(pidDash + 1, randomDash - pidDash - 1));
    return true;
}

std::string randomTag()
{
    static std::mutex mutex;
    static std::mt19937 generator{std::random_device{}()};
    std::lock_guard<std::mutex> lock(mutex);
    return formatText("%08x", static_cast<unsigned>(generator()));
}

// Temporary files of outputs whose writer was a process of this host that no
// longer exists, per directory. A process killed while writing leaves its
// temporary file behind; the next run that writes the same output removes
// it. The directory is read once per run (a tile pyramid writes thousands of
// files into one), and only temporaries of outputs this run writes are
// removed, never those of a live process (kill(pid, 0) fails with ESRCH only
// when no such process exists) nor those of another host, whose processes
// this one cannot see.
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
    static std::vector<std::string> scan(const std::string& dir)
    {
        std::vector<std::string> stale;
        std::error_code ec;
        for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
            const std::string name = it->path().filename().string();
            const size_t tmp = name.rfind(".tmp-");
            TemporaryTag tag;
            if (tmp == std::string::npos || !parseTemporaryTag(name.substr(tmp + 5), tag))
                continue;
            if (tag.host == temporaryHostTag() && tag.pid > 0 && tag.pid != long(::getpid()) &&
                ::kill(pid_t(tag.pid), 0) != 0 && errno == ESRCH)
                stale.push_back(name);
        }
        return stale;
    }

    std::mutex mutex_;
    std::map<std::string, std::vector<std::string>> byDirectory_;
};

// Flushes a file's data, or a directory's entries, to the disk. Some file
// systems cannot sync a directory (EINVAL): there the rename is as durable as
// they make it.
bool syncToDisk(const std::string& path, bool directory)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | (directory ? O_DIRECTORY : 0));
    if (fd < 0)
        return false;
    int rc;
    do
        rc = ::fsync(fd);
    while (rc != 0 && errno == EINTR);
    const bool ok = rc == 0 || (directory && (errno == EINVAL || errno == EROFS));
    const int saved = errno;
    ::close(fd);
    errno = saved;
    return ok;
}

}  // namespace

const std::string& temporaryHostTag()
{
    static const std::string tag = [] {
        char name[256] = {};
        if (::gethostname(name, sizeof name - 1) != 0 || !name[0])
            return std::string("localhost");
        std::string text = name;
        for (char& c : text)
            if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-')
                c = '_';
        return text;
    }();
    return tag;
}

OutputFileObserver* setOutputFileObserver(OutputFileObserver* observer)
{
    OutputFileObserver* previous = g_observer;
    g_observer = observer;
    return previous;
}

AtomicOutputFile::AtomicOutputFile(std::string finalPath)
    : finalPath_(std::move(finalPath)),
      tempPath_(finalPath_ + ".tmp-" + temporaryHostTag() + "-" + std::to_string(::getpid()) + "-" + randomTag())
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
    // Data first, then the name: after a crash of the machine the final name
    // holds the complete file or the old one, never a part of the new one.
    if (!syncToDisk(tempPath_, false) || std::rename(tempPath_.c_str(), finalPath_.c_str()) != 0)
        throw std::runtime_error(
            formatText("Failed to write file '%s': %s", finalPath_.c_str(), std::strerror(errno)));
    committed_ = true;
    const std::string dir = std::filesystem::path(finalPath_).parent_path().string();
    {
        std::lock_guard<std::mutex> lock(g_unsyncedMutex);
        g_unsyncedFolders.insert(dir.empty() ? "." : dir);
    }
    if (g_observer)
        g_observer->committed(finalPath_);
}

void syncCommittedFolders()
{
    std::lock_guard<std::mutex> lock(g_unsyncedMutex);
    for (auto it = g_unsyncedFolders.begin(); it != g_unsyncedFolders.end(); it = g_unsyncedFolders.erase(it))
        if (!syncToDisk(*it, true))
            throw std::runtime_error(formatText("Failed to write folder '%s': %s", it->c_str(), std::strerror(errno)));
}
