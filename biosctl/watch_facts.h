// What "biosctl watch" reads. It only reads files and looks at the system's locks: no daemon is asked or held up.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "chassis_module_lock.h"
#include "kept_notices.h"
#include "flash_geometry.h"
#include "flash_progress_file.h"

struct watched_card {
    unsigned slot = 0;
    std::string role;    // as `chassis status` names it: active, standby or none
    bool serves = false; // its daemon's endpoint is bound
    std::array<flash_activity, FLASH_INSTANCE_COUNT> flashes = {};
};

// What the notice about the end of a programming says.
struct programming_result {
    std::uint32_t code = 0;
    std::string time;              // UTC
    unsigned reported_by_slot = 0; // whose daemon has sent the notice

    bool operator==(const programming_result &) const = default;
};
using results_by_module = std::map<unsigned, programming_result>;

// Takes a notice, when it is one about the end of a programming from a daemon.
void take_result(results_by_module &results, const kept_notice &notice);

struct watch_facts {
    std::string now; // UTC, "2026-01-31T23:59:59Z"
    std::vector<watched_card> cards;
    bool locks_readable = true; // false: locks is empty and nothing is known
    std::vector<chassis_module_lock_holder> locks;
    results_by_module results;
};

class watch_reader
{
public:
    // modules: those to look at; empty: all that the chassis has at the moment
    explicit watch_reader(std::vector<unsigned> modules) : modules_(std::move(modules)) {}
    watch_facts read();

private:
    std::vector<unsigned> modules_;
    kept_notice_reader notices_;
    results_by_module results_;
};
