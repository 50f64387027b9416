#include "tools/batch/StateDir.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "image/FormatText.h"
#include "image/OutputFile.h"

namespace fs = std::filesystem;

namespace {
constexpr const char* kRecordHeader = "tessara-batch record 1";
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

void StateDir::writeRecord(int lineNumber, const std::string& lineText, const std::vector<OutputEntry>& outputs) const
{
    const std::string path = recordPath(lineNumber, lineText);
    AtomicOutputFile file(path);
    journalTempFile(lineNumber, file.tempPath());  // a kill now leaves nothing behind either
    file.write([&](std::ofstream& out) {
        out << kRecordHeader << "\ntext " << lineText << "\n";
        for (const OutputEntry& output : outputs)
            out << "output " << output.bytes << " " << output.path << "\n";
    });
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
