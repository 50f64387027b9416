#include "image/Radiance.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "image/ExponentStats.h"
#include "image/FormatText.h"
#include "image/OutputFile.h"

namespace {

// Header lines of real files are short; a longer one is kept up to this many
// characters and the rest of it skipped, so a file without newlines cannot
// make the reader buffer all of it.
constexpr size_t kMaxHeaderLine = 64 * 1024;

constexpr size_t kReadBufferSize = 1 << 20;
// Before each scanline the buffer is topped up when less than 4 bytes a pixel
// plus this much is left in it, which holds any sensibly encoded scanline.
// The decoder still checks every packet against the end of the buffered
// data, so a hostile scanline fails instead of reading past it.
constexpr size_t kRefillSlack = 1040;

bool readLine(std::istream& in, std::string& line)
{
    line.clear();
    std::streambuf* sb = in.rdbuf();
    for (;;) {
        const int c = sb->sbumpc();
        if (c == std::char_traits<char>::eof()) {
            if (line.empty())
                in.setstate(std::ios::eofbit | std::ios::failbit);
            else
                in.setstate(std::ios::eofbit);
            return !line.empty();
        }
        if (c == '\n')
            return true;
        if (line.size() < kMaxHeaderLine)
            line.push_back(char(c));
    }
}

std::string trimmed(const std::string& s)
{
    size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b])))
        ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1])))
        --e;
    return s.substr(b, e - b);
}

bool startsWith(const std::string& s, const char* prefix)
{
    return s.compare(0, std::strlen(prefix), prefix) == 0;
}

// Reads a run of decimal digits at `pos`; false when there is none. Values
// that do not fit the program's image sizes saturate at a value that the size
// checks reject.
bool parseDigits(const std::string& s, size_t& pos, int64_t& value)
{
    const size_t start = pos;
    value = 0;
    while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9') {
        value = std::min<int64_t>(value * 10 + (s[pos] - '0'), int64_t(1) << 40);
        ++pos;
    }
    return pos > start;
}

// Matches the whole line against "^-Y (\d+) \+X (\d+).*" with ECMAScript
// semantics, where '.' matches anything but a line terminator: a size line
// with a trailing carriage return does not match. Parsed by hand because
// std::regex recurses per character and a hostile line is long.
bool parseSizeLine(const std::string& line, int64_t& height, int64_t& width)
{
    size_t pos = 0;
    if (!startsWith(line, "-Y "))
        return false;
    pos = 3;
    if (!parseDigits(line, pos, height))
        return false;
    if (line.compare(pos, 4, " +X ") != 0)
        return false;
    pos += 4;
    if (!parseDigits(line, pos, width))
        return false;
    return line.find_first_of("\r\n", pos) == std::string::npos;
}

[[noreturn]] void throwBadScanline(int32_t y, const std::string& path)
{
    throw std::runtime_error(formatText("Bad scanline data in line %d in RADIANCE file '%s'", y, path.c_str()));
}

// Decodes the four run-length planes of one scanline from [p, end) into
// `planes` (4 x width bytes, R plane first). Every packet is bounded by what
// is left of the plane and of the buffered data. Returns the position after
// the scanline.
const uint8_t* decodeScanline(const uint8_t* p, const uint8_t* end, uint8_t* planes, int32_t width, int32_t y,
                              const std::string& path)
{
    for (int c = 0; c < 4; ++c) {
        uint8_t* out = planes + size_t(c) * size_t(width);
        int32_t x = 0;
        while (x < width) {
            if (p >= end)
                throwBadScanline(y, path);
            int32_t count = *p++;
            if (count > 128) {
                count -= 128;
                if (count > width - x || p >= end)
                    throwBadScanline(y, path);
                std::memset(out + x, *p++, size_t(count));
            } else {
                if (count == 0 || count > width - x || end - p < count)
                    throwBadScanline(y, path);
                std::memcpy(out + x, p, size_t(count));
                p += count;
            }
            x += count;
        }
    }
    return p;
}

