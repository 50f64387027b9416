#include "project/PtsImport.h"

#include <fstream>
#include <regex>
#include <stdexcept>
#include <vector>

#include "image/FormatText.h"

namespace {

// Lines longer than this are never handed to the regular-expression engine:
// libstdc++ matches ".*" recursively, one stack frame per character, and a
// line of some tens of kilobytes overflows the stack. Real script lines are
// well under a kilobyte; file names are bounded by PATH_MAX.
constexpr size_t kMaxLine = 4096;

// A number: optional sign or link marker, digits, optional fraction, optional
// exponent. Written so that every string it matches has a single parse: the
// looser "\\d+\\.?\\d*e?-?\\d*" lets a run of digits split between three
// groups in quadratically many ways, and the backtracking engine tries them
// all (times the other numbers of the line) before giving up on a line that
// does not match, which took minutes for a few thousand digits. Same language.
#define NUM "([-=]?\\d+(?:\\.\\d*)?(?:e-?\\d*|-\\d*)?)"

// Each pattern with the literal text every match must begin with. A line not
// starting with a pattern's prefix cannot match it, so testing the prefix
// first only saves time (scripts carry thousands of "#-" option lines).
struct Pattern {
    const char* prefix;
    const char* expression;
};

enum Kind { kVignetting, kLink, kImageFile, kExposure, kImage, kControlPoint, kOrientation, kKinds };

const Pattern kPatterns[kKinds] = {
    {"#-libpano_vignettingparams Va",
     "^#-libpano_vignettingparams Va" NUM " *Vb" NUM " *Vc" NUM " *Vd" NUM " *.*"},
    {"o w1 h1 y",
     "^o w1 h1 y" NUM " *r" NUM " *p" NUM " *v" NUM " *a" NUM " *b" NUM " *c" NUM " *f\\d d" NUM
     " *e" NUM " *.*"},
    {"#-imgfile ", "^#-imgfile (\\d+) (\\d+) \"(.*)\".*"},
    {"#-exposureparams 0 0 0 ", "^#-exposureparams 0 0 0 (-?\\d+\\.?\\d*).*"},
    {"o f",
     "^o f\\d y" NUM " *r" NUM " *p" NUM " *v" NUM " *a" NUM " *b" NUM " *c" NUM " *d" NUM " *e" NUM
     " *.*"},
    {"c n", "^c n(\\d{1,2}) N(\\d{1,2}) x" NUM " *y" NUM " *X" NUM " *Y" NUM " *t0.*"},
    {"#orientation_abs_slot1 y", "^#orientation_abs_slot1 y" NUM " *r" NUM " *p" NUM " *t" NUM " *?.*"},
};

#undef NUM

bool startsWith(const std::string& s, const char* prefix)
{
    return s.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

// One line, of which at most kMaxLine + 1 characters are kept (room for a
// CR); the rest of a longer line is consumed and dropped, and `truncated`
// says so. False at the end of input.
bool readLine(std::streambuf& in, std::string& line, bool& truncated)
{
    line.clear();
    truncated = false;
    int ch = in.sbumpc();
    if (ch == std::char_traits<char>::eof()) return false;
    while (ch != std::char_traits<char>::eof() && ch != '\n') {
        if (line.size() <= kMaxLine)
            line.push_back(char(ch));
        else
            truncated = true;
        ch = in.sbumpc();
    }
    return true;
}

}  // namespace

Project importPtsScript(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error(formatText("Error opening project '%s'", path.c_str()));

    // Compiled once per process; matching does not modify them.
    static const std::vector<std::regex> regexes = [] {
        std::vector<std::regex> r;
        for (int k = 0; k < kKinds; ++k)
            r.emplace_back(kPatterns[k].expression, std::regex::ECMAScript);
        return r;
    }();

    Project project;
    ImageEntry current;    // never reset: an image inherits what its lines don't set
    ImageEntry linkEntry;  // the "o w1 h1" line's values, target of "=0" links
    std::string line;
    std::smatch m;
    bool truncated = false;
    long lineNumber = 0;

    auto where = [&]() {
        return "line " + std::to_string(lineNumber) + " of project '" + path + "'";
    };

    while (readLine(*in.rdbuf(), line, truncated)) {
        ++lineNumber;
        // Scripts written on Windows end their lines in CR LF. The patterns'
        // final ".*" does not match a CR, so a CR LF script would import
        // nothing; strip it and read both kinds alike.
        if (!line.empty() && line.back() == '\r') line.pop_back();

        int kind = 0;
        while (kind < kKinds && !startsWith(line, kPatterns[kind].prefix))
            ++kind;
        if (kind == kKinds) continue;
        if (truncated || line.size() > kMaxLine)
            throw std::runtime_error(where() + " is longer than " + std::to_string(kMaxLine) +
                                     " characters");

        for (; kind < kKinds; ++kind)
            if (startsWith(line, kPatterns[kind].prefix) && std::regex_match(line, m, regexes[kind]))
                break;

        switch (kind) {
        case kVignetting:
            current.va = std::stof(m[1]);
            current.vb = std::stof(m[2]);
            current.vc = std::stof(m[3]);
            current.vd = std::stof(m[4]);
            break;
        case kLink:
            for (int i = 1; i <= 9; ++i)
                linkEntry.linkField(i) = std::stof(m[i]);
            break;
        case kImageFile:
            current.width = std::stoi(m[1]);
            current.height = std::stoi(m[2]);
            current.fileName = m[3];
            break;
        case kExposure:
            current.exposure = std::stof(m[1]);
            break;
        case kImage:
            for (int i = 1; i <= 9; ++i) {
                const std::string text = m[i];
                if (text[0] != '=') {
                    current.linkField(i) = std::stof(text);
                } else if (text[1] == '0') {
                    // Only the character after '=' decides: "=0", "=00" and
                    // "=012" all mean the link line.
                    current.linkField(i) = linkEntry.linkField(i);
                } else {
                    const unsigned long k = std::stoul(text.substr(1));
                    if (k >= project.images.size())
                        throw std::runtime_error(where() + " links to image " + std::to_string(k) +
                                                 " but only " + std::to_string(project.images.size()) +
                                                 " images precede it: " + line);
                    current.linkField(i) = project.images[k].linkField(i);
                }
            }
            project.images.push_back(current);
            break;
        case kControlPoint:
            // image1, image2 (counted from 1 in the script), x, y, x2, y2
            project.controlPoints.push_back({std::stoi(m[1]) - 1, std::stoi(m[2]) - 1, std::stof(m[3]),
                                             std::stof(m[4]), std::stof(m[5]), std::stof(m[6])});
            break;
        case kOrientation: {
            ImageEntry orientation;
            orientation.fileName = kOrientationName;
            orientation.yaw = std::stof(m[1]);
            orientation.roll = std::stof(m[2]);
            orientation.pitch = std::stof(m[3]);
            orientation.fov = std::stof(m[4]);
            project.images.push_back(orientation);
            break;
        }
        default:
            break;  // matches none: ignored like any other line
        }
    }

    if (project.images.empty()) throw std::runtime_error(formatText("failed to parse project '%s'", path.c_str()));
    return project;
}
