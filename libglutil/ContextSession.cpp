#include "libglutil/ContextSession.h"

#include <QApplication>
#include <QOpenGLContext>

#include <clocale>

#include "libglutil/GLError.h"
#include "libglutil/HeadlessDisplay.h"
#include "libglutil/QtContext.h"
#include "libglutil/ShaderCache.h"

ContextSession::ContextSession(int& argc, char** argv)
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

ContextSession::~ContextSession()
{
    releaseSharedShaders();  // while the context is still current
    widget_.reset();
    app_.reset();
}