// Interleaves four planes of `width` bytes into RGBE pixels.
void interleavePlanes(const uint8_t* planes, int32_t width, uint8_t* row)
{
    const uint8_t* r = planes;
    const uint8_t* g = r + width;
    const uint8_t* b = g + width;
    const uint8_t* e = b + width;
    int32_t x = 0;
#if defined(__SSE2__)
    for (; x + 16 <= width; x += 16) {
        const __m128i vr = _mm_loadu_si128(reinterpret_cast<const __m128i*>(r + x));
        const __m128i vg = _mm_loadu_si128(reinterpret_cast<const __m128i*>(g + x));
        const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + x));
        const __m128i ve = _mm_loadu_si128(reinterpret_cast<const __m128i*>(e + x));
        const __m128i rgLo = _mm_unpacklo_epi8(vr, vg), rgHi = _mm_unpackhi_epi8(vr, vg);
        const __m128i beLo = _mm_unpacklo_epi8(vb, ve), beHi = _mm_unpackhi_epi8(vb, ve);
        __m128i* out = reinterpret_cast<__m128i*>(row + 4 * size_t(x));
        _mm_storeu_si128(out + 0, _mm_unpacklo_epi16(rgLo, beLo));
        _mm_storeu_si128(out + 1, _mm_unpackhi_epi16(rgLo, beLo));
        _mm_storeu_si128(out + 2, _mm_unpacklo_epi16(rgHi, beHi));
        _mm_storeu_si128(out + 3, _mm_unpackhi_epi16(rgHi, beHi));
    }
#endif
    for (; x < width; ++x) {
        uint8_t* p = row + 4 * size_t(x);
        p[0] = r[x];
        p[1] = g[x];
        p[2] = b[x];
        p[3] = e[x];
    }
}

void readRunLengthPixels(std::istream& in, const MutableImageView& image, const std::string& path)
{
    const int32_t width = image.width();
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[kReadBufferSize]());
    uint8_t* const buf = buffer.get();
    const size_t margin = size_t(width) * 4 + kRefillSlack;
    std::vector<uint8_t> planes(4 * size_t(width));
    size_t pos = 0, end = 0;
    for (int32_t y = 0; y < image.height(); ++y) {
        if (end - pos < margin) {
            std::memmove(buf, buf + pos, end - pos);
            end -= pos;
            pos = 0;
            if (in) {
                in.read(reinterpret_cast<char*>(buf + end), std::streamsize(kReadBufferSize - end));
                end += size_t(in.gcount());
            }
        }
        // A file that ends early shows as zero header bytes, which fail below.
        uint8_t h[4] = {0, 0, 0, 0};
        std::memcpy(h, buf + pos, std::min<size_t>(4, end - pos));
        if (h[0] != 2 || h[1] != 2 || ((h[2] << 8) | h[3]) != width)
            throw std::runtime_error(formatText("Failed to parse rle line header %d of RADIANCE file '%s': %d %d %d %d",
                                                y, path.c_str(), h[0], h[1], h[2], h[3]));
        const uint8_t* next = decodeScanline(buf + pos + 4, buf + end, planes.data(), width, y, path);
        interleavePlanes(planes.data(), width, image.row(y));
        pos = size_t(next - buf);
    }
}

// First j in [from, w - 3] where four equal bytes start, or w. Because every
// earlier position fails the test, j is also where a run of equal bytes
// begins (or j == from).
int32_t findRunOfFour(const uint8_t* d, int32_t from, int32_t w)
{
    int32_t j = from;
#if defined(__SSE2__)
    for (; j + 19 <= w; j += 16) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d + j));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d + j + 1));
        const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d + j + 2));
        const __m128i e = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d + j + 3));
        const __m128i same =
            _mm_and_si128(_mm_and_si128(_mm_cmpeq_epi8(a, b), _mm_cmpeq_epi8(b, c)), _mm_cmpeq_epi8(c, e));
        const int mask = _mm_movemask_epi8(same);
        if (mask)
            return j + __builtin_ctz(unsigned(mask));
    }
#endif
    for (; j + 3 < w; ++j)
        if (d[j] == d[j + 1] && d[j] == d[j + 2] && d[j] == d[j + 3])
            return j;
    return w;
}

