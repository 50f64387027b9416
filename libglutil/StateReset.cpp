#include "libglutil/StateReset.h"

#include <GL/glew.h>

#include <algorithm>

#include "libglutil/GLVersion.h"

void resetContextState()
{
    const int version = glVersionNumber();
    glUseProgram(0);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);

    GLint units = 0;
    glGetIntegerv(GL_MAX_COMBINED_TEXTURE_IMAGE_UNITS, &units);
    for (GLint unit = std::min(units, 32) - 1; unit >= 0; --unit) {
        glActiveTexture(GLenum(GL_TEXTURE0 + unit));
        glBindTexture(GL_TEXTURE_2D, 0);
        if (version >= 30)
            glBindTexture(GL_TEXTURE_2D_ARRAY, 0);
    }
    // Ends on unit 0, the start-up default.

    if (version >= 30)
        glBindVertexArray(0);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);

    for (GLenum name : {GL_PACK_ROW_LENGTH, GL_PACK_SKIP_ROWS, GL_PACK_SKIP_PIXELS, GL_UNPACK_ROW_LENGTH,
                        GL_UNPACK_SKIP_ROWS, GL_UNPACK_SKIP_PIXELS, GL_UNPACK_IMAGE_HEIGHT, GL_UNPACK_SKIP_IMAGES,
                        GL_PACK_IMAGE_HEIGHT, GL_PACK_SKIP_IMAGES})
        glPixelStorei(name, 0);
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);

    glDisable(GL_BLEND);
    glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
    glDisable(GL_DEPTH_TEST);
    glDisable(GL_SCISSOR_TEST);
    glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
    glClearColor(0.0f, 0.0f, 0.0f, 0.0f);

    // Errors left by the failed work; a lost context reports errors forever.
    for (int k = 0; k < 64 && glGetError() != GL_NO_ERROR; ++k) {
    }
}
