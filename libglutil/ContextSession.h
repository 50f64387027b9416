#pragma once
// The program's GL context for the lifetime of one object. The header names
// no Qt OpenGL type, so code that includes GLEW (which cannot share a
// translation unit with Qt's OpenGL headers) can open the context too.
#include <memory>

class QApplication;
class QtContext;

// Brings up the context exactly as the program does: private X server when no
// display is set, surface format, QApplication, "C" locale, the hidden widget
// (libglutil/QtContext.h) with its two attributes, show(). Destroys the
// widget, then the application.
class ContextSession {
public:
    ContextSession(int& argc, char** argv);
    ~ContextSession();
    ContextSession(const ContextSession&) = delete;
    ContextSession& operator=(const ContextSession&) = delete;

private:
    std::unique_ptr<QApplication> app_;
    std::unique_ptr<QtContext> widget_;
};
