#pragma once
// The program's GL context for code that itself includes GLEW (benchmarks,
// tools): the same start-up as GLContextSession (libglutil/QtContext.h), behind
// a header free of Qt's OpenGL headers, which cannot share a translation unit
// with GLEW's.
#include <memory>

class GLContextSession;

class ContextSession {
public:
    ContextSession(int& argc, char** argv);
    ~ContextSession();
    ContextSession(const ContextSession&) = delete;
    ContextSession& operator=(const ContextSession&) = delete;

private:
    std::unique_ptr<GLContextSession> session_;
};
