#include "answer.h"

void answer::add_bytes(const void *bytes, std::size_t count)
{
    const auto *first = static_cast<const std::uint8_t *>(bytes);
    payload_.insert(payload_.end(), first, first + count);
}
