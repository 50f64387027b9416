#pragma once
// The state folder of a batch: a completion record per finished line, a lock
// file per line while a process renders it, and a journal of the temporary
// files a line's render created (what a killed process leaves behind).
//
// A record is keyed by the line's number and a 64-bit FNV-1a hash of its text
// ("line-000012-<16 hex digits>.done"): an edited line, or a line that moved,
// no longer finds a record and renders again. Records are written atomically
// (temporary name, then rename) and only after every output of the line is in
// place, so a record always describes complete outputs.
#include <cstdint>
#include <string>
#include <vector>

struct OutputEntry {
    std::string path;
    uint64_t bytes = 0;
};

// 64-bit FNV-1a of the text, as 16 lower-case hex digits.
std::string lineHash(const std::string& text);

// An exclusive flock on a line's lock file; released when destroyed (and by
// the system when the process dies, so a killed task blocks nobody).
class LineLock {
public:
    LineLock() = default;
    ~LineLock();
    LineLock(LineLock&& other) noexcept;
    LineLock& operator=(LineLock&& other) noexcept;
    bool held() const { return fd_ >= 0; }

private:
    friend class StateDir;
    int fd_ = -1;
};

class StateDir {
public:
    // Creates the folder (and its parents) when missing. Throws
    // std::runtime_error when it cannot. With `create` false the folder is
    // only read: a missing one holds no record.
    explicit StateDir(std::string dir, bool create = true);

    const std::string& path() const { return dir_; }
    std::string recordPath(int lineNumber, const std::string& lineText) const;

    // The outputs of the line's record when the record exists and each of its
    // outputs still exists with the recorded size; false otherwise.
    bool isDone(int lineNumber, const std::string& lineText, std::vector<OutputEntry>* outputs) const;

    void writeRecord(int lineNumber, const std::string& lineText, const std::vector<OutputEntry>& outputs) const;
    void removeRecord(int lineNumber, const std::string& lineText) const;

    // The line's lock: without waiting (not held when another process has
    // it), or waiting until it is free.
    LineLock tryLock(int lineNumber) const;
    LineLock lock(int lineNumber) const;

    // Journal of the temporary files of the line being rendered. Call only
    // while holding the line's lock: removes the temporary files an earlier,
    // killed render left (as listed in the journal), then starts it afresh.
    void clearLeftovers(int lineNumber) const;
    void journalTempFile(int lineNumber, const std::string& tempPath) const;
    void removeJournal(int lineNumber) const;

private:
    std::string linePath(int lineNumber, const char* suffix) const;
    LineLock openLock(int lineNumber, bool wait) const;
    std::string dir_;
};
