// biosctl sync: brings the cards in step with the images that ship for them.
#pragma once

#include <optional>
#include <vector>

#include "outcome.h"
#include "program_series.h"
#include "sync_plan.h"

struct sync_options {
    std::vector<unsigned> modules = {};     // none: every module of the chassis
    bool allow_older = false;               // program an image that is older than the flash, too
    bool dry_run = false;                   // tell the plan alone
    bool keep_going = false;                // after a failure
    std::optional<unsigned> timeout_s = {}; // the longest wait for one version
};

outcome run_sync(const sync_options &options, bool json);

// What is told when nothing is, or was to be, programmed; a pure function of the plan.
outcome report_plan(unsigned serving_slot, const std::vector<sync_step> &plan, bool dry_run);

// The versions of the cards and the plan that they lead to; both empty when they were not read.
struct sync_view {
    std::vector<sync_step> plan = {};
    std::vector<card_report> cards = {};
};

// What is told at the end; a pure function.
//   after  how the cards are now
outcome report_sync(unsigned serving_slot, const std::vector<sync_step> &plan,
                    const std::vector<programming_result> &results, const sync_view &after);
