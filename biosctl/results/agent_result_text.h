// What the statuses of agents mean, for people.
#pragma once

#include <cstdint>
#include <string>

std::string agent_status_text(std::uint32_t status);
