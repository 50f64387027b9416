// GLEW and plain GL calls of the context start-up. Kept apart from the Qt
// widget code because GLEW's header and Qt's OpenGL headers cannot be mixed in
// one translation unit.
#include "libglutil/GLInit.h"

#include <GL/glew.h>

#include <QtDebug>

#include "libglutil/GLError.h"

void initializeGlewAndState()
{
    {
        glewExperimental = GL_TRUE;  // needed for the entry points of core contexts
        const GLenum code = glewInit();
        if (code != 0) {
            const char* text = reinterpret_cast<const char*>(glewGetErrorString(code));
            // GLEW 2.2 reports a missing GLX display (as under EGL) with a
            // non-fatal code; only a real message stops us.
            if (text && *text && code != 4 /* GLEW_ERROR_NO_GLX_DISPLAY */)
                throw opengl_error(text);
        }
        glGetError();  // GLEW may leave an error pending in a core context
        qDebug("OpenGL Version: %s", reinterpret_cast<const char*>(glGetString(GL_VERSION)));
        glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
        glDisable(GL_DEPTH_TEST);
    }
}
