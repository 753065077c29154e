// Text fields of fixed size, as they stand in messages: zero-padded, not terminated when the text fills them.
#pragma once

#include <cstddef>
#include <cstring>

// Fills the field with at most limit characters of a text that ends at a NUL or after limit characters.
template<std::size_t SIZE>
void store_text(char (&field)[SIZE], const char *text, std::size_t limit = SIZE)
{
    std::memset(field, 0, SIZE);
    std::memcpy(field, text, ::strnlen(text, limit));
}

// A field's text with a terminator behind it.
template<std::size_t SIZE>
struct field_text {
    char text[SIZE + 1];

    explicit field_text(const char (&field)[SIZE])
    {
        std::memcpy(text, field, SIZE);
        text[SIZE] = '\0';
    }
};
