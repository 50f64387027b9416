#include "libglutil/Shader.h"

#include <QCoreApplication>
#include <QDir>
#include <QString>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "libglutil/Framebuffer.h"
#include "libglutil/GLError.h"
#include "libglutil/GLVersion.h"

namespace {

// Size of a shader file; 0 when it is missing or empty (both mean "not there").
uintmax_t fileSize(const std::string& path)
{
    std::error_code ec;
    const uintmax_t size = std::filesystem::file_size(path, ec);
    return ec ? 0 : size;
}

std::string readWholeFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("Error opening file '" + path + "'");
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool hasExtension(const std::string& path, const char* extension)
{
    return std::filesystem::path(path).extension() == extension;
}

}  // namespace

bool isHarmlessShaderLog(const std::string& log)
{
    // Success notes some drivers print for every program.
    static const char* const kHarmless[] = {
        "Vertex shader was successfully compiled to run on hardware.",
        "Fragment shader was successfully compiled to run on hardware.",
        "Fragment shader(s) linked, vertex shader(s) linked.",
        "Fragment shader(s) linked.",
        "Fragment shader(s) linked, no vertex shader(s) defined.",
        "Vertex shader(s) linked, fragment shader(s) linked.",
        "No errors.",
    };
    for (const char* text : kHarmless)
        if (log.compare(0, std::strlen(text), text) == 0)
            return true;
    return false;
}

void checkShaderLog(GLuint object, const std::string& displayName)
{
    const bool isShader = glIsShader(object);
    GLint length = 0;
    if (isShader)
        glGetShaderiv(object, GL_INFO_LOG_LENGTH, &length);
    else
        glGetProgramiv(object, GL_INFO_LOG_LENGTH, &length);
    if (length <= 1)
        return;
    std::vector<char> buffer(size_t(length), '\0');
    if (isShader)
        glGetShaderInfoLog(object, length, nullptr, buffer.data());
    else
        glGetProgramInfoLog(object, length, nullptr, buffer.data());
    const std::string log(buffer.data());
    if (!log.empty() && !isHarmlessShaderLog(log))
        std::fprintf(stderr, "Errors in shader '%s':\n%s\n", displayName.c_str(), log.c_str());
}

const std::string& shaderVersionLine()
{
    static const std::string line = [] {
        const int v = glVersionNumber();
        if (v >= 33)
            return std::string("#version 330\n");
        if (v >= 30)
            return std::string("#version 130\n");
        return std::string("#version 120\n");
    }();
    return line;
}

std::string Shader::filePath(const std::string& fileName)
{
    if (!QCoreApplication::instance()) {
        // No application object (tools, benches): the executable's own directory.
        std::error_code ec;
        const auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
        if (!ec)
            return (exe.parent_path() / fileName).string();
    }
    const QString dir = QCoreApplication::applicationDirPath();
    return QDir(dir).filePath(QString::fromStdString(fileName)).toStdString();
}

namespace {

void compileShader(GLuint shader, const std::string& path, std::string defines)
{
    if (std::getenv("USE_ARRAY_TEXTURE"))
        defines += "#define USE_ARRAY_TEXTURE\n";
    std::string library;
    if (hasExtension(path, ".frag"))
        library = readWholeFile(std::filesystem::path(path).replace_filename("stdlib.frag").string());
    const std::string source = readWholeFile(path);
    const char* strings[4] = {shaderVersionLine().c_str(), defines.c_str(), library.c_str(), source.c_str()};
    glShaderSource(shader, 4, strings, nullptr);
    glCompileShader(shader);
    checkShaderLog(shader, path);
}

}  // namespace

Shader::Shader(std::string name, std::string defines) : name_(std::move(name)), defines_(std::move(defines))
{
    try {
        build();
    } catch (...) {
        destroy();  // the names created before the failure
        throw;
    }
}

