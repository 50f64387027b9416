#include "libglutil/Shader.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "libglutil/BesideExecutable.h"
#include "libglutil/FullScreenPass.h"
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

std::string checkShaderLog(GLuint object, const std::string& displayName)
{
    const bool isShader = glIsShader(object);
    GLint length = 0;
    if (isShader)
        glGetShaderiv(object, GL_INFO_LOG_LENGTH, &length);
    else
        glGetProgramiv(object, GL_INFO_LOG_LENGTH, &length);
    if (length <= 1)
        return std::string();
    std::vector<char> buffer(size_t(length), '\0');
    if (isShader)
        glGetShaderInfoLog(object, length, nullptr, buffer.data());
    else
        glGetProgramInfoLog(object, length, nullptr, buffer.data());
    const std::string log(buffer.data());
    if (log.empty() || isHarmlessShaderLog(log))
        return std::string();
    const std::string message = "Errors in shader '" + displayName + "':\n" + log + "\n";
    std::fputs(message.c_str(), stderr);
    return message;
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

namespace {

std::string compileShader(GLuint shader, const std::string& path, std::string defines)
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
    return checkShaderLog(shader, path);
}

// Sampler "texUnitN" reads texture unit N (a name the program lacks is skipped).
void setSamplerUnits(GLuint program)
{
    for (int unit = 0; unit < 6; ++unit) {
        const std::string sampler = "texUnit" + std::to_string(unit);
        const GLint loc = glGetUniformLocation(program, sampler.c_str());
        if (loc != -1)
            glUniform1i(loc, unit);
    }
}

// Sets `count` elements of a uniform of GLSL type `type` to zero; false for
// types it does not know (samplers among them).
bool zeroUniform(GLint loc, GLenum type, GLsizei count)
{
    static const GLfloat f[16] = {};
    static const GLint i[4] = {};
    static const GLuint u[4] = {};
    for (GLsizei k = 0; k < count; ++k) {
        const GLint at = loc + k;  // array elements have consecutive locations
        switch (type) {
        case GL_FLOAT: glUniform1fv(at, 1, f); break;
        case GL_FLOAT_VEC2: glUniform2fv(at, 1, f); break;
        case GL_FLOAT_VEC3: glUniform3fv(at, 1, f); break;
        case GL_FLOAT_VEC4: glUniform4fv(at, 1, f); break;
        case GL_INT: case GL_BOOL: glUniform1iv(at, 1, i); break;
        case GL_INT_VEC2: case GL_BOOL_VEC2: glUniform2iv(at, 1, i); break;
        case GL_INT_VEC3: case GL_BOOL_VEC3: glUniform3iv(at, 1, i); break;
        case GL_INT_VEC4: case GL_BOOL_VEC4: glUniform4iv(at, 1, i); break;
        case GL_UNSIGNED_INT: glUniform1uiv(at, 1, u); break;
        case GL_UNSIGNED_INT_VEC2: glUniform2uiv(at, 1, u); break;
        case GL_UNSIGNED_INT_VEC3: glUniform3uiv(at, 1, u); break;
        case GL_UNSIGNED_INT_VEC4: glUniform4uiv(at, 1, u); break;
        case GL_FLOAT_MAT2: glUniformMatrix2fv(at, 1, GL_FALSE, f); break;
        case GL_FLOAT_MAT3: glUniformMatrix3fv(at, 1, GL_FALSE, f); break;
        case GL_FLOAT_MAT4: glUniformMatrix4fv(at, 1, GL_FALSE, f); break;
        default: return false;
        }
    }
    return true;
}

}  // namespace

void Shader::resetUniforms() const
{
    glUseProgram(program_);
    GLint count = 0, maxLength = 0;
    glGetProgramiv(program_, GL_ACTIVE_UNIFORMS, &count);
    glGetProgramiv(program_, GL_ACTIVE_UNIFORM_MAX_LENGTH, &maxLength);
    std::vector<char> name(size_t(std::max(maxLength, 1)), '\0');
    for (GLint index = 0; index < count; ++index) {
        GLint size = 0;
        GLenum type = 0;
        glGetActiveUniform(program_, GLuint(index), GLsizei(name.size()), nullptr, &size, &type, name.data());
        const GLint loc = glGetUniformLocation(program_, name.data());
        if (loc != -1)  // -1: a member of a uniform block or a built-in
            zeroUniform(loc, type, size);
    }
    setSamplerUnits(program_);
    GL_CHECK();
}

namespace {

struct ShaderCache {
    std::map<std::string, std::unique_ptr<Shader>> programs;
};

ShaderCache& shaderCache()
{
    // Never destroyed: deleting programs at exit, after the context is gone,
    // is not safe. ContextSession empties it while its context is current.
    static ShaderCache* cache = new ShaderCache;
    return *cache;
}

}  // namespace

const Shader& sharedShader(const std::string& name, const std::string& defines)
{
    // The version line and the array mode change the source the driver sees.
    std::string key = name;
    key += '\0';
    key += defines;
    key += '\0';
    key += shaderVersionLine();
    key += std::getenv("USE_ARRAY_TEXTURE") ? "array" : "";
    auto& programs = shaderCache().programs;
    const auto found = programs.find(key);
    if (found == programs.end()) {
        auto built = std::make_unique<Shader>(name, defines);
        return *programs.emplace(std::move(key), std::move(built)).first->second;
    }
    const Shader& shader = *found->second;
    std::fputs(shader.buildLog().c_str(), stderr);
    shader.resetUniforms();
    return shader;
}

void releaseSharedShaders() { shaderCache().programs.clear(); }

size_t sharedShaderCount() { return shaderCache().programs.size(); }

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
    const std::string vertexPath = besideExecutable(name_ + ".vert");
    const std::string fragmentPath = besideExecutable(name_ + ".frag");
    const bool haveVertexFile = fileSize(vertexPath) > 0;
    GL_CHECK();
    program_ = glCreateProgram();
    if (glVersionNumber() >= 33 || haveVertexFile) {
        vertex_ = glCreateShader(GL_VERTEX_SHADER);
        glAttachShader(program_, vertex_);
        if (!haveVertexFile) {
            glShaderSource(vertex_, 1, &kDefaultVertexShader, nullptr);
            glCompileShader(vertex_);
            buildLog_ += checkShaderLog(vertex_, "default.vert");
        }
    }
    // Below GL 3.3 without a vertex file the program has no vertex shader: the
    // legacy quad feeds the fragment shader through the fixed-function pipeline.
    fragment_ = glCreateShader(GL_FRAGMENT_SHADER);
    glAttachShader(program_, fragment_);
    glUseProgram(0);
    if (haveVertexFile)
        buildLog_ += compileShader(vertex_, vertexPath, defines_);
    buildLog_ += compileShader(fragment_, fragmentPath, defines_);
    glLinkProgram(program_);
    // Compile and link status are not queried: a broken program is reported here
    // and fails at the first GL error check that uses it.
    buildLog_ += checkShaderLog(program_, name_);
    glUseProgram(program_);
    setSamplerUnits(program_);
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
    buildLog_ = std::move(other.buildLog_);
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
