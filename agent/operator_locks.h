// Module locks of operators (AGENT_OPC_OPERATOR_LOCK), kept in a file of the card: slots/SLOT/locks/operators, a
// line for each, "NODE SINCE UNTIL USER HOST", the node id in hexadecimal digits and the times in seconds since
// 1970. The file is all there is of them: an agent that is started again has them still.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "answer.h"
#include "chassis_module_lock.h"

// The locks in the text of such a file that last beyond a time; lines that are none are passed over.
std::vector<chassis_module_lock_holder> parse_operator_locks(std::string_view text, std::int64_t now_s);

// Those of this card that last, in order of the node ids.
std::vector<chassis_module_lock_holder> operator_locks();

// Whether a module is locked for an operator here.
bool is_locked_for_operator(std::uint16_t node_id);

answer operator_lock_answer(const agent_operator_lock_req_t &request);
answer operator_unlock_answer(const agent_operator_unlock_req_t &request);
