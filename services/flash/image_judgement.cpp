#include "image_judgement.h"

#include <array>
#include <charconv>

#include "bios_refusals.h"

namespace
{

using version_number = std::array<std::uint32_t, 3>;

// The numbers of "v3.5.0(09/17/12)".
std::optional<version_number> number_of(std::string_view version)
{
    version_number number{};
    const char *at = version.data();
    const char *const end = at + version.size();
    for (std::size_t i = 0; i < number.size(); ++i) {
        if (at == end || *at != (i == 0 ? 'v' : '.'))
            return std::nullopt;
        const auto [behind, error] = std::from_chars(at + 1, end, number[i]);
        if (error != std::errc())
            return std::nullopt;
        at = behind;
    }
    return number;
}

struct rule {
    std::uint32_t refusal;
    std::uint32_t force; // that takes it back; 0: nothing does
    bool (*applies)(const image_facts &image, const flash_facts &flash, const image_rules &rules);
};

constexpr rule RULES[] = {
    {BIOS_REFUSED_TOO_LARGE, 0,
     [](const image_facts &image, const flash_facts &flash, const image_rules &) {
         return image.size_bytes > flash.size_bytes;
     }},
    {BIOS_REFUSED_SMALLER, BIOS_FORCE_SMALLER,
     [](const image_facts &image, const flash_facts &flash, const image_rules &rules) {
         return rules.is_ordered && image.size_bytes < flash.size_bytes;
     }},
    {BIOS_REFUSED_NO_VERSION, BIOS_FORCE_NO_VERSION,
     [](const image_facts &image, const flash_facts &, const image_rules &) { return image.version.empty(); }},
    {BIOS_REFUSED_OLDER, BIOS_FORCE_OLDER,
     [](const image_facts &image, const flash_facts &flash, const image_rules &rules) {
         return rules.is_ordered && is_older_version(image.version, flash.version);
     }},
};

} // namespace

std::uint32_t judge_image(const image_facts &image, const flash_facts &flash, const image_rules &rules)
{
    for (const rule &one : RULES) {
        if ((rules.forced & one.force) == 0 && one.applies(image, flash, rules))
            return one.refusal;
    }
    return 0;
}

bool is_older_version(std::string_view version, std::string_view than)
{
    const auto number = number_of(version);
    const auto other = number_of(than);
    return number && other && *number < *other;
}
