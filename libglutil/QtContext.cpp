#include "libglutil/QtContext.h"

#include <QApplication>
#include <QOpenGLContext>
#include <QSurfaceFormat>
#include <QtDebug>

#include <clocale>
#include <cstdlib>

#include "libglutil/GLError.h"
#include "libglutil/GLInit.h"
#include "libglutil/HeadlessDisplay.h"
#include "libglutil/ShaderCache.h"
#include "libglutil/Stage.h"

void setupSurfaceFormat()
{
    QCoreApplication::setAttribute(Qt::AA_UseDesktopOpenGL, true);
    QSurfaceFormat format;
    if (std::getenv("USE_GL_CORE")) {
        format.setVersion(3, 3);
        format.setProfile(QSurfaceFormat::CoreProfile);
    }
    QSurfaceFormat::setDefaultFormat(format);
}

void QtContext::initializeGL()
{
    try {
        initializeGlewAndState();
    } catch (...) {
        initError = std::current_exception();
    }
}

GLContextSession::GLContextSession(int& argc, char** argv)
{
    ensureDisplay();
    setupSurfaceFormat();
    app_ = std::make_unique<QApplication>(argc, argv);
    std::setlocale(LC_ALL, "C");
    widget_ = std::make_unique<QtContext>();
    widget_->setAttribute(Qt::WA_ShowWithoutActivating, true);
    widget_->setAttribute(Qt::WA_DontShowOnScreen, true);
    widget_->show();
    if (widget_->initError)
        std::rethrow_exception(widget_->initError);
    if (!QOpenGLContext::currentContext() || !widget_->context())
        throw opengl_error("Initializing OpenGL failed: no valid context");
}

GLContextSession::~GLContextSession()
{
    releaseSharedShaders();  // while the context is still current
    widget_.reset();
    app_.reset();
}
