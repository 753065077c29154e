// biosctl show and audit: the versions in the image, in the flash and running of every card, and what they mean.
#pragma once

#include <optional>
#include <vector>

#include "outcome.h"
#include "show_report.h"

struct show_options {
    show_kind kind = show_kind::show;
    std::vector<unsigned> modules = {};     // none: every module of the chassis
    std::optional<unsigned> via = {};       // slot whose daemon is asked; none: the active supervisor
    std::optional<unsigned> timeout_s = {}; // the longest wait for one answer
};

outcome run_show(const show_options &options, bool json);
