#include "flash_programming_events.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <unistd.h>

#include "bios_results.h"
#include "c_boundary.h"
#include "chassis_dir.h"
#include "flash_event_log.h"
#include "flash_folder.h"
#include "flash_geometry.h"
#include "flash_order.h"
#include "flash_progress_file.h"
#include "flash_syslog.h"

namespace
{

constexpr std::uint32_t ERASE = 0; // in the place of an attempt

// The programming of one flash that this process has begun and that has not ended.
struct open_programming {
    pid_t process = 0; // a forked child has begun nothing
    flash_folder folder;
    flash_event template_event;           // slot and instance
    bool attempted = false;               // more than erased
    std::uint64_t begun_ms = 0;           // steady
    std::uint64_t last_end_ms = 0;        // steady, of its last attempt
    std::string last_end_time;            // the same for an event
    std::optional<std::uint32_t> failure; // of its last attempt
};
using open_programmings = std::array<std::optional<open_programming>, FLASH_INSTANCE_COUNT>;

// Never freed: exit handlers use it.
open_programmings &programmings()
{
    static auto *const all = new open_programmings;
    return *all;
}

open_programming *own_programming(std::uint32_t instance)
{
    std::optional<open_programming> &open = programmings()[instance];
    if (open && open->process != ::getpid())
        open.reset();
    return open ? &*open : nullptr;
}

std::uint64_t steady_ms()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

flash_event event_of(std::uint32_t instance, flash_event_kind kind)
{
    return {.slot = chassis_own_slot(), .instance = instance, .kind = kind};
}

std::optional<std::uint32_t> attempt_number(std::uint32_t attempt)
{
    return attempt != ERASE ? std::optional(attempt) : std::nullopt;
}

// An event that cannot be written is not passed over in silence: the card's syslog may lie on another disk.
void note(const flash_folder &folder, const flash_event &event, const flash_event_condition &allowed = {})
{
    const auto loss = flash_event_append(folder, event, allowed);
    if (!loss)
        return;
    char result[32] = "";
    if (event.result)
        (void)std::snprintf(result, sizeof result, ", result 0x%08" PRIx32, *event.result);
    tell_syslog("BIOS_EVENT_LOST", flash_instance_name(event.instance) + std::string(" flash: event \"") +
                                       flash_event_name(event.kind) + "\"" + result + " not written: " +
                                       std::strerror(loss->error) + "; " + std::to_string(loss->lost.count) +
                                       " not written behind event " + std::to_string(loss->lost.after));
}

// The last event tells why the flash is marked: it was left so, or it was told before that it was cut off.
bool is_cut_off_news(const std::optional<flash_event> &last)
{
    return !last || (last->kind != flash_event_kind::ended && last->kind != flash_event_kind::cut_off);
}

void note_end(std::uint32_t instance, std::uint32_t result)
{
    const open_programming *open = own_programming(instance);
    if (open == nullptr)
        return;
    flash_event event = open->template_event;
    event.kind = flash_event_kind::ended;
    event.result = result;
    event.duration_ms = open->last_end_ms - open->begun_ms;
    event.time = open->last_end_time; // it has ended then, though that is known only now
    note(open->folder, event);
    programmings()[instance].reset();
}

void end_failed_programming(std::uint32_t instance)
{
    if (const open_programming *open = own_programming(instance); open != nullptr && open->failure)
        note_end(instance, *open->failure);
}

void at_exit()
{
    best_effort([] {
        for (std::uint32_t instance = 0; instance < FLASH_INSTANCE_COUNT; ++instance)
            end_failed_programming(instance);
    });
}

bool goes_on(const open_programming *open, std::uint32_t attempt)
{
    return open != nullptr && !(open->attempted && attempt <= 1);
}

// Who has ordered what, when this process has claimed an order.
void name_order(flash_event &begun)
{
    const auto order = flash_order_read(begun.slot, begun.instance);
    if (!order || order->state != flash_order_state::writing ||
        order->writer != static_cast<std::uint32_t>(::getpid()))
        return;
    begun.old_version = order->old_version;
    begun.sha256 = sha256_text(order->sha256);
    begun.user = order->user;
    begun.host = order->host;
    if (!begun.image_bytes) { // a card that erases first
        begun.image_bytes = order->size_bytes;
        begun.version = order->version;
    }
}

// The flash is this process's alone. One that is marked was left by another programming, unless this process has
// begun to change it itself.
open_programming &begin_programming(std::uint32_t instance, bool is_marked, flash_event begun)
{
    static pid_t exit_handler_of = 0;
    static std::array<pid_t, FLASH_INSTANCE_COUNT> known_to{};
    end_failed_programming(instance);
    if (exit_handler_of != ::getpid() && std::atexit(at_exit) == 0)
        exit_handler_of = ::getpid();
    open_programming &open = programmings()[instance].emplace();
    open.process = ::getpid();
    open.folder = open_flash_folder(begun.slot, instance);
    open.template_event = event_of(instance, flash_event_kind::ended);
    open.begun_ms = open.last_end_ms = steady_ms();
    if (is_marked && known_to[instance] != ::getpid())
        note(open.folder, event_of(instance, flash_event_kind::cut_off), is_cut_off_news);
    known_to[instance] = ::getpid();
    name_order(begun);
    note(open.folder, begun);
    return open;
}

void begin_attempt(std::uint32_t instance, std::uint32_t attempt, bool is_marked, flash_event event)
{
    open_programming *open = own_programming(instance);
    if (!goes_on(open, attempt)) {
        event.kind = flash_event_kind::begun;
        open = &begin_programming(instance, is_marked, event);
    }
    if (attempt == ERASE)
        return;
    open->attempted = true;
    event.kind = flash_event_kind::attempt;
    event.attempt = attempt;
    note(open->folder, event);
}

flash_event_kind kind_of(std::uint32_t attempt, std::uint32_t result, bool changed)
{
    if (result != 0)
        return flash_event_kind::failed;
    if (attempt == ERASE)
        return flash_event_kind::erased;
    return changed ? flash_event_kind::verified : flash_event_kind::equal;
}

} // namespace

