#pragma once
// The hidden Qt OpenGL widget whose context all GL work of a run uses; opened
// by ContextSession (libglutil/ContextSession.h).
#include <QOpenGLWidget>

#include <exception>

class QtContext : public QOpenGLWidget {
    Q_OBJECT
public:
    QtContext() = default;
    ~QtContext() override = default;

    // A failure inside initializeGL cannot be thrown through Qt's event code;
    // it is kept here and rethrown by ContextSession once show() returns.
    std::exception_ptr initError;

protected:
    void initializeGL() override;
};

// Chooses the default surface format: USE_GL_CORE (any value) asks for 3.3 core,
// otherwise Qt's default compatibility context. Call before QApplication exists.
void setupSurfaceFormat();
