#include "tools/batch/Report.h"

#include "image/FormatText.h"

std::string jsonString(const std::string& text)
{
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20)
                out += formatText("\\u%04x", c);
            else
                out += char(c);
        }
    }
    return out + "\"";
}

std::string reportLine(const LineResult& r)
{
    std::string out = formatText("{\"line\":%d,\"input\":", r.line) + jsonString(r.input) +
                      ",\"status\":" + jsonString(r.status) + ",\"error\":" + jsonString(r.error) + ",\"outputs\":[";
    for (size_t i = 0; i < r.outputs.size(); ++i)
        out += (i ? ",{\"path\":" : "{\"path\":") + jsonString(r.outputs[i].path) +
               formatText(",\"bytes\":%llu}", static_cast<unsigned long long>(r.outputs[i].bytes));
    out += formatText("],\"seconds\":%.3f,\"stages\":[", r.seconds);
    for (size_t i = 0; i < r.stages.size(); ++i)
        out += (i ? ",{\"stage\":" : "{\"stage\":") + jsonString(r.stages[i].first) +
               formatText(",\"seconds\":%.3f}", r.stages[i].second);
    return out + formatText("],\"peak_rss_mb\":%.1f}", r.peakMemoryMB);
}
