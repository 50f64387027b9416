#include "image/OptionHash.h"

uint32_t optionHash(const std::string& text)
{
    return optionHashConst(text.data(), uint32_t(text.size()));
}
