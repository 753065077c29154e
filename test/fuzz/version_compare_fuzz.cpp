// Version texts and their comparison: two lines of text. Nothing is newer than itself, of two different versions
// one is newer and the other is not, and an image's verdict is that of the texts.
#include <array>
#include <cstring>
#include <memory>
#include <string>

#include "bios_flash.h"
#include "bios_results.h"
#include "fuzz_platform.h"
#include "version_compare.h"

namespace
{

using version_numbers = std::array<std::int32_t, 3>;

constexpr std::int32_t LARGEST_NUMBER = 9999; // four digits, or three and a sign
constexpr std::int32_t UNTOUCHED = -12345;

// A block of exactly the text's size.
std::unique_ptr<char[]> exact_copy(const std::string &text)
{
    std::unique_ptr<char[]> copy(new char[text.size() + 1]);
    std::memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

bool convert(const std::string &text, version_numbers &numbers)
{
    numbers.fill(UNTOUCHED);
    const std::int32_t result = str_to_ver(exact_copy(text).get(), numbers.data());
    require(result == 0 || result == -1, "a text is a version or is none");
    for (const std::int32_t number : numbers) {
        const bool in_range = number >= -LARGEST_NUMBER && number <= LARGEST_NUMBER;
        require(in_range || (result != 0 && number == UNTOUCHED), "a number has at most four characters");
    }
    return result == 0;
}

void expect_order(const version_numbers &a, const version_numbers &b)
{
    const std::int32_t forward = compare_bios_version(a.data(), b.data());
    const std::int32_t backward = compare_bios_version(b.data(), a.data());
    require(forward == 1 || forward == -1, "a comparison says newer or not");
    require(a == b ? forward == -1 && backward == -1 : forward == -backward, "of two versions one is newer");
}

std::string first, second;
std::int32_t verdict_of_primary, verdict_of_alternate;

void compare_with_flash(fuzz_platform &)
{
    verdict_of_primary = std_version_compare_func(0, 0, "/image");
    verdict_of_alternate = alt_version_compare_func(0, 0, "/image");
}

std::string cut(const std::string &text)
{
    return text.substr(0, BIOS_VERSION_TEXT_BYTES - 1);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    return std::freopen("/dev/null", "w", stdout) == nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    const std::size_t line_end = std::min(text.find('\n'), text.size());
    // Texts end at a NUL, whatever follows.
    first = text.substr(0, line_end).c_str();
    second = text.substr(std::min(line_end + 1, text.size())).c_str();

    version_numbers a, b;
    const bool first_is_version = convert(first, a);
    const bool both = convert(second, b) && first_is_version;
    const std::int32_t of_texts = common_compare_bios_versions(exact_copy(first).get(), exact_copy(second).get());
    if (both)
        expect_order(a, b);
    require(of_texts == (both ? compare_bios_version(a.data(), b.data()) : -1), "texts compare as their numbers");

    fuzz_platform platform(fuzz_input(nullptr, 0));
    platform.version_text = [](bool of_flash) { return of_flash ? second : first; };
    platform.run(compare_with_flash);
    const bool newer = common_compare_bios_versions(cut(first).c_str(), cut(second).c_str()) > 0;
    const std::int32_t expected = bios_signed(newer ? BIOS_OK : BIOS_NOT_NEEDED);
    require(verdict_of_primary == expected && verdict_of_alternate == expected, "the verdict is that of the texts");
    return 0;
}
