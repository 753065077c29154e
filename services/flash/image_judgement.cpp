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

// As the agent's status says it.
std::uint32_t signature_refusal(std::uint32_t status)
{
    switch (status) {
    case AGENT_ERR_NOT_SIGNED:
        return BIOS_REFUSED_UNSIGNED;
    case AGENT_ERR_KEY_UNKNOWN:
    case AGENT_ERR_KEY_REVOKED:
    case AGENT_ERR_SIGNATURE:
        return BIOS_REFUSED_SIGNATURE;
    case AGENT_ERR_MANIFEST:
        return BIOS_REFUSED_MANIFEST;
    default:
        return BIOS_REFUSED_NOT_CHECKED; // no agent, or one that cannot read its keys
    }
}

bool is_for_another_family(const image_facts &image, const flash_facts &flash)
{
    if (image.manifest_state != image_manifest_state::intact)
        return false;
    return (flash.card_id != 0 && !image.manifest.is_for_card_id(flash.card_id)) ||
           (flash.family != 0 && image.manifest.family != flash.family);
}

// What an order has to take back, and without one the policy has to let pass.
struct rule {
    std::uint32_t refusal;
    std::uint32_t force;
    bool (*refuses_without_order)(const card_policy &policy);
    bool (*applies)(const image_facts &image, const flash_facts &flash);
};

constexpr rule RULES[] = {
    {BIOS_REFUSED_FAMILY, BIOS_FORCE_FAMILY, [](const card_policy &) { return true; }, is_for_another_family},
    {BIOS_REFUSED_SMALLER, BIOS_FORCE_SMALLER, [](const card_policy &policy) { return policy.refuses_smaller; },
     [](const image_facts &image, const flash_facts &flash) { return image.size_bytes < flash.size_bytes; }},
    {BIOS_REFUSED_NO_VERSION, BIOS_FORCE_NO_VERSION,
     [](const card_policy &policy) { return policy.refuses_no_version; },
     [](const image_facts &image, const flash_facts &) { return image.version.empty(); }},
    {BIOS_REFUSED_OLDER, BIOS_FORCE_OLDER, [](const card_policy &policy) { return policy.refuses_older; },
     [](const image_facts &image, const flash_facts &flash) {
         return is_older_version(image.version, flash.version);
     }},
};

} // namespace

std::uint32_t judge_image(const image_facts &image, const flash_facts &flash, const image_wish &wish)
{
    if (flash.policy.order_required && !wish.is_ordered)
        return BIOS_REFUSED_NO_ORDER;
    if (image.size_bytes > flash.size_bytes)
        return BIOS_REFUSED_TOO_LARGE;
    if (image.manifest_state == image_manifest_state::damaged)
        return BIOS_REFUSED_MANIFEST;
    for (const rule &one : RULES) {
        const bool refuses =
            wish.is_ordered ? (wish.forced & one.force) == 0 : one.refuses_without_order(flash.policy);
        if (refuses && one.applies(image, flash))
            return one.refusal;
    }
    if (!flash.policy.passes_signature(image.signature))
        return signature_refusal(image.signature);
    const std::uint32_t believed = image.signature == AGENT_OK ? image.manifest.security_version : 0;
    return believed < flash.security_floor ? BIOS_REFUSED_SECURITY : 0U;
}

bool is_older_version(std::string_view version, std::string_view than)
{
    const auto number = number_of(version);
    const auto other = number_of(than);
    return number && other && *number < *other;
}
