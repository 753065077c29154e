#include "changed_flash.h"

#include "agents.h"
#include "bios_flash.h"
#include "orders.h"

namespace
{

constexpr unsigned READ_ATTEMPTS = 3; // a part may misread a bit; digests do not become equal by chance

std::string how_text(const std::string &user, const std::string &host, const std::string &time)
{
    const std::string who = user.empty() ? "" : " for " + user + "@" + host;
    return "programmed" + who + ", " + time;
}

// As times of orders are told.
std::string without_milliseconds(const std::string &time)
{
    return time.substr(0, time.find('.')) + "Z";
}

std::optional<verified_image> last_verified(std::uint32_t node, const flash_order &order)
{
    if (order.state == flash_order_state::writing)
        return std::nullopt;
    if (order.state == flash_order_state::verified)
        return verified_by(order);
    const auto events = ask_for_events(node, BIOS_FLASH_PRIMARY, 0);
    return events ? verified_by(*events) : std::nullopt;
}

bool is_still_there(std::uint32_t node, const verified_image &image)
{
    for (unsigned attempt = 0; attempt < READ_ATTEMPTS; ++attempt) {
        const flash_digest_reply found = ask_for_digest(node, BIOS_FLASH_PRIMARY, image.size_bytes);
        if (!found.digest || found.digest->marked || found.digest->has_writer ||
            (sha256_text(found.digest->digest) == image.sha256 && found.digest->rest_is_erased))
            return true;
    }
    return false;
}

} // namespace

std::optional<verified_image> verified_by(const flash_order &order)
{
    if (order.state != flash_order_state::verified)
        return std::nullopt;
    return verified_image{sha256_text(order.sha256), order.size_bytes,
                          how_text(order.user, order.host, order.changed_at)};
}

std::optional<verified_image> verified_by(std::span<const flash_event> events)
{
    std::optional<verified_image> verified;
    const flash_event *begun = nullptr;
    for (const flash_event &event : events) {
        if (event.kind == flash_event_kind::begun)
            begun = &event;
        if (event.kind == flash_event_kind::lost) {
            begun = nullptr;
            verified.reset();
        }
        if (event.kind != flash_event_kind::ended || event.result != 0U)
            continue;
        verified.reset();
        if (begun != nullptr && !begun->sha256.empty() && begun->image_bytes)
            verified = verified_image{begun->sha256, *begun->image_bytes,
                                      how_text(begun->user, begun->host, without_milliseconds(event.time))};
        begun = nullptr;
    }
    return verified;
}

std::string how_changed_flash_was_programmed(std::uint32_t node)
{
    const auto order = ask_for_order(node, BIOS_FLASH_PRIMARY);
    const auto image = order ? last_verified(node, *order) : std::nullopt;
    if (!image || is_still_there(node, *image))
        return {};
    const auto now = ask_for_order(node, BIOS_FLASH_PRIMARY);
    const bool is_same = now && now->id == order->id && now->state == order->state;
    return is_same ? image->how : ""; // else it was programmed meanwhile
}
