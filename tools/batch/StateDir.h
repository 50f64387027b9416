#pragma once
// The state folder of a batch: a completion record per finished line, a
// failure record per line whose last render failed, a lock file per line that
// a process holds while it renders the line, and a journal of the temporary
// files a line's render created (what a killed process leaves behind).
//
// A record is keyed by the line's number and a 64-bit FNV-1a hash of its text
// ("line-000012-<16 hex digits>.done"): an edited line, or a line that moved,
// no longer finds a record and renders again. Records are written atomically
// (temporary name, then rename) and only after every output of the line is in
// place, so a record always describes complete outputs. Failure records
// ("line-000012-<hash>.failed") hold the error text; the line's next success
// removes its failure record.
//
// Every process that renders lines of the batch may run on another host: the
// folder needs a file system whose flock works across them (local disks; NFSv4
// or Lustre mounted with flock).
#include <cstdint>
#include <string>
#include <vector>

struct OutputEntry {
    std::string path;
    uint64_t bytes = 0;
};

// 64-bit FNV-1a of the text, as 16 lower-case hex digits.
std::string lineHash(const std::string& text);

// A flock on a line's lock file (exclusive for a render, shared for a look); released when destroyed (and by
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

// A line's lock and, looked up while holding it, whether the line is done.
struct LineClaim {
    LineLock lock;
    bool done = false;
    std::vector<OutputEntry> outputs;  // of the done line
};

// Where a line stands, as the folder says it.
enum class LineState { NotStarted, Running, Failed, Done };

struct LineStatus {
    LineState state = LineState::NotStarted;
    std::vector<OutputEntry> outputs;  // Done: the recorded outputs
    std::string error;                 // Failed: the error text
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

    // The failure record: `error` is the line's one-line error text.
    void writeFailure(int lineNumber, const std::string& lineText, const std::string& error) const;
    void removeFailure(int lineNumber, const std::string& lineText) const;

    // The line's lock: without waiting (not held when another process has
    // it), or waiting until it is free.
    LineLock tryLock(int lineNumber) const;
    LineLock lock(int lineNumber) const;

    // The line's lock as tryLock or lock take it, then, with the lock held,
    // whether the line is done: a line that another process finished between
    // an earlier look and this lock is seen as done, never rendered again.
    LineClaim claim(int lineNumber, const std::string& lineText, bool wait) const;

    // The state of each line (number, text) without writing anything: Done
    // when its record holds, else Running when another process holds its lock,
    // else Failed when it has a failure record, else NotStarted. The folder is
    // listed once and a line's lock is probed with a shared, non-blocking
    // flock while its records are read, so a render that ends meanwhile is
    // seen either before or after, never half way.
    std::vector<LineStatus> survey(const std::vector<std::pair<int, std::string>>& lines) const;

    // Journal of the temporary files of the line being rendered. Call only
    // while holding the line's lock: removes the temporary files an earlier,
    // killed render left (as listed in the journal), then starts it afresh.
    void clearLeftovers(int lineNumber) const;
    void journalTempFile(int lineNumber, const std::string& tempPath) const;
    void removeJournal(int lineNumber) const;

private:
    std::string linePath(int lineNumber, const char* suffix) const;
    std::string failurePath(int lineNumber, const std::string& lineText) const;
    LineLock openLock(int lineNumber, bool wait) const;
    void writeAtomically(int lineNumber, const std::string& path, const std::string& content) const;
    std::string dir_;
};
