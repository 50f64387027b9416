#include "image/Ppm.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

Image readPpm(FILE* in, const std::function<void(int width, int height)>& checkSize)
{
    // The header is three short lines; 16-byte reads are plenty for them.
    std::string header;
    for (int line = 0; line < 3; ++line) {
        char buffer[16] = {0};
        if (!std::fgets(buffer, sizeof buffer, in))
            break;
        header += buffer;
    }
    int width = 0, height = 0, maxValue = 0;
    if (std::sscanf(header.c_str(), "P6\n%d %d\n%d", &width, &height, &maxValue) < 3)
        throw std::runtime_error("Failed to parse PNM file header.");
    if (maxValue != 255)
        throw std::runtime_error("PNM file has wrong max value: " + std::to_string(maxValue));
    if (width <= 0 || height <= 0)
        throw std::runtime_error("Failed to parse PNM file header.");
    checkSize(width, height);
    if (uint64_t(width) * uint64_t(height) * 3 > kMaxImageBytes)
        throw std::runtime_error("Failed to parse PNM file header.");

    // Read in doubling pieces: memory follows the data, not the header.
    const size_t expected = size_t(width) * size_t(height) * 3;
    std::vector<uint8_t> data;
    size_t got = 0;
    while (got < expected) {
        data.resize(std::min(expected, std::max<size_t>(size_t(1) << 20, 2 * data.size())));
        const size_t n = std::fread(data.data() + got, 1, data.size() - got, in);
        got += n;
        if (got < data.size())
            break;
    }
    if (got < expected)
        throw std::runtime_error("Failed to read PNM file data: " + std::to_string(got) + " != " +
                                 std::to_string(expected) + " -> " + std::to_string(std::feof(in) ? 1 : 0));
    Image rgb(width, height, 3);
    std::memcpy(rgb.data(), data.data(), expected);
    return rgb;
}
