// Metrics in the text format that Prometheus reads, version 0.0.4.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "text_report.h"

struct metric_sample {
    std::vector<std::pair<std::string, std::string>> labels = {};
    std::string value = {};  // a number, or "+Inf"
    std::string suffix = {}; // of a histogram: "_bucket", "_sum", "_count"
};

struct metric_family {
    const char *name;
    const char *type; // "counter", "gauge" or "histogram"
    const char *help;
    std::vector<metric_sample> samples = {};
};

// Each family with its HELP and TYPE; one without samples is left out.
text_report metrics_text(std::span<const metric_family> families);

nlohmann::ordered_json metrics_json(std::span<const metric_family> families);
