#pragma once
// Runs the renderer (or any program) as a child process, the way a user
// would, with DISPLAY unset, and collects its exit status and output.
#include <string>
#include <vector>

struct RunResult {
    int status = -1;  // exit status 0..255; -1 when killed by a signal
    std::string out;  // standard output
    std::string err;  // standard error
};

// Path of build/bin/<name>.
std::string binPath(const std::string& name);

// Runs `args` (args[0] is the program path) with DISPLAY removed from the
// environment and `extraEnv` ("NAME=value") added. Fails the current test
// (and returns status -1) when the program cannot be started.
RunResult runProgram(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv = {});

// The renderer with the given arguments (argv[0] is its path).
RunResult runRenderer(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv = {});

// Processes named `comm` (as in /proc/<pid>/stat) whose parent is this
// process, zombies included; they are killed and reaped before returning.
// This process is a child subreaper, so anything a finished child left
// behind is re-parented here and shows up.
std::vector<int> takeOrphansNamed(const std::string& comm);

// Lines of `text` that contain `needle`.
int countLinesWith(const std::string& text, const std::string& needle);

// The whole content of a file ("" when it cannot be read).
std::string readFile(const std::string& path);

// The failure contract of the renderer: status 255, one "Error (" line that is
// the last line of standard error and contains `messagePart`, and no private
// X server left behind.
void expectCleanFailure(const RunResult& r, const std::string& messagePart);

// A fresh empty directory under the system's temp directory, removed with its
// contents by the destructor.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};
