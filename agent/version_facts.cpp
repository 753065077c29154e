#include "version_facts.h"

#include <algorithm>
#include <memory>

#include "bios_header.h"
#include "bios_opcodes.h"
#include "boot_record.h"
#include "card_facts.h"
#include "chassis_dir.h"
#include "flash_device.h"
#include "mts_tools.h"

namespace
{

constexpr std::uint32_t IS_CHANGED = AGENT_FLASH_MARKED | AGENT_FLASH_HAS_WRITER;

// Empty when the flash has no header, or one that cannot be read.
std::string version_in(flash_device &flash)
{
    std::uint8_t bytes[BIOS_HEADER_BYTES];
    bios_header header;
    if (!flash.read(0, bytes, sizeof bytes) || !bios_header_read(bytes, header))
        return {};
    const std::string text = bios_header_text(header);
    return text.substr(std::min(text.find_first_not_of(' '), text.size()));
}

} // namespace

// A programming that began and ended between the two looks has not been seen; what was read then is the flash's old
// or its new version: the header is one page.
flash_reading read_flash_version(unsigned instance)
{
    const auto flash = flash_device::open(instance, flash_access::read);
    if (!flash)
        return {};
    flash_reading reading{.is_there = true, .state = flash_state_of(instance), .version = version_in(*flash)};
    reading.state |= flash_state_of(instance);
    if ((reading.state & IS_CHANGED) != 0)
        reading.version.clear();
    return reading;
}

answer version_answer(const agent_flash_req_t &request)
{
    const flash_reading reading = read_flash_version(request.instance.load());
    if (!reading.is_there)
        return AGENT_ERR_FLASH;
    answer version;
    version.add_text(reading.version);
    return version;
}

answer versions_answer()
{
    std::vector<agent_flash_version_t> flashes;
    for (unsigned instance = 0; instance < FLASH_INSTANCE_COUNT; ++instance) {
        const flash_reading reading = read_flash_version(instance);
        if (!reading.is_there)
            continue;
        agent_flash_version_t flash{be32::of(instance), be32::of(reading.state), {}};
        store_text(flash.version, reading.version.c_str());
        flashes.push_back(flash);
    }
    const unsigned slot = chassis_own_slot();
    boot_record booted;
    const bool is_known = load_boot_record(booted);
    agent_versions_t facts{};
    facts.slot = be32::of(slot);
    facts.serves = be32::of(mts_is_bound(mts_node_of_slot(slot), BIOS_DAEMON_SAP) ? 1 : 0);
    facts.started_from = be32::of(is_known ? booted.flash : AGENT_FLASH_UNKNOWN);
    facts.flash_count = be32::of(static_cast<std::uint32_t>(flashes.size()));
    store_text(facts.running, is_known ? booted.version.c_str() : "");
    answer versions;
    versions.add(facts);
    for (const agent_flash_version_t &flash : flashes)
        versions.add(flash);
    return versions;
}
