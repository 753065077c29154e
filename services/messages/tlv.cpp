// The iterator over type-length-value arrays (platform/tlv.h).
//
// The cursor is the offset of the next record from the array's start, less the count's four bytes, so that it is 0
// at the start. How many records lie before it is remembered with the answer, or counted again when another array
// was walked in between.
#include "tlv.h"

#include <algorithm>
#include <array>

#include "big_endian.h"
#include "known_answers.h"

namespace
{

constexpr std::size_t KNOWN_ANSWERS = 8;

struct known_answer {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
};

// Where the last walk stopped.
struct walk {
    const void *array = nullptr;
    std::uint32_t cursor = 0;
    std::uint32_t records = 0;
};

struct record_header {
    be16 type;
    be16 length;
};
static_assert(sizeof(record_header) == 4);

std::array<known_answer, KNOWN_ANSWERS> answers;
std::size_t next_answer = 0;
walk last_walk;

// Bytes from an address to the end of the answer it lies in; 0 when it lies in none.
std::uintptr_t bytes_from(std::uintptr_t address)
{
    for (const known_answer &answer : answers) {
        if (address >= answer.begin && address < answer.end)
            return answer.end - address;
    }
    return 0;
}

// Bytes of the record that begins at an offset behind the count; 0 when it does not lie within size.
std::uintptr_t record_bytes(const std::uint8_t *records, std::uintptr_t size, std::uint32_t offset)
{
    if (offset > size || size - offset < sizeof(record_header))
        return 0;
    const auto *header = reinterpret_cast<const record_header *>(records + offset);
    const std::uintptr_t length = header->length.load();
    if (size - offset - sizeof(record_header) < length)
        return 0;
    const std::uintptr_t padded = sizeof(record_header) + (length + 3) / 4 * 4;
    return std::min(padded, size - offset); // the last record's padding may be missing
}

// Number of records before the cursor. false when no record begins there.
bool count_before(const std::uint8_t *records, std::uintptr_t size, std::uint32_t cursor, std::uint32_t &count)
{
    count = 0;
    std::uint32_t offset = 0;
    while (offset < cursor) {
        const std::uintptr_t bytes = record_bytes(records, size, offset);
        if (bytes == 0)
            return false;
        offset += static_cast<std::uint32_t>(bytes);
        ++count;
    }
    return offset == cursor;
}

} // namespace

void known_answer_add(const void *base, std::uint32_t bytes, std::uint32_t block_bytes)
{
    const auto begin = reinterpret_cast<std::uintptr_t>(base);
    for (known_answer &answer : answers) {
        if (answer.begin < begin + block_bytes && begin < answer.end)
            answer = {}; // it was freed, otherwise this one could not lie there
    }
    answers[next_answer] = {begin, begin + bytes};
    next_answer = (next_answer + 1) % KNOWN_ANSWERS;
    last_walk = {};
}

int32_t tlv_aligned_array_get_next_tlv(const void *array, uint16_t *type_out, uint16_t *length_out,
                                       const void **value_out, uint32_t alignment, uint32_t *cursor)
{
    if (array == nullptr || type_out == nullptr || length_out == nullptr || value_out == nullptr ||
        cursor == nullptr || alignment != 1)
        return -1;
    const std::uintptr_t available = bytes_from(reinterpret_cast<std::uintptr_t>(array));
    if (available < sizeof(be32))
        return -1;
    const auto *records = static_cast<const std::uint8_t *>(array) + sizeof(be32);
    const std::uintptr_t size = available - sizeof(be32);

    std::uint32_t before = 0;
    if (last_walk.array == array && last_walk.cursor == *cursor)
        before = last_walk.records;
    else if (!count_before(records, size, *cursor, before))
        return -1;
    if (before >= static_cast<const be32 *>(array)->load())
        return -1;
    const std::uintptr_t bytes = record_bytes(records, size, *cursor);
    if (bytes == 0)
        return -1;

    const auto *header = reinterpret_cast<const record_header *>(records + *cursor);
    *type_out = header->type.load();
    *length_out = header->length.load();
    *value_out = records + *cursor + sizeof(record_header);
    *cursor += static_cast<std::uint32_t>(bytes);
    last_walk = {array, *cursor, before + 1};
    return 0;
}
