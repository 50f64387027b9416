#include "libglutil/QtContext.h"

#include <QApplication>
#include <QSurfaceFormat>
#include <QtDebug>

#include <cstdlib>

#include "libglutil/GLInit.h"

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