flash_attempt_events::flash_attempt_events(const flash_device &flash, std::uint32_t instance, std::uint32_t attempt,
                                           const flash_image &image) noexcept
    : flash_(flash),
      instance_(instance),
      attempt_(attempt != ERASE ? attempt : 1),
      was_marked_(flash.is_marked()),
      begun_ms_(steady_ms())
{
    best_effort([&] {
        flash_event event = event_of(instance_, flash_event_kind::attempt);
        event.image_bytes = image.size_bytes();
        event.version = image.version();
        begin_attempt(instance_, attempt_, was_marked_, std::move(event));
    });
}

flash_attempt_events::flash_attempt_events(const flash_device &flash, std::uint32_t instance) noexcept
    : flash_(flash),
      instance_(instance),
      attempt_(ERASE),
      was_marked_(flash.is_marked()),
      begun_ms_(steady_ms())
{
    best_effort(
        [&] { begin_attempt(instance_, ERASE, was_marked_, event_of(instance_, flash_event_kind::begun)); });
}

flash_attempt_events::~flash_attempt_events()
{
    if (!has_ended_)
        (void)ended(bios_signed(BIOS_ERR_NO_MEMORY));
}

std::int32_t flash_attempt_events::ended(std::int32_t result) noexcept
{
    has_ended_ = true;
    best_effort([&] {
        open_programming *open = own_programming(instance_);
        if (open == nullptr)
            return;
        const flash_wear &work = flash_.wear();
        const bool changed = was_marked_ || work.erases > 0 || work.programs > 0;
        const auto code = static_cast<std::uint32_t>(result);
        open->last_end_ms = steady_ms();
        open->failure = code != 0 ? std::optional(code) : std::nullopt;
        flash_event event = event_of(instance_, kind_of(attempt_, code, changed));
        event.attempt = attempt_number(attempt_);
        if (event.kind != flash_event_kind::equal)
            event.sectors_erased = work.erases;
        if (event.kind != flash_event_kind::equal && attempt_ != ERASE)
            event.bytes_written = work.programs * flash_.geometry().page_bytes; // the service writes whole pages
        event.result = open->failure;
        event.duration_ms = open->last_end_ms - begun_ms_;
        event.time = open->last_end_time = flash_event_time_now();
        note(open->folder, event);
        if (attempt_ != ERASE && code == 0)
            note_end(instance_, 0);
    });
    return result;
}

std::int32_t flash_attempt_refused(std::uint32_t instance, std::uint32_t attempt, std::int32_t result) noexcept
{
    best_effort([&] {
        if (instance >= FLASH_INSTANCE_COUNT)
            return;
        flash_event event = event_of(instance, flash_event_kind::refused);
        event.attempt = attempt_number(attempt);
        event.result = static_cast<std::uint32_t>(result);
        open_programming *open = own_programming(instance);
        if (open != nullptr && !goes_on(open, attempt)) {
            end_failed_programming(instance);
            open = own_programming(instance);
        }
        if (open != nullptr) {
            open->failure = event.result;
            open->last_end_ms = steady_ms();
            event.time = open->last_end_time = flash_event_time_now();
        }
        note(open_flash_folder(event.slot, instance), event);
    });
    return result;
}

void flash_found_marked(std::uint32_t instance) noexcept
{
    static std::array<pid_t, FLASH_INSTANCE_COUNT> told_by{};
    best_effort([&] {
        // Looking for a writer would take the lock away by which this process is known as one.
        if (instance >= FLASH_INSTANCE_COUNT || told_by[instance] == ::getpid() ||
            own_programming(instance) != nullptr)
            return;
        const unsigned slot = chassis_own_slot();
        bool has_writer = false;
        // Looked for under the log's lock: one that comes later has not written anything before this line.
        note(open_flash_folder(slot, instance), event_of(instance, flash_event_kind::cut_off),
             [&](const std::optional<flash_event> &last) {
                 has_writer = flash_activity_of(slot, instance).has_writer;
                 return !has_writer && is_cut_off_news(last);
             });
        if (!has_writer)
            told_by[instance] = ::getpid();
    });
}
