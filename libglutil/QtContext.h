#pragma once
// The hidden Qt OpenGL widget whose context all GL work of a run uses, and the
// start-up sequence around it.
#include <QOpenGLWidget>

#include <exception>
#include <memory>
#include <string>

#include "libglutil/GLVersion.h"

class QApplication;

class QtContext : public QOpenGLWidget {
    Q_OBJECT
public:
    QtContext() = default;
    ~QtContext() override = default;

    // A failure inside initializeGL cannot be thrown through Qt's event code;
    // it is kept here and rethrown by GLContextSession once show() returns.
    std::exception_ptr initError;

protected:
    void initializeGL() override;
};

// Chooses the default surface format: USE_GL_CORE (any value) asks for 3.3 core,
// otherwise Qt's default compatibility context. Call before QApplication exists.
void setupSurfaceFormat();

// Brings up the context exactly as the program does: private X server when no
// display is set, surface format, QApplication, "C" locale, the hidden widget
// with its two attributes, show(). Destroys the widget, then the application.
class GLContextSession {
public:
    GLContextSession(int& argc, char** argv);
    ~GLContextSession();
    GLContextSession(const GLContextSession&) = delete;
    GLContextSession& operator=(const GLContextSession&) = delete;

private:
    std::unique_ptr<QApplication> app_;
    std::unique_ptr<QtContext> widget_;
};
