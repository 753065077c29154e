#include "card_facts.h"

#include <ctime>
#include <map>
#include <memory>

#include "bios_opcodes.h"
#include "boot_record.h"
#include "card_identification.h"
#include "chassis_dir.h"
#include "daemon_pulse.h"
#include "flash_device.h"
#include "flash_event_log.h"
#include "flash_folder.h"
#include "flash_progress_file.h"
#include "flash_wear.h"
#include "inventory_value.h"
#include "mts_tools.h"
#include "programming_child.h"
#include "utc_time.h"

namespace
{

std::uint32_t bits_of(unsigned instance, const flash_activity &activity)
{
    return (activity.marked ? AGENT_FLASH_MARKED : 0U) | (activity.has_writer ? AGENT_FLASH_HAS_WRITER : 0U) |
           (activity.last ? AGENT_FLASH_HAS_PROGRESS : 0U) |
           (next_start_may_need(instance) ? 0U : AGENT_FLASH_SPARE);
}

// Found out once for an id: for some the card's SPROM is read.
std::uint32_t family_of(std::uint32_t card_id)
{
    static std::map<std::uint32_t, std::uint32_t> known;
    const auto [place, is_new] = known.try_emplace(card_id, 0);
    if (const std::uint32_t family = is_new ? get_sw_card_family(card_id) : NO_CARD_FAMILY;
        family != NO_CARD_FAMILY)
        place->second = family;
    return place->second;
}

// Whether the daemon was stopped, or does something else for very long.
bool is_silent(unsigned slot, const datagram_peer &daemon)
{
    const auto age_s = daemon_pulse_age_s(slot);
    return age_s && *age_s > DAEMON_SILENT_S && std::time(nullptr) - daemon.bound_at_s > DAEMON_SILENT_S;
}

agent_flash_t facts_of(unsigned instance, const flash_device &flash)
{
    const unsigned slot = chassis_own_slot();
    const flash_activity activity = flash_activity_of(slot, instance);
    const flash_event_log_state log = flash_event_log_state_of(slot, instance);
    const flash_progress_line last = activity.last.value_or(flash_progress_line{});
    agent_flash_t facts{};
    facts.instance = be32::of(instance);
    facts.size_bytes = be32::of(flash.geometry().size_bytes);
    facts.sector_bytes = be32::of(flash.geometry().sector_bytes);
    facts.state = be32::of(bits_of(instance, activity));
    facts.phase = be32::of(last.phase);
    facts.percent = be32::of(last.percent);
    facts.attempt = be32::of(last.attempt);
    facts.pid = be32::of(last.pid);
    store_text(facts.since, last.since.c_str());
    facts.erases = be64::of(flash_wear_load(flash_folder_path(slot, instance).c_str()).erases);
    facts.log_file = be64::of(log.file);
    facts.log_bytes = be64::of(log.size_bytes);
    return facts;
}

} // namespace

std::uint32_t flash_state_of(unsigned instance)
{
    return bits_of(instance, flash_activity_of(chassis_own_slot(), instance));
}

answer card_answer()
{
    const unsigned slot = chassis_own_slot();
    std::vector<agent_flash_t> flashes;
    for (unsigned instance = 0; instance < FLASH_INSTANCE_COUNT; ++instance) {
        if (const auto flash = flash_device::open(instance, flash_access::read); flash)
            flashes.push_back(facts_of(instance, *flash));
    }
    const auto daemon = mts_peer_at(mts_node_of_slot(slot), BIOS_DAEMON_SAP);
    const std::uint32_t card_id = inventory_value(slot, "card_id");
    agent_card_t facts{};
    facts.slot = be32::of(slot);
    facts.card_id = be32::of(card_id);
    facts.family = be32::of(family_of(card_id));
    facts.kind = be32::of(inventory_value(slot, "kind"));
    facts.sup_state = be32::of(inventory_value(slot, "sup_state"));
    facts.serves = be32::of(!daemon ? 0 : is_silent(slot, *daemon) ? 2 : 1);
    facts.flash_count = be32::of(static_cast<std::uint32_t>(flashes.size()));
    facts.programming_pid = be32::of(programming_child_pid(slot).value_or(0));
    if (daemon && daemon->bound_at_s != 0)
        store_text(facts.serves_since, utc_seconds(daemon->bound_at_s).c_str());
    answer card;
    card.add(facts);
    for (const agent_flash_t &flash : flashes)
        card.add(flash);
    return card;
}