// Emits one channel plane of a scanline as packets. Walking from the current
// position over runs of equal bytes (each at most 127 long), the first run of
// 4 or more goes out as a run packet (128 + length, value). The bytes before
// it go out as literal packets of at most 128 bytes (count, bytes), unless
// they form a single shorter run, which is sent as a run packet too, even a
// lone byte (129, value). The search for the first run of 4 equal bytes finds
// the same position as that walk, because all earlier positions are starts of
// shorter runs or inside them.
uint8_t* encodePlane(const uint8_t* d, int32_t w, uint8_t* out)
{
    int32_t cur = 0;
    while (cur < w) {
        const int32_t beg = findRunOfFour(d, cur, w);
        const int32_t pending = beg - cur;
        if (pending > 0 && pending < 4 && d[beg - 1] == d[cur] && d[cur + pending / 2] == d[cur]) {
            *out++ = uint8_t(128 + pending);
            *out++ = d[cur];
            cur = beg;
        }
        while (cur < beg) {
            const int32_t n = std::min<int32_t>(128, beg - cur);
            *out++ = uint8_t(n);
            std::memcpy(out, d + cur, size_t(n));
            out += n;
            cur += n;
        }
        if (beg < w) {
            int32_t run = 4;
            while (beg + run < w && run < 127 && d[beg + run] == d[beg])
                ++run;
            *out++ = uint8_t(128 + run);
            *out++ = d[beg];
            cur = beg + run;
        }
    }
    return out;
}

void writeRunLengthPixels(std::ostream& out, const ImageView& rgbe)
{
    const int32_t w = rgbe.width();
    const int32_t step = rgbe.channels();
    // 16 rows between writes. A plane never encodes to more than
    // w + w / 128 + 3 bytes, so (5w + 4) bytes a row is ample for w >= 8.
    const size_t rowBound = 4 + 4 * (size_t(w) + size_t(w) / 128 + 3);
    std::vector<uint8_t> buffer(std::max<size_t>((5 * size_t(w) + 4), rowBound) * 16);
    std::vector<uint8_t> planes(4 * size_t(w));
    uint8_t* o = buffer.data();
    for (int32_t y = 0; y < rgbe.height() && out; ++y) {
        const uint8_t* p = rgbe.row(y);
        uint8_t* r = planes.data();
        uint8_t* g = r + w;
        uint8_t* b = g + w;
        uint8_t* e = b + w;
        for (int32_t x = 0; x < w; ++x, p += step) {
            r[x] = p[0];
            g[x] = p[1];
            b[x] = p[2];
            e[x] = p[3];
        }
        *o++ = 2;
        *o++ = 2;
        *o++ = uint8_t(w >> 8);
        *o++ = uint8_t(w & 0xFF);
        for (int c = 0; c < 4; ++c)
            o = encodePlane(planes.data() + size_t(c) * w, w, o);
        if ((y & 15) == 15 || y == rgbe.height() - 1) {
            out.write(reinterpret_cast<const char*>(buffer.data()), std::streamsize(o - buffer.data()));
            o = buffer.data();
        }
    }
}

void writeFlatPixels(std::ostream& out, const ImageView& rgbe)
{
    const size_t rowBytes = size_t(rgbe.width()) * 4;
    if (rgbe.channels() == 4 && rgbe.packed()) {
        out.write(reinterpret_cast<const char*>(rgbe.data()), std::streamsize(rowBytes * size_t(rgbe.height())));
        return;
    }
    std::vector<uint8_t> row(rowBytes);
    for (int32_t y = 0; y < rgbe.height() && out; ++y) {
        const uint8_t* p = rgbe.row(y);
        for (int32_t x = 0; x < rgbe.width(); ++x, p += rgbe.channels())
            std::memcpy(&row[4 * size_t(x)], p, 4);
        out.write(reinterpret_cast<const char*>(row.data()), std::streamsize(rowBytes));
    }
}

// What the header of an open .hdr file declares, checked against the bytes
// that follow it; `in` is left at the first pixel byte.
struct RadianceLayout {
    int64_t width = 0, height = 0;
    bool flat = false;
};

