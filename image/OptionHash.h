#pragma once
#include <cstdint>
#include <string>

// 32-bit string hash used to dispatch command-line options and image file
// extensions: h = 5381, then from the last character to the first
// h = h * 33 xor c, with c a signed byte widened to 32 bits.
uint32_t optionHash(const std::string& text);

constexpr uint32_t optionHashConst(const char* s, uint32_t len)
{
    uint32_t h = 5381;
    for (uint32_t i = len; i > 0; --i)
        h = (h * 33u) ^ static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(s[i - 1])));
    return h;
}

constexpr uint32_t operator""_oh(const char* s, size_t len) { return optionHashConst(s, uint32_t(len)); }
