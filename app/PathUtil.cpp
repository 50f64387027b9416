#include "app/PathUtil.h"

#include <cctype>
#include <filesystem>

bool hasExtensionIn(const std::string& path, const std::string& list)
{
    std::string ext = std::filesystem::path(path).extension().string();
    if (!ext.empty() && ext[0] == '.')
        ext.erase(0, 1);
    for (char& c : ext)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return !ext.empty() && list.find(ext) != std::string::npos;
}

bool endsWithSeparator(const std::string& path)
{
    return !path.empty() && (path.back() == '/' || path.back() == '\\');
}
