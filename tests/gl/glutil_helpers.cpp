#include "glutil_helpers.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <stdexcept>

#include "libglutil/Shader.h"
#include "libglutil/Texture.h"

extern char** environ;

std::vector<uint8_t> patternBytes(size_t count, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::vector<uint8_t> bytes(count);
    for (auto& b : bytes)
        b = uint8_t(rng() >> 24);
    return bytes;
}

void installTestShaders()
{
    static bool done = false;
    if (done)
        return;
    namespace fs = std::filesystem;
    const fs::path dir = fs::path(Shader::filePath("stdlib.frag")).parent_path();
    for (const auto& entry : fs::directory_iterator(fs::path(TESSARA_SOURCE_DIR) / "tests" / "shaders"))
        fs::copy_file(entry.path(), dir / entry.path().filename(), fs::copy_options::overwrite_existing);
    done = true;
}

std::vector<uint8_t> readRGBA(Texture& target, int w, int h)
{
    if (w == 0)
        w = target.tileWidth();
    if (h == 0)
        h = target.height();
    std::vector<uint8_t> out(size_t(w) * size_t(h) * 4);
    target.readPixels(out.data(), GL_RGBA, w, h);
    return out;
}

std::string selfExecutable() { return std::filesystem::read_symlink("/proc/self/exe").string(); }

bool isTestChild() { return std::getenv("TESSARA_TEST_CHILD") != nullptr; }

ChildResult runTestChild(const std::string& executable, const std::string& filter,
                         const std::vector<std::pair<std::string, std::string>>& env)
{
    std::vector<std::string> envText;
    for (char** e = environ; *e; ++e) {
        bool replaced = false;
        for (const auto& kv : env)
            replaced |= std::strncmp(*e, (kv.first + "=").c_str(), kv.first.size() + 1) == 0;
        if (!replaced)
            envText.emplace_back(*e);
    }
    envText.emplace_back("TESSARA_TEST_CHILD=1");
    for (const auto& kv : env)
        envText.push_back(kv.first + "=" + kv.second);
    std::vector<char*> envp;
    for (auto& s : envText)
        envp.push_back(s.data());
    envp.push_back(nullptr);

    std::string filterArg = "--gtest_filter=" + filter;
    std::string exe = executable;
    char* argv[] = {exe.data(), filterArg.data(), nullptr};

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
    pid_t pid = 0;
    const int rc = posix_spawn(&pid, exe.c_str(), &actions, nullptr, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    ChildResult result;
    if (rc != 0) {
        close(fds[0]);
        result.output = std::string("spawn failed: ") + std::strerror(rc);
        return result;
    }
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(fds[0], buffer, sizeof buffer);
        if (n > 0)
            result.output.append(buffer, size_t(n));
        else if (n == 0 || errno != EINTR)
            break;
    }
    close(fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}
