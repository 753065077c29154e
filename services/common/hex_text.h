// Bytes as hexadecimal digits, two for each.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

inline constexpr std::string_view HEX_DIGITS = "0123456789abcdef";

template<std::size_t SIZE>
std::string hex_text(const std::array<std::uint8_t, SIZE> &bytes)
{
    std::string text;
    text.reserve(2 * SIZE);
    for (const std::uint8_t byte : bytes) {
        text += HEX_DIGITS[byte >> 4];
        text += HEX_DIGITS[byte & 15];
    }
    return text;
}

// What hex_text gives. false for any other text; bytes_out is left as it is then.
template<std::size_t SIZE>
[[nodiscard]] bool parse_hex_text(std::string_view text, std::array<std::uint8_t, SIZE> &bytes_out)
{
    if (text.size() != 2 * SIZE || text.find_first_not_of(HEX_DIGITS) != std::string_view::npos)
        return false;
    for (std::size_t k = 0; k < SIZE; ++k)
        bytes_out[k] =
            static_cast<std::uint8_t>(HEX_DIGITS.find(text[2 * k]) << 4 | HEX_DIGITS.find(text[2 * k + 1]));
    return true;
}
