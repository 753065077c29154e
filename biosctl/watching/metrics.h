// "biosctl metrics": counters and states of the flashes and cards for Prometheus. The cards' agents are
// asked: no daemon is held up.
#pragma once

#include <vector>

#include "flash_event_totals.h"
#include "metrics_text.h"
#include "outcome.h"

struct flash_facts {
    unsigned slot = 0;
    unsigned instance = 0;
    flash_event_totals totals = {};
    std::uint64_t erases = 0; // over the life of the flash, as its wear tells
    std::uint64_t sectors = 0;
    bool marked = false;
    bool has_writer = false;
    std::string version = {}; // "unknown" when it has none
};

struct card_facts {
    unsigned slot = 0;
    std::uint32_t card_id = 0;
    const char *role = "none";
    bool serves = false;
    std::optional<bool> locked; // none: the locks could not be read
};

std::vector<metric_family> metric_families(const std::vector<card_facts> &cards,
                                           const std::vector<flash_facts> &flashes);

// modules: empty for all. REQUIRES: a chassis has been opened.
outcome run_metrics(const std::vector<unsigned> &modules);
