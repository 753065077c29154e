// Points of time as text, UTC in the form of ISO 8601.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

std::string utc_now();              // "2026-01-31T23:59:59Z"
std::string utc_now_microseconds(); // "2026-01-31T23:59:59.000001Z"

// The shorter form of seconds since 1970-01-01.
std::string utc_seconds(std::int64_t time_s);

// The longer form of nanoseconds since 1970-01-01.
std::string utc_microseconds(std::uint64_t time_ns);

// Seconds since 1970-01-01 of either form; none for any other text. What is behind the seconds is not looked at.
std::optional<std::int64_t> utc_parse_seconds(const std::string &text);
