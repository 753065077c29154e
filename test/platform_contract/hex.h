// Bytes in the lines between a test and its peer.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <string>
#include <string_view>

inline std::string hex_of(std::string_view bytes)
{
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string hex;
    for (const char byte : bytes) {
        const auto code = static_cast<unsigned char>(byte);
        hex += DIGITS[code >> 4];
        hex += DIGITS[code & 0x0f];
    }
    return hex;
}

inline std::string bytes_of_hex(const std::string &hex)
{
    std::string bytes;
    for (std::size_t at = 0; at + 1 < hex.size(); at += 2)
        bytes += static_cast<char>(std::strtoul(hex.substr(at, 2).c_str(), nullptr, 16));
    return bytes;
}
