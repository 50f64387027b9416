#include "libglutil/GLVersion.h"

#include <GL/glew.h>

#include <sstream>
#include <string>

#include "libglutil/GLError.h"

int glVersionNumber()
{
    static int cached = 0;
    if (cached)
        return cached;
    const char* v = reinterpret_cast<const char*>(glGetString(GL_VERSION));
    if (!v || !v[0] || !v[1])
        throw opengl_error("Initializing OpenGL failed: no valid context");
    cached = std::stoi(std::string{v[0], v[2]});
    return cached;
}

std::string glInfoReport()
{
    const char* vendor = reinterpret_cast<const char*>(glGetString(GL_VENDOR));
    const char* renderer = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
    const char* version = reinterpret_cast<const char*>(glGetString(GL_VERSION));
    const char* glsl = reinterpret_cast<const char*>(glGetString(GL_SHADING_LANGUAGE_VERSION));
    if (!vendor || !renderer || !version || !glsl)
        return "Initializing OpenGL failed: no valid context";
    std::ostringstream out;
    out << "GL_VENDOR:      " << vendor << "\n";
    out << "GL_RENDERER:    " << renderer << "\n";
    out << "GL_VERSION:     " << version << "\n";
    out << "GLSL Version:   " << glsl << "\n";
    GLint maxSize = -1;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &maxSize);
    out << "GL_MAX_TEXTURE_SIZE: " << maxSize << "\n";
    glFlush();
    if (GLEW_NVX_gpu_memory_info) {
        GLint dedicated = 0, total = 0, available = 0;
        glGetIntegerv(0x9047, &dedicated);
        glGetIntegerv(0x9048, &total);
        glGetIntegerv(0x9049, &available);
        out << "Dedicated mem (MB): " << dedicated / 1000 << "\n";
        out << "Total mem (MB)    : " << total / 1000 << "\n";
        out << "Available mem (MB): " << available / 1000 << "\n";
    } else if (GLEW_ATI_meminfo) {
        out << "Memory: Total free in pool (MB) / Total aux mem free (MB)\n";
        const struct { const char* label; GLenum e; } rows[] = {
            {"  VBO:           ", 0x87FB}, {"  Texture:       ", 0x87FC}, {"  Render buffer: ", 0x87FD}};
        for (const auto& r : rows) {
            GLint v[4] = {0, 0, 0, 0};
            glGetIntegerv(r.e, v);
            out << r.label << v[0] / 1000 << " / " << v[2] / 1000 << "\n";
        }
    } else {
        out << "No memory info available.\n";
    }
    glGetError();  // the report never throws and leaves nothing pending
    return out.str();
}

