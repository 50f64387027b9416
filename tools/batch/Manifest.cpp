#include "tools/batch/Manifest.h"

#include <fstream>

#include "image/FormatText.h"

std::vector<std::string> splitArguments(const std::string& line)
{
    std::vector<std::string> args;
    std::string word;
    bool inWord = false;  // also true for a word that is so far only an empty quote
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == ' ' || c == '\t') {
            if (inWord)
                args.push_back(word);
            word.clear();
            inWord = false;
            continue;
        }
        inWord = true;
        if (c == '\\') {
            if (++i == line.size())
                throw ManifestLineError("backslash at the end of the line");
            word += line[i];
        } else if (c == '\'') {
            const size_t end = line.find('\'', i + 1);
            if (end == std::string::npos)
                throw ManifestLineError("unterminated single quote");
            word.append(line, i + 1, end - i - 1);
            i = end;
        } else if (c == '"') {
            for (++i;; ++i) {
                if (i >= line.size())
                    throw ManifestLineError("unterminated double quote");
                if (line[i] == '"')
                    break;
                if (line[i] == '\\' && i + 1 < line.size() && std::string("$`\"\\").find(line[i + 1]) != std::string::npos)
                    ++i;
                word += line[i];
            }
        } else {
            word += c;
        }
    }
    if (inWord)
        args.push_back(word);
    return args;
}

std::vector<ManifestLine> readManifest(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error(formatText("Error opening file '%s'", path.c_str()));
    std::vector<ManifestLine> lines;
    std::string text;
    for (int number = 1; std::getline(in, text); ++number) {
        if (!text.empty() && text.back() == '\r')
            text.pop_back();
        const size_t first = text.find_first_not_of(" \t");
        if (first == std::string::npos || text[first] == '#')
            continue;
        ManifestLine line;
        line.number = number;
        line.text = text;
        try {
            line.args = splitArguments(text);
        } catch (const ManifestLineError& e) {
            line.splitError = e.what();
        }
        lines.push_back(std::move(line));
    }
    if (in.bad())
        throw std::runtime_error(formatText("Error reading file '%s'", path.c_str()));
    return lines;
}
