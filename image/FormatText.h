#pragma once
// printf-style formatting into a std::string, for exception texts that quote
// paths and file content of any length.
#include <cstdarg>
#include <cstdio>
#include <string>

#if defined(__GNUC__)
__attribute__((format(printf, 1, 2)))
#endif
inline std::string formatText(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    va_list again;
    va_copy(again, args);
    const int n = std::vsnprintf(nullptr, 0, fmt, args);
    va_end(args);
    std::string text(n > 0 ? size_t(n) : 0, '\0');
    if (n > 0)
        std::vsnprintf(&text[0], size_t(n) + 1, fmt, again);
    va_end(again);
    return text;
}
