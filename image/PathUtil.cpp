#include "image/PathUtil.h"

#include <cctype>
#include <filesystem>

namespace {
std::string lowerCase(std::string text)
{
    for (char& c : text)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return text;
}
}  // namespace

std::string lowerExtension(const std::string& path)
{
    std::string ext = std::filesystem::path(path).extension().string();
    if (!ext.empty() && ext[0] == '.')
        ext.erase(0, 1);
    return lowerCase(ext);
}

std::string lowerTextAfterLastDot(const std::string& path)
{
    const size_t dot = path.rfind('.');
    return dot == std::string::npos ? std::string() : lowerCase(path.substr(dot + 1));
}

bool hasExtensionIn(const std::string& path, const std::string& list)
{
    const std::string ext = lowerExtension(path);
    return !ext.empty() && list.find(ext) != std::string::npos;
}

bool endsWithSeparator(const std::string& path)
{
    return !path.empty() && (path.back() == '/' || path.back() == '\\');
}
