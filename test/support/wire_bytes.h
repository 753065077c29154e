// Messages' bytes, put together in a test.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

#include "big_endian.h"

namespace wire
{

using bytes = std::vector<std::uint8_t>;

inline bytes words(std::initializer_list<std::uint32_t> values)
{
    bytes all;
    for (const std::uint32_t value : values) {
        const be32 word = be32::of(value);
        all.insert(all.end(), std::begin(word.byte), std::end(word.byte));
    }
    return all;
}

// A text in a field of zeros.
inline bytes text_field(const std::string &text, std::size_t size)
{
    bytes field(text.begin(), text.end());
    field.resize(size);
    return field;
}

inline bytes operator+(bytes first, const bytes &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

} // namespace wire
