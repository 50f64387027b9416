#pragma once
// GL failure reporting shared by the whole GPU layer.
#include <functional>
#include <stdexcept>
#include <string>

// Exception type of every GL failure; carries only the message.
class opengl_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Drains glGetError into "glError(s) @ <file name>:<line> : <name> (0x....), ...\n";
// empty when no error was pending. Stops after 999 characters (a lost context
// reports errors forever).
std::string glErrorReport(const char* sourceFile, int line);

// The same report with the errors taken from `nextError` (0 = none left)
// instead of glGetError: lets the list format be checked with several pending
// errors, which some drivers never queue.
std::string glErrorReportFrom(const char* sourceFile, int line, const std::function<unsigned()>& nextError);

// Throws opengl_error carrying `report` when it is not empty.
void throwIfNotEmpty(const std::string& report);

// The usual check after a group of GL calls, labelled with where it ran.
#define GL_CHECK() throwIfNotEmpty(glErrorReport(__FILE__, __LINE__))
