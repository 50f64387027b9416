#pragma once
// A GL program built from "<name>.vert" (optional) and "<name>.frag" beside
// the executable. Each source is prefixed with the version line, the caller's
// define lines and, for fragment shaders, the whole of "stdlib.frag".
// Move-only owner of its GL names; the program is left current after building.
#include <GL/glew.h>

#include <string>

#include "libglutil/ShaderCache.h"

class Shader {
public:
    Shader(std::string name, std::string defines);
    ~Shader();
    Shader(const Shader&) = delete;
    Shader& operator=(const Shader&) = delete;
    Shader(Shader&& other) noexcept;
    Shader& operator=(Shader&& other) noexcept;

    GLuint program() const { return program_; }
    void use() const;

    // glGetUniformLocation with a warning "No such uniform named '%s'" on
    // standard error when absent (-1 is returned and setting it is a no-op).
    GLint uniformLocation(const char* name) const;

    // Setters on the current program (use() first), looked up by name.
    void setUniform(const char* name, int v) const;
    void setUniform(const char* name, float v) const;
    void setUniform(const char* name, float x, float y) const;
    void setUniform(const char* name, float x, float y, float z) const;
    void setUniform(const char* name, float x, float y, float z, float w) const;
    void setUniform2i(const char* name, int x, int y) const;  // ivec2
    void setMatrix3(const char* name, const float* columnMajor9) const;

    // What building printed on standard error (shader and link logs); empty
    // for a clean build.
    const std::string& buildLog() const { return buildLog_; }

    // Sets every active uniform back to zero and the samplers "texUnit0" to
    // "texUnit5" to their units: the state of a freshly linked program. Leaves
    // the program current.
    void resetUniforms() const;

private:
    void build();
    void destroy() noexcept;
    GLuint program_ = 0;
    GLuint vertex_ = 0;
    GLuint fragment_ = 0;
    std::string name_;
    std::string defines_;
    std::string buildLog_;
};

// A program from the process-wide cache, keyed by pass name, defines, version
// line and array-texture mode: built on the first request, afterwards handed
// out again in the state of a fresh build (uniforms reset, program current, the
// build's log printed again), so a caller cannot tell a reused program from a
// new one. Valid until releaseSharedShaders().
const Shader& sharedShader(const std::string& name, const std::string& defines);

// "#version 330\n", "#version 130\n" or "#version 120\n" by the GL version number.
const std::string& shaderVersionLine();

// Prints "Errors in shader '<displayName>':\n<log>\n" on standard error when the
// shader's or program's info log is non-empty and not a driver success note;
// returns what it printed.
std::string checkShaderLog(GLuint object, const std::string& displayName);

// True for the driver success notes that are not worth printing.
bool isHarmlessShaderLog(const std::string& log);
