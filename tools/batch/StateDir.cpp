#include "tools/batch/StateDir.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <unordered_set>
#include <utility>

#include "image/FormatText.h"
#include "image/OutputFile.h"

namespace fs = std::filesystem;

namespace {
constexpr const char* kRecordHeader = "tessara-batch record 1";
constexpr const char* kFailureHeader = "tessara-batch failure 1";

// The error text of a failure record of the line `lineText`; false when the
// file is missing or is not one.
bool readFailure(const std::string& path, const std::string& lineText, std::string* error)
{
    std::ifstream in(path, std::ios::binary);
    std::string header, text, line;
    if (!in || !std::getline(in, header) || header != kFailureHeader || !std::getline(in, text) ||
        text != "text " + lineText || !std::getline(in, line) || line.compare(0, 6, "error ") != 0)
        return false;
    *error = line.substr(6);
    return true;
}
}

std::string lineHash(const std::string& text)
{
    uint64_t h = 0xcbf29ce484222325ull;
    for (unsigned char c : text) {
        h ^= c;
        h *= 0x100000001b3ull;
    }
    return formatText("%016llx", static_cast<unsigned long long>(h));
}

LineLock::~LineLock()
{
    if (fd_ >= 0)
        ::close(fd_);
}

LineLock::LineLock(LineLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

LineLock& LineLock::operator=(LineLock&& other) noexcept
{
    if (this != &other) {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

StateDir::StateDir(std::string dir, bool create) : dir_(std::move(dir))
{
    if (!create)
        return;
    std::error_code ec;
    fs::create_directories(dir_, ec);
    if (ec || !fs::is_directory(dir_))
        throw std::runtime_error(
            formatText("Cannot create the state folder '%s': %s", dir_.c_str(), ec.message().c_str()));
}

std::string StateDir::linePath(int lineNumber, const char* suffix) const
{
    return dir_ + formatText("/line-%06d%s", lineNumber, suffix);
}

std::string StateDir::recordPath(int lineNumber, const std::string& lineText) const
{
    return linePath(lineNumber, ("-" + lineHash(lineText) + ".done").c_str());
}

bool StateDir::isDone(int lineNumber, const std::string& lineText, std::vector<OutputEntry>* outputs) const
{
    std::ifstream in(recordPath(lineNumber, lineText), std::ios::binary);
    std::string header, text;
    if (!in || !std::getline(in, header) || header != kRecordHeader || !std::getline(in, text) ||
        text != "text " + lineText)
        return false;
    std::vector<OutputEntry> found;
    for (std::string entry; std::getline(in, entry);) {
        // "output <bytes> <path>"
        OutputEntry output;
        std::istringstream fields(entry);
        std::string word;
        if (!(fields >> word >> output.bytes) || word != "output" || fields.get() != ' ')
            return false;
        std::getline(fields, output.path);
        std::error_code ec;
        if (fs::file_size(output.path, ec) != output.bytes || ec)
            return false;
        found.push_back(std::move(output));
    }
    if (outputs)
        *outputs = std::move(found);
    return true;
}

void StateDir::writeAtomically(int lineNumber, const std::string& path, const std::string& content) const
{
    AtomicOutputFile file(path);
    journalTempFile(lineNumber, file.tempPath());  // a kill now leaves nothing behind either
    file.write([&](std::ofstream& out) { out << content; });
}

void StateDir::writeRecord(int lineNumber, const std::string& lineText, const std::vector<OutputEntry>& outputs) const
{
    std::string content = std::string(kRecordHeader) + "\ntext " + lineText + "\n";
    for (const OutputEntry& output : outputs)
        content += "output " + std::to_string(output.bytes) + " " + output.path + "\n";
    writeAtomically(lineNumber, recordPath(lineNumber, lineText), content);
}

std::string StateDir::failurePath(int lineNumber, const std::string& lineText) const
{
    return linePath(lineNumber, ("-" + lineHash(lineText) + ".failed").c_str());
}

void StateDir::writeFailure(int lineNumber, const std::string& lineText, const std::string& error) const
{
    std::string oneLine = error;
    std::replace(oneLine.begin(), oneLine.end(), '\n', ' ');
    writeAtomically(lineNumber, failurePath(lineNumber, lineText),
                    std::string(kFailureHeader) + "\ntext " + lineText + "\nerror " + oneLine + "\n");
}

void StateDir::removeFailure(int lineNumber, const std::string& lineText) const
{
    std::remove(failurePath(lineNumber, lineText).c_str());
}

void StateDir::removeRecord(int lineNumber, const std::string& lineText) const
{
    std::remove(recordPath(lineNumber, lineText).c_str());
}

LineLock StateDir::openLock(int lineNumber, bool wait) const
{
    const std::string path = linePath(lineNumber, ".lock");
    LineLock lock;
    lock.fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lock.fd_ < 0)
        throw std::runtime_error(formatText("Failed to open file '%s': %s", path.c_str(), std::strerror(errno)));
    int rc;
    do
        rc = ::flock(lock.fd_, LOCK_EX | (wait ? 0 : LOCK_NB));
    while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        if (!wait && errno == EWOULDBLOCK)
            return LineLock();
        throw std::runtime_error(formatText("Failed to lock file '%s': %s", path.c_str(), std::strerror(errno)));
    }
    return lock;
}

LineLock StateDir::tryLock(int lineNumber) const { return openLock(lineNumber, false); }

LineLock StateDir::lock(int lineNumber) const { return openLock(lineNumber, true); }

LineClaim StateDir::claim(int lineNumber, const std::string& lineText, bool wait) const
{
    LineClaim claim;
    claim.lock = openLock(lineNumber, wait);
    claim.done = claim.lock.held() && isDone(lineNumber, lineText, &claim.outputs);
    return claim;
}

std::vector<LineStatus> StateDir::survey(const std::vector<std::pair<int, std::string>>& lines) const
{
    // A line without a lock file was never taken (its records are written
    // under the lock): one listing of the folder spares opening its files.
    std::unordered_set<std::string> names;
    std::error_code ec;
    for (fs::directory_iterator it(dir_, ec), end; !ec && it != end; it.increment(ec))
        names.insert(it->path().filename().string());
    std::vector<LineStatus> statuses(lines.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        const auto& [number, text] = lines[i];
        LineStatus& status = statuses[i];
        const std::string lockPath = linePath(number, ".lock");
        if (!names.count(fs::path(lockPath).filename().string()))
            continue;
        // Read only, with a shared lock: the probe needs no write access, and
        // two probes never stand in each other's way.
        LineLock probe;
        probe.fd_ = ::open(lockPath.c_str(), O_RDONLY | O_CLOEXEC);
        bool busy = false;
        if (probe.fd_ >= 0 && ::flock(probe.fd_, LOCK_SH | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK)
                throw std::runtime_error(
                    formatText("Failed to lock file '%s': %s", lockPath.c_str(), std::strerror(errno)));
            busy = true;
        }
        if (isDone(number, text, &status.outputs))
            status.state = LineState::Done;
        else if (busy)
            status.state = LineState::Running;
        else if (readFailure(failurePath(number, text), text, &status.error))
            status.state = LineState::Failed;
    }
    return statuses;
}

void StateDir::clearLeftovers(int lineNumber) const
{
    const std::string journal = linePath(lineNumber, ".pending");
    std::ifstream in(journal, std::ios::binary);
    for (std::string temp; std::getline(in, temp);)
        if (temp.find(".tmp-") != std::string::npos)  // only ever temporary names
            std::remove(temp.c_str());
    in.close();
    removeJournal(lineNumber);
}

void StateDir::journalTempFile(int lineNumber, const std::string& tempPath) const
{
    const std::string journal = linePath(lineNumber, ".pending");
    const std::string entry = tempPath + "\n";
    const int fd = ::open(journal.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const bool ok = fd >= 0 && ::write(fd, entry.data(), entry.size()) == ssize_t(entry.size());
    if (fd >= 0)
        ::close(fd);
    if (!ok)
        throw std::runtime_error(formatText("Failed to write file '%s': %s", journal.c_str(), std::strerror(errno)));
}

void StateDir::removeJournal(int lineNumber) const { std::remove(linePath(lineNumber, ".pending").c_str()); }
