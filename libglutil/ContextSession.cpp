#include "libglutil/ContextSession.h"

#include <QApplication>
#include <QOpenGLContext>

#include <clocale>

#include "libglutil/GLError.h"
#include "libglutil/HeadlessDisplay.h"
#include "libglutil/QtContext.h"
#include "libglutil/ShaderCache.h"

namespace {
QtMessageHandler g_nextHandler = nullptr;

// Qt warns on every start without XDG_RUNTIME_DIR, which batch schedulers
// (Slurm) never set, and then uses a private folder of its own; nothing here
// depends on that folder. Only that one warning is dropped.
void dropRuntimeDirWarning(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    static const char kPrefix[] = "QStandardPaths: XDG_RUNTIME_DIR not set, defaulting to ";
    if (type == QtWarningMsg && message.startsWith(QLatin1String(kPrefix)))
        return;
    g_nextHandler(type, context, message);
}
}  // namespace

ContextSession::ContextSession(int& argc, char** argv)
{
    static const bool filtered = [] {
        g_nextHandler = qInstallMessageHandler(dropRuntimeDirWarning);
        return true;
    }();
    (void)filtered;
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
