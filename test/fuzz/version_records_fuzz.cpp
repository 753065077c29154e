// What biosctl reads of the daemons' answers about modules' versions. Whatever an answer says,
// no more entries than a card can have are taken from it, and every text can be printed.
//
//   module (1 byte), answer
#include <string_view>

#include "fuzz_input.h"
#include "version_records.h"

namespace
{

constexpr std::size_t FIELD_BYTES = 128;

void expect_printable(std::string_view text)
{
    require(text.size() <= FIELD_BYTES, "a text is cut at its field's end");
    for (const char c : text)
        require(c >= 0x20 && c <= 0x7e, "a text can be printed");
    require(text.empty() || (text.front() != ' ' && text.back() != ' '), "a text has no blanks around it");
}

void expect_module_versions(const module_versions_answer &answer, unsigned module)
{
    const bool versions = answer.kind == module_answer_kind::versions;
    require(answer.entries.size() + answer.empty_entries <= VERSION_ENTRIES_MAX, "no more entries than a card has");
    require(versions || (answer.entries.empty() && answer.empty_entries == 0), "only versions have entries");
    if (answer.kind == module_answer_kind::other_module)
        require(answer.described_module != module, "another module is another one");
    for (const flash_versions &entry : answer.entries) {
        expect_printable(entry.label);
        expect_printable(entry.flash);
        expect_printable(entry.running);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_input input(data, size);
    const unsigned module = input.byte();
    const auto rest = input.rest();
    const std::vector<std::uint8_t> answer(rest.begin(), rest.end());
    expect_module_versions(decode_module_versions(answer, module), module);
    return 0;
}
