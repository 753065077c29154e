// The record of a flash's order, which an agent sends and which lies in a file of the card. A text is read only
// when it is one that is written, and whatever was ordered, nobody gets a line of their own into the record.
//
//   kind (1 byte): 0 a text | text
//                  1 an order | state, id, size, family, forced, result, writer, renewal (1 byte each), 7 texts
#include <algorithm>
#include <string>

#include "flash_order.h"
#include "fuzz_input.h"

namespace
{

constexpr std::size_t FILE_BYTES_MAX = 4096; // that are read of the file
constexpr std::size_t LINES = 16;

void try_text(const std::string &text)
{
    if (const auto order = flash_order_parse(text); order)
        require(flash_order_format(*order) == text, "what is read is what is written");
}

void try_order(fuzz_input &input)
{
    flash_order order;
    order.state = static_cast<flash_order_state>(input.byte() % 5);
    order.id = ~std::uint64_t{input.byte()};
    order.size_bytes = input.byte();
    order.family = input.byte();
    order.forced = input.byte();
    order.result = ~std::uint32_t{input.byte()};
    order.writer = input.byte();
    order.renewed_s = -std::int64_t{input.byte()};
    for (std::string *text : {&order.version, &order.old_version, &order.image, &order.user, &order.host,
                              &order.ordered_at, &order.changed_at})
        *text = input.text();

    const std::string text = flash_order_format(order);
    require(text.size() <= FILE_BYTES_MAX, "a record fits into its file");
    require(std::ranges::count(text, '\n') == LINES, "a field is a line");
    require(std::ranges::all_of(text, [](char c) { return c == '\n' || (c >= 0x20 && c <= 0x7e); }),
            "a record can be printed");
    const auto read = flash_order_parse(text);
    require(read.has_value(), "what is written is read");
    require(read->state == order.state && read->id == order.id && read->result == order.result &&
                read->renewed_s == order.renewed_s && read->user.size() == order.user.size(),
            "what is read is what was ordered");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_input input(data, size);
    if (input.byte() % 2 != 0) {
        try_order(input);
        return 0;
    }
    const auto rest = input.rest();
    try_text(std::string(rest.begin(), rest.end()));
    return 0;
}
