#include "boot_record.h"

#include <algorithm>
#include <charconv>
#include <string_view>

#include "bios_flash.h"
#include "card_boot.h"
#include "chassis_dir.h"
#include "control_register.h"
#include "flash_event_log.h"
#include "flash_geometry.h"
#include "version_facts.h"

namespace
{

constexpr std::size_t FILE_BYTES_MAX = 1024;
constexpr std::size_t MILLISECONDS_TEXT_BYTES = 23; // "2026-01-31T23:59:59.123"

std::string file_path()
{
    return chassis_slot_path(chassis_own_slot(), "started_from");
}

// Takes a line "key value" from the front of the text.
bool take_line(std::string_view &text, std::string_view key, std::string &value)
{
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos || !text.starts_with(key) || text.substr(key.size(), 1) != " ")
        return false;
    value = text.substr(key.size() + 1, end - key.size() - 1);
    text.remove_prefix(end + 1);
    return true;
}

bool may_have_changed(flash_event_kind kind)
{
    return kind != flash_event_kind::refused && kind != flash_event_kind::cut_off;
}

// Whether the flash's log tells of work on it since a point of time.
bool has_changed_since(unsigned instance, const std::string &time)
{
    const auto history = flash_event_history_of(chassis_own_slot(), instance);
    const std::string_view since = std::string_view(time).substr(0, MILLISECONDS_TEXT_BYTES);
    return std::ranges::any_of(history.events, [since](const flash_event &event) {
        return may_have_changed(event.kind) && std::string_view(event.time).substr(0, since.size()) >= since;
    });
}

// Whether the flash's last programming was verified, and behind a point of time.
bool was_verified_since(unsigned instance, const std::string &time)
{
    const auto events = flash_event_history_of(chassis_own_slot(), instance).events;
    const std::string_view since = std::string_view(time).substr(0, MILLISECONDS_TEXT_BYTES);
    return !events.empty() && events.back().kind == flash_event_kind::ended && events.back().result == 0U &&
           std::string_view(events.back().time).substr(0, since.size()) > since;
}

} // namespace

std::string boot_record_format(const boot_record &record)
{
    return "boot " + record.boot + "\nflash " + std::to_string(record.flash) + "\nversion " + record.version + "\n";
}

bool boot_record_parse(const std::string &text, boot_record &record_out)
{
    std::string_view rest = text;
    std::string flash;
    boot_record record;
    if (!take_line(rest, "boot", record.boot) || !take_line(rest, "flash", flash) ||
        !take_line(rest, "version", record.version) || !rest.empty())
        return false;
    const auto [end, failure] = std::from_chars(flash.data(), flash.data() + flash.size(), record.flash);
    if (failure != std::errc{} || end != flash.data() + flash.size() || record.flash >= FLASH_INSTANCE_COUNT)
        return false;
    record_out = std::move(record);
    return true;
}

void note_boot()
{
    boot_record record;
    if (load_boot_record(record))
        return;
    const card_boot boot = card_boot_now();
    record = {.boot = boot.id, .flash = selected_flash(), .version = {}};
    const flash_reading reading = read_flash_version(record.flash);
    if (!has_changed_since(record.flash, boot.time)) // after the reading: what begins later has not been read
        record.version = reading.version;
    (void)chassis_write_file(file_path(), boot_record_format(record)); // without it the version is not known
}

bool load_boot_record(boot_record &record_out)
{
    std::string text;
    return chassis_read_file(file_path(), text, FILE_BYTES_MAX) && boot_record_parse(text, record_out) &&
           record_out.boot == card_boot_now().id;
}

bool next_start_may_need(unsigned instance)
{
    if (instance == BIOS_FLASH_PRIMARY || instance == selected_flash())
        return true;
    boot_record booted;
    if (load_boot_record(booted) && booted.flash == BIOS_FLASH_PRIMARY)
        return false;
    return !was_verified_since(BIOS_FLASH_PRIMARY, card_boot_now().time);
}
