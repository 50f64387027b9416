#pragma once
// Output files appear complete or not at all: a writer writes to a temporary
// name in the destination's directory and commit() renames it into place once
// the file is complete and closed. An output that fails half way therefore
// never leaves a truncated file under the final name (nor replaces an older one).
// The file's data is flushed to the disk before the rename, so a machine that
// crashes afterwards shows the complete file or the old one under the name;
// syncCommittedFolders() then makes the new names themselves durable.
#include <functional>
#include <iosfwd>
#include <string>

class AtomicOutputFile {
public:
    // Temporary name: finalPath + ".tmp-<host>-<process id>-<8 random hex
    // digits>", same directory, so that processes on several hosts sharing a
    // folder never pick the same name. Temporaries of the same final name left
    // by processes of this host that no longer exist (killed while writing)
    // are removed here; those of other hosts are left alone.
    explicit AtomicOutputFile(std::string finalPath);
    ~AtomicOutputFile();  // removes the temporary file unless committed
    AtomicOutputFile(const AtomicOutputFile&) = delete;
    AtomicOutputFile& operator=(const AtomicOutputFile&) = delete;

    const std::string& finalPath() const { return finalPath_; }
    const std::string& tempPath() const { return tempPath_; }

    // Renames the temporary file to the final name. Call only after the file
    // has been closed. Throws std::runtime_error
    // "Failed to write file '%s': %s" (final path, system error) on failure.
    void commit();

    // The whole sequence for a writer of streams: opens the temporary file as
    // a binary stream, lets `fill` write it, closes it and commits. Throws
    // std::runtime_error "Failed to open file '%s': %s" when it cannot be
    // created and "Failed to write file '%s': %s" when writing or closing
    // failed (final path, system error); what `fill` throws passes through.
    // Either way no file appears under the final name.
    void write(const std::function<void(std::ofstream&)>& fill);

private:
    std::string finalPath_;
    std::string tempPath_;
    bool committed_ = false;
};

// Sees every output file of the process: `created` with the temporary path
// before anything is written to it, `committed` with the final path once it
// is in place. The batch program records through it what each job wrote, and
// which temporary files a killed job may have left behind.
class OutputFileObserver {
public:
    virtual ~OutputFileObserver() = default;
    virtual void created(const std::string& tempPath) = 0;
    virtual void committed(const std::string& finalPath) = 0;
};

// Flushes to the disk the folders that got new names from commit() since the
// last call, once each (a tile pyramid commits thousands of files into one).
// What was committed before the call survives a crash of the machine that
// loses what is committed after it: a batch's completion record never
// outlives its outputs. Throws std::runtime_error
// "Failed to write folder '%s': %s" when a folder cannot be synced.
void syncCommittedFolders();

// This machine's name as temporary names carry it: every character other
// than a letter, a digit or '-' replaced by '_'.
const std::string& temporaryHostTag();

// Installs `observer` (nullptr: none) and returns the previous one.
OutputFileObserver* setOutputFileObserver(OutputFileObserver* observer);
