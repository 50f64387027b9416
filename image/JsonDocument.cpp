#include "image/JsonDocument.h"

#include <fstream>
#include <iterator>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

void checkJsonNesting(const std::string& text, const std::string& fileName)
{
    int depth = 0;
    unsigned long line = 1;
    bool inString = false, escaped = false;
    for (const char c : text) {
        if (c == '\n')
            ++line;
        if (inString) {
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (c == '"')
                inString = false;
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxJsonNesting)
                throw boost::property_tree::json_parser_error(
                    "nesting deeper than " + std::to_string(kMaxJsonNesting) + " levels", fileName, line);
        } else if (c == ']' || c == '}') {
            // Unbalanced closers are the parser's to report.
            if (depth > 0)
                --depth;
        }
    }
}

void readJsonDocument(const std::string& path, boost::property_tree::ptree& doc)
{
    std::ifstream in(path, std::ios::binary);
    if (in) {
        const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        checkJsonNesting(text, path);
    }
    boost::property_tree::read_json(path, doc);
}
