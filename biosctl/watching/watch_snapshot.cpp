#include "watch_snapshot.h"

#include <algorithm>

#include "bios_results.h"
#include "daemon_node.h"
#include "lock_holders.h"

namespace
{

constexpr const char *STATE_NAMES[] = {"being programmed", "not verified",  "programming another module",
                                       "no daemon",        "daemon silent", "unconfirmed",
                                       "locked",           "idle"};

unsigned module_of(const chassis_module_lock_holder &lock)
{
    return module_of_node(lock.node_id);
}

const chassis_module_lock_holder *lock_of(const watch_facts &facts, unsigned slot)
{
    const auto found = std::find_if(facts.locks.begin(), facts.locks.end(),
                                    [&](const auto &lock) { return module_of(lock) == slot; });
    return found != facts.locks.end() ? &*found : nullptr;
}

bool is_for_programming(const chassis_module_lock_holder &lock)
{
    return !lock.since.empty() && lock.reason == BIOS_ERR_BUSY;
}

bool is_locked_as_target(const watch_facts &facts, unsigned slot)
{
    const programming_locks locks = programming_of(facts.locks);
    return std::any_of(locks.programmed.begin(), locks.programmed.end(),
                       [&](std::uint32_t node) { return module_of_node(node) == slot; });
}

std::optional<unsigned> programmed_by(const watch_facts &facts, unsigned slot)
{
    for (const chassis_module_lock_holder &lock : facts.locks) {
        if (lock.slot == slot && module_of(lock) != slot && is_for_programming(lock))
            return module_of(lock);
    }
    return std::nullopt;
}

// What the flash's last line says. Only when it is about what goes on now, or about a flash that was left: the line
// stays behind when a programming has ended well.
std::optional<watched_progress> progress_of(const watched_card &card, unsigned instance)
{
    const std::optional<flash_progress_line> &last = card.flashes[instance].last;
    if (!last)
        return std::nullopt;
    return watched_progress{instance,      last->phase, last->percent,
                            last->attempt, last->since, card.flashes[instance].has_writer};
}

template<class Condition>
std::optional<watched_progress> first_progress(const watched_card &card, Condition &&holds)
{
    for (unsigned instance = 0; instance < FLASH_INSTANCE_COUNT; ++instance) {
        if (holds(card.flashes[instance]))
            return progress_of(card, instance);
    }
    return std::nullopt;
}

std::optional<watched_progress> progress_of(const watched_card &card, const watch_row &row)
{
    if (const auto running = first_progress(card, [](const flash_activity &flash) { return flash.has_writer; }))
        return running;
    // The lock lasts longer than the work on the flash.
    if (row.state == watch_state::being_programmed && row.lock)
        return first_progress(
            card, [&](const flash_activity &flash) { return flash.last && flash.last->since >= row.lock->since; });
    return first_progress(card, [](const flash_activity &flash) { return flash.marked; });
}

watch_state state_of(const watch_facts &facts, const watched_card &card, const watch_row &row)
{
    const bool has_writer = std::any_of(card.flashes.begin(), card.flashes.end(),
                                        [](const flash_activity &flash) { return flash.has_writer; });
    if (has_writer || is_locked_as_target(facts, card.slot))
        return watch_state::being_programmed;
    if (row.needs_marked)
        return watch_state::not_verified;
    if (row.programs_module)
        return watch_state::programs_another;
    if (!row.serves)
        return watch_state::no_daemon;
    if (card.is_silent)
        return watch_state::daemon_silent;
    if (!card.confirmed)
        return watch_state::unconfirmed;
    return row.lock ? watch_state::locked : watch_state::idle;
}

watch_row row_of(const watch_facts &facts, const watched_card &card)
{
    watch_row row{.slot = card.slot, .role = card.role, .serves = card.serves};
    row.programs_module = programmed_by(facts, card.slot);
    for (unsigned instance = 0; instance < FLASH_INSTANCE_COUNT; ++instance) {
        if (!card.flashes[instance].marked)
            continue;
        row.marked_flashes.push_back(instance);
        row.needs_marked = row.needs_marked || !card.is_spare[instance];
    }
    if (const auto *lock = lock_of(facts, card.slot); lock != nullptr)
        row.lock = watched_lock{lock->slot, lock->pid, lock->reason, lock->since,
                                lock->user.empty() ? "" : lock->user + "@" + lock->host};
    if (const auto result = facts.results.find(card.slot); result != facts.results.end())
        row.result = result->second;
    row.state = state_of(facts, card, row);
    row.progress = progress_of(card, row);
    return row;
}

} // namespace

const char *watch_state_name(watch_state state)
{
    return STATE_NAMES[static_cast<std::size_t>(state)];
}

watch_snapshot make_snapshot(const watch_facts &facts)
{
    watch_snapshot snapshot{
        .time = facts.now, .locks_readable = facts.locks_readable, .results_readable = facts.results_readable};
    for (const watched_card &card : facts.cards)
        snapshot.rows.push_back(row_of(facts, card));
    return snapshot;
}

watch_snapshot changed_rows(const watch_snapshot &before, const watch_snapshot &now)
{
    watch_snapshot changed{
        .time = now.time, .locks_readable = now.locks_readable, .results_readable = now.results_readable};
    for (const watch_row &row : now.rows) {
        if (std::find(before.rows.begin(), before.rows.end(), row) == before.rows.end())
            changed.rows.push_back(row);
    }
    return changed;
}