void Shader::build()
{
    const std::string vertexPath = filePath(name_ + ".vert");
    const std::string fragmentPath = filePath(name_ + ".frag");
    const bool haveVertexFile = fileSize(vertexPath) > 0;
    GL_CHECK();
    program_ = glCreateProgram();
    if (glVersionNumber() >= 33 || haveVertexFile) {
        vertex_ = glCreateShader(GL_VERTEX_SHADER);
        glAttachShader(program_, vertex_);
        if (!haveVertexFile) {
            glShaderSource(vertex_, 1, &kDefaultVertexShader, nullptr);
            glCompileShader(vertex_);
            checkShaderLog(vertex_, "default.vert");
        }
    }
    // Below GL 3.3 without a vertex file the program has no vertex shader: the
    // legacy quad feeds the fragment shader through the fixed-function pipeline.
    fragment_ = glCreateShader(GL_FRAGMENT_SHADER);
    glAttachShader(program_, fragment_);
    glUseProgram(0);
    if (haveVertexFile)
        compileShader(vertex_, vertexPath, defines_);
    compileShader(fragment_, fragmentPath, defines_);
    glLinkProgram(program_);
    // Compile and link status are not queried: a broken program is reported here
    // and fails at the first GL error check that uses it.
    checkShaderLog(program_, name_);
    glUseProgram(program_);
    for (int unit = 0; unit < 6; ++unit) {
        const std::string sampler = "texUnit" + std::to_string(unit);
        const GLint loc = glGetUniformLocation(program_, sampler.c_str());
        if (loc != -1)
            glUniform1i(loc, unit);
    }
    GL_CHECK();
}

Shader::~Shader() { destroy(); }

Shader::Shader(Shader&& other) noexcept { *this = std::move(other); }

Shader& Shader::operator=(Shader&& other) noexcept
{
    if (this == &other)
        return *this;
    destroy();
    program_ = std::exchange(other.program_, 0u);
    vertex_ = std::exchange(other.vertex_, 0u);
    fragment_ = std::exchange(other.fragment_, 0u);
    name_ = std::move(other.name_);
    defines_ = std::move(other.defines_);
    return *this;
}

void Shader::destroy() noexcept
{
    if (program_ == 0 && vertex_ == 0 && fragment_ == 0)
        return;
    glUseProgram(0);
    if (vertex_ != 0) {
        if (program_ != 0)
            glDetachShader(program_, vertex_);
        glDeleteShader(vertex_);
    }
    if (fragment_ != 0) {
        if (program_ != 0)
            glDetachShader(program_, fragment_);
        glDeleteShader(fragment_);
    }
    if (program_ != 0)
        glDeleteProgram(program_);
    program_ = vertex_ = fragment_ = 0;
}

void Shader::use() const { glUseProgram(program_); }

GLint Shader::uniformLocation(const char* name) const
{
    const GLint loc = glGetUniformLocation(program_, name);
    if (loc == -1)
        std::fprintf(stderr, "No such uniform named '%s'\n", name);
    GL_CHECK();
    return loc;
}

void Shader::setUniform(const char* name, int v) const { glUniform1i(uniformLocation(name), v); }

void Shader::setUniform(const char* name, float v) const { glUniform1f(uniformLocation(name), v); }

void Shader::setUniform(const char* name, float x, float y) const { glUniform2f(uniformLocation(name), x, y); }

void Shader::setUniform(const char* name, float x, float y, float z) const
{
    glUniform3f(uniformLocation(name), x, y, z);
}

void Shader::setUniform(const char* name, float x, float y, float z, float w) const
{
    glUniform4f(uniformLocation(name), x, y, z, w);
}

void Shader::setUniform2i(const char* name, int x, int y) const { glUniform2i(uniformLocation(name), x, y); }

void Shader::setMatrix3(const char* name, const float* columnMajor9) const
{
    glUniformMatrix3fv(uniformLocation(name), 1, GL_FALSE, columnMajor9);
}
