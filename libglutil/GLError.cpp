#include "libglutil/GLError.h"

#include <GL/glew.h>

#include <cstdio>
#include <cstring>

namespace {
const char* errorName(GLenum e)
{
    switch (e) {
    case 0x0500: return "invalid enum";
    case 0x0501: return "invalid value";
    case 0x0502: return "invalid operation";
    case 0x0503: return "stack overflow";
    case 0x0504: return "stack unerflow";  // the report's own spelling, kept
    case 0x0505: return "out of memory";
    default: return "unknown error code";
    }
}
}  // namespace

std::string glErrorReport(const char* sourceFile, int line)
{
    return glErrorReportFrom(sourceFile, line, [] { return unsigned(glGetError()); });
}

std::string glErrorReportFrom(const char* sourceFile, int line, const std::function<unsigned()>& nextError)
{
    std::string list;
    for (;;) {
        if (list.size() > 999)
            break;
        const unsigned e = nextError();
        if (e == GL_NO_ERROR)
            break;
        char item[64];
        std::snprintf(item, sizeof item, "%s (0x%04x), ", errorName(e), unsigned(e));
        list += item;
    }
    if (list.empty())
        return std::string();
    const char* base = std::strrchr(sourceFile, '/');
    base = base ? base + 1 : sourceFile;
    std::string out = "glError(s) @ ";
    out += base;
    out += ":" + std::to_string(line) + " : " + list + "\n";
    return out;
}

void throwIfNotEmpty(const std::string& report)
{
    if (!report.empty())
        throw opengl_error(report);
}
