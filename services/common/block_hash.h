// What MD5 and SHA-256 have in common: they take a message in blocks of 16 words, which change their state, and end
// it with a bit, zeros and its length. The state is the digest then.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

// Rounds is what is a function's own: its state, an array of words; take_block(words), which changes the state; and
// ORDER, that of the bytes in a word of the message, in the length and in a word of the digest.
template<class Rounds>
class block_hash
{
public:
    using digest_type = std::array<std::uint8_t, sizeof Rounds::state>;

    // Bytes in the order of the message; any number of calls.
    void add(const void *bytes, std::size_t count);

    // Of all that was added. The object is used up.
    digest_type digest();

private:
    static constexpr std::size_t BLOCK_BYTES = 64;
    static constexpr std::size_t LENGTH_BYTES = 8;

    // How far the byte of an integer of that many bytes is to be moved.
    static constexpr unsigned shift(std::size_t byte, std::size_t bytes)
    {
        return static_cast<unsigned>(8 * (Rounds::ORDER == std::endian::little ? byte : bytes - 1 - byte));
    }
    void take_block(const std::uint8_t *block);

    Rounds rounds_;
    std::array<std::uint8_t, BLOCK_BYTES> waiting_ = {}; // the beginning of a block
    std::uint64_t length_ = 0;                           // bytes added
};

template<class Rounds>
void block_hash<Rounds>::add(const void *bytes, std::size_t count)
{
    if (count == 0)
        return; // there may be no bytes to point at
    const auto *next = static_cast<const std::uint8_t *>(bytes);
    const auto filled = static_cast<std::size_t>(length_ % BLOCK_BYTES);
    length_ += count;
    if (filled != 0) {
        const std::size_t taken = std::min(count, BLOCK_BYTES - filled);
        std::memcpy(waiting_.data() + filled, next, taken);
        if (filled + taken < BLOCK_BYTES)
            return;
        take_block(waiting_.data());
        next += taken;
        count -= taken;
    }
    for (; count >= BLOCK_BYTES; next += BLOCK_BYTES, count -= BLOCK_BYTES)
        take_block(next);
    if (count != 0)
        std::memcpy(waiting_.data(), next, count);
}

template<class Rounds>
typename block_hash<Rounds>::digest_type block_hash<Rounds>::digest()
{
    const std::uint64_t bits = length_ * 8;
    std::uint8_t end[BLOCK_BYTES + LENGTH_BYTES] = {0x80};
    const auto filled = static_cast<std::size_t>(length_ % BLOCK_BYTES);
    const std::size_t zeros_end =
        filled < BLOCK_BYTES - LENGTH_BYTES ? BLOCK_BYTES - LENGTH_BYTES : 2 * BLOCK_BYTES - LENGTH_BYTES;
    const std::size_t padding = zeros_end - filled;
    for (std::size_t k = 0; k < LENGTH_BYTES; ++k)
        end[padding + k] = static_cast<std::uint8_t>(bits >> shift(k, LENGTH_BYTES));
    add(end, padding + LENGTH_BYTES);

    digest_type digest;
    for (std::size_t k = 0; k < digest.size(); ++k)
        digest[k] = static_cast<std::uint8_t>(rounds_.state[k / 4] >> shift(k % 4, 4));
    return digest;
}

template<class Rounds>
void block_hash<Rounds>::take_block(const std::uint8_t *block)
{
    std::array<std::uint32_t, BLOCK_BYTES / 4> words;
    for (std::uint32_t &word : words) {
        word = std::uint32_t{block[0]} << shift(0, 4) | std::uint32_t{block[1]} << shift(1, 4) |
               std::uint32_t{block[2]} << shift(2, 4) | std::uint32_t{block[3]} << shift(3, 4);
        block += 4;
    }
    rounds_.take_block(words);
}