RadianceLayout readRadianceHeader(std::ifstream& in, const std::string& path)
{
    if (!in)
        throw std::runtime_error(formatText("Failed to open file '%s': %s", path.c_str(), std::strerror(errno)));

    std::string line;
    readLine(in, line);
    const std::string magic = trimmed(line);
    if (magic != "#?RADIANCE" && magic != "#?RGBE")
        throw std::runtime_error(formatText("Not a RADIANCE file: '%s' (%s)", path.c_str(), line.c_str()));

    bool formatDeclared = false;
    while (readLine(in, line) && !line.empty()) {
        if (line[0] != '#' && startsWith(line, "FORMAT")) {
            if (line != "FORMAT=32-bit_rle_rgbe")
                throw std::runtime_error(
                    formatText("Invalid format of RADIANCE file '%s': '%s'", path.c_str(), line.c_str()));
            formatDeclared = true;
        }
    }

    readLine(in, line);
    int64_t height = 0, width = 0;
    const auto invalidSize = [&] {
        return std::runtime_error(formatText("Invalid size of RADIANCE file '%s': '%s'", path.c_str(), line.c_str()));
    };
    if (!parseSizeLine(line, height, width))
        throw invalidSize();
    if (width < 1 || height < 1 || width > INT32_MAX / 4 || height > INT32_MAX ||
        uint64_t(width) * uint64_t(height) * 4 > kMaxImageBytes)
        throw invalidSize();

    // Bytes left in the file decide the layout and bound what the header may
    // declare, before anything is allocated.
    const std::streampos dataStart = in.tellg();
    in.seekg(0, std::ios::end);
    const std::streampos fileEnd = in.tellg();
    in.seekg(dataStart);
    if (dataStart < 0 || fileEnd < dataStart || !in)
        throw std::runtime_error(formatText("Failed to read file '%s'", path.c_str()));
    const uint64_t bytesLeft = uint64_t(fileEnd - dataStart);
    const uint64_t flatBytes = uint64_t(width) * uint64_t(height) * 4;

    const bool flat = bytesLeft == flatBytes || uint32_t(width - 8) > 65527u || !formatDeclared;
    if (flat) {
        if (bytesLeft < flatBytes)
            throw std::runtime_error(formatText("Failed to read file '%s'", path.c_str()));
    } else {
        // Every packet costs at least 2 bytes and covers at most 128 pixels.
        const uint64_t minScanline = 4 + 4 * 2 * ((uint64_t(width) + 127) / 128);
        if (bytesLeft < minScanline * uint64_t(height))
            throw invalidSize();
    }
    return {width, height, flat};
}

}  // namespace

std::pair<int32_t, int32_t> radianceSize(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    const RadianceLayout layout = readRadianceHeader(in, path);
    return {int32_t(layout.width), int32_t(layout.height)};
}

Image readRadiance(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    const auto [width, height, flat] = readRadianceHeader(in, path);
    const uint64_t flatBytes = uint64_t(width) * uint64_t(height) * 4;
    Image image(int32_t(width), int32_t(height), 4);
    if (flat) {
        in.read(reinterpret_cast<char*>(image.data()), std::streamsize(flatBytes));
        if (!in)
            throw std::runtime_error(formatText("Failed to read file '%s'", path.c_str()));
    } else {
        readRunLengthPixels(in, image.mutableView(), path);
    }
    return image;
}

void writeRadiance(std::ostream& out, const ImageView& rgbe)
{
    out << "#?RADIANCE" << std::endl
        << "FORMAT=32-bit_rle_rgbe" << std::endl
        << std::endl
        << "-Y " << rgbe.height() << " +X " << rgbe.width() << std::endl;
    const ExponentStats stats = exponentStats(rgbe);
    printExponentStats(rgbe.width(), rgbe.height(), stats.maxE, stats.minE, stats.mean());
    if (rgbe.width() >= 8 && rgbe.width() <= 65535)
        writeRunLengthPixels(out, rgbe);
    else
        writeFlatPixels(out, rgbe);
}

void writeRadianceFile(const ImageView& rgbe, const std::string& path)
{
    AtomicOutputFile(path).write([&](std::ofstream& out) { writeRadiance(out, rgbe); });
}
