#include "project/PtsImport.h"

#include <cctype>
#include <fstream>
#include <functional>
#include <map>
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
     "^o f(\\d) y" NUM " *r" NUM " *p" NUM " *v" NUM " *a" NUM " *b" NUM " *c" NUM " *d" NUM " *e" NUM
     " *.*"},
    {"c n", "^c n(\\d{1,2}) N(\\d{1,2}) x" NUM " *y" NUM " *X" NUM " *Y" NUM " *t0.*"},
    {"#orientation_abs_slot1 y", "^#orientation_abs_slot1 y" NUM " *r" NUM " *p" NUM " *t" NUM " *?.*"},
};

#undef NUM

// The crop rectangle of an image line: C left,right,top,bottom.
const char* const kCropExpression = "(?:^| )C(\\d+),(\\d+),(\\d+),(\\d+)(?: |$)";

CropRect cropOf(const std::string& line)
{
    static const std::regex crop(kCropExpression, std::regex::ECMAScript);
    std::smatch m;
    if (!std::regex_search(line, m, crop)) return {};
    return {std::stoi(m[1]), std::stoi(m[2]), std::stoi(m[3]), std::stoi(m[4])};
}

// An "i" image line: blank-separated fields, each a key of letters and a
// value (a number, or "=k" for the same field of image k of the "i" lines),
// the file name as n"...". Fields this renderer does not use are skipped.
// Unset fields keep the values `entry` holds.
void readImageLine(const std::string& line, const std::vector<ImageEntry>& before, ImageEntry& entry,
                   const std::function<std::string()>& where)
{
    static const std::map<std::string, float ImageEntry::*> floats = {
        {"y", &ImageEntry::yaw},      {"r", &ImageEntry::roll},  {"p", &ImageEntry::pitch}, {"v", &ImageEntry::fov},
        {"a", &ImageEntry::a},        {"b", &ImageEntry::b},     {"c", &ImageEntry::c},     {"d", &ImageEntry::d},
        {"e", &ImageEntry::e},        {"Eev", &ImageEntry::exposure}, {"Va", &ImageEntry::va}, {"Vb", &ImageEntry::vb},
        {"Vc", &ImageEntry::vc},      {"Vd", &ImageEntry::vd}};
    size_t i = 1;
    while (i < line.size()) {
        if (line[i] == ' ') {
            ++i;
            continue;
        }
        if (line.compare(i, 2, "n\"") == 0) {
            const size_t close = line.find('"', i + 2);
            if (close == std::string::npos) throw std::runtime_error(where() + ": file name without closing quote");
            entry.fileName = line.substr(i + 2, close - i - 2);
            i = close + 1;
            continue;
        }
        const size_t end = std::min(line.find(' ', i), line.size());
        const std::string field = line.substr(i, end - i);
        i = end;
        size_t keyEnd = 0;
        while (keyEnd < field.size() && std::isalpha(static_cast<unsigned char>(field[keyEnd])))
            ++keyEnd;
        const std::string key = field.substr(0, keyEnd), value = field.substr(keyEnd);
        if (key == "C") {
            entry.crop = cropOf(field);
            continue;
        }
        const auto member = floats.find(key);
        const bool isInt = key == "w" || key == "h" || key == "f";
        if ((member == floats.end() && !isInt) || value.empty()) continue;
        if (value[0] == '=') {
            const unsigned long k = std::stoul(value.substr(1));
            if (k >= before.size())
                throw std::runtime_error(where() + " links to image " + std::to_string(k) + " but only " +
                                         std::to_string(before.size()) + " images precede it: " + line);
            if (member != floats.end()) entry.*(member->second) = before[k].*(member->second);
            if (key == "f") entry.projection = before[k].projection;
            continue;
        }
        if (key == "w")
            entry.width = std::stoi(value);
        else if (key == "h")
            entry.height = std::stoi(value);
        else if (key == "f")
            entry.projection = projectionOfLensType(std::stoi(value));
        else
            entry.*(member->second) = std::stof(value);
    }
}

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
    Project iLines;        // the images of "i" lines (and the orientation entries)
    ImageEntry iEntry;     // like `current`, for "i" lines
    std::string iLinesError;  // the first "i" line that could not be read
    iEntry.va = 1;         // vignetting starts at none: V = va + ...
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

        if (startsWith(line, "i ")) {
            // A script with "o" image lines never uses its "i" lines, so an
            // error in them only counts when they are the images.
            try {
                if (line.size() > kMaxLine || truncated)
                    throw std::runtime_error(where() + " is longer than " + std::to_string(kMaxLine) + " characters");
                readImageLine(line, iLines.images, iEntry, where);
                iLines.images.push_back(iEntry);
            } catch (const std::exception& e) {
                if (iLinesError.empty()) iLinesError = e.what();
            }
            continue;
        }
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
            current.projection = projectionOfLensType(std::stoi(m[1]));
            current.crop = cropOf(line);
            for (int i = 1; i <= 9; ++i) {
                const std::string text = m[i + 1];
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
        if (kind == kOrientation) iLines.images.push_back(project.images.back());
    }

    // A script that describes its images only by "i" lines takes them, with
    // the orientation entries in the order of their lines.
    if (sourceCount(project) == 0 && (sourceCount(iLines) > 0 || !iLinesError.empty())) {
        if (!iLinesError.empty()) throw std::runtime_error(iLinesError);
        project.images = std::move(iLines.images);
    }
    if (project.images.empty()) throw std::runtime_error(formatText("failed to parse project '%s'", path.c_str()));
    project.layout = rigLayoutOf(project);
    return project;
}
