#include "tools/batch/Report.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

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

ReportFile::ReportFile(const std::string& path, const std::string& name)
    : fd_(::open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644))
{
    if (fd_ < 0)
        throw std::runtime_error("Failed to open file '" + name + "'");
}

ReportFile::~ReportFile() { ::close(fd_); }

bool ReportFile::append(const std::string& line) const
{
    int rc;
    while ((rc = ::flock(fd_, LOCK_EX)) != 0 && errno == EINTR) {
    }
    if (rc != 0)
        return false;
    std::string text = line + "\n";
    struct stat st {};
    char last = '\n';
    if (::fstat(fd_, &st) == 0 && st.st_size > 0 && ::pread(fd_, &last, 1, st.st_size - 1) == 1 && last != '\n')
        text.insert(text.begin(), '\n');
    bool ok = true;
    for (size_t done = 0; ok && done < text.size();) {
        const ssize_t n = ::write(fd_, text.data() + done, text.size() - done);
        if (n > 0)
            done += size_t(n);
        else
            ok = n < 0 && errno == EINTR;
    }
    ::flock(fd_, LOCK_UN);
    return ok;
}
