// What the statuses of agents mean, for people.
#pragma once

#include <cstdint>
#include <string>

std::string agent_status_text(std::uint32_t status);

// What to do about one that keeps an agent from doing what it was asked to do.
std::string agent_status_step(std::uint32_t status);
