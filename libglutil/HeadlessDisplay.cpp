#include "libglutil/HeadlessDisplay.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "libglutil/BesideExecutable.h"

namespace {
pid_t g_serverPid = -1;

// Xvfb beside the executable first (a bundled server), else from PATH.
std::string findXvfb()
{
    const std::string beside = besideExecutable("Xvfb");
    if (access(beside.c_str(), X_OK) == 0)
        return beside;
    return "Xvfb";
}
}  // namespace

bool selectGlxVendor(const char* vendorLibrary, const char* vendorName)
{
    if (std::getenv("__GLX_VENDOR_LIBRARY_NAME"))
        return false;  // the user's choice stands
    void* lib = dlopen(vendorLibrary, RTLD_LAZY | RTLD_LOCAL);
    if (!lib)
        return false;
    dlclose(lib);
    setenv("__GLX_VENDOR_LIBRARY_NAME", vendorName, 0);
    return true;
}


void stopPrivateDisplay()
{
    if (g_serverPid <= 0)
        return;
    const pid_t pid = g_serverPid;
    g_serverPid = -1;
    kill(pid, SIGTERM);
    for (int i = 0; i < 200; ++i) {  // up to 2 s, then force it
        int status = 0;
        const pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid || (r < 0 && errno == ECHILD))
            return;
        usleep(10000);
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

void ensureDisplay()
{
    const char* display = std::getenv("DISPLAY");
    if ((display && *display) || g_serverPid > 0)
        return;

    // The server creates its socket here; it may be missing on a bare machine.
    mkdir("/tmp/.X11-unix", 01777);

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        throw std::runtime_error(std::string("Failed to start Xvfb: ") + std::strerror(errno));
    const std::string xvfb = findXvfb();
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        throw std::runtime_error(std::string("Failed to start Xvfb: ") + std::strerror(errno));
    }
    if (pid == 0) {
        // The server must not outlive us, even when we are killed.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent)
            _exit(127);
        setpgid(0, 0);  // a terminal's Ctrl-C goes to us; we stop the server
        const int devnull = open("/dev/null", O_RDWR);
        if (devnull >= 0) {
            dup2(devnull, 0);
            dup2(devnull, 1);
            dup2(devnull, 2);
        }
        const int out = dup(fds[1]);  // dup clears O_CLOEXEC
        const std::string fdText = std::to_string(out);
        execlp(xvfb.c_str(), xvfb.c_str(), "-displayfd", fdText.c_str(), "-screen", "0", "1280x1024x24",
               "-nolisten", "tcp", "-noreset", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    g_serverPid = pid;
    std::atexit(stopPrivateDisplay);

    // Xvfb writes its display number followed by a newline once it accepts clients.
    std::string number;
    pollfd p{fds[0], POLLIN, 0};
    for (;;) {
        const int r = poll(&p, 1, 20000);
        if (r <= 0)
            break;
        char c;
        const ssize_t n = read(fds[0], &c, 1);
        if (n <= 0 || c == '\n')
            break;
        number += c;
    }
    close(fds[0]);
    if (number.empty()) {
        stopPrivateDisplay();
        throw std::runtime_error("Failed to start Xvfb: no display was opened (is the xvfb package installed?)");
    }
    selectGlxVendor("libGLX_nvidia.so.0", "nvidia");
    setenv("DISPLAY", (":" + number).c_str(), 1);
}
