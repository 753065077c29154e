// What a card knows of its chassis.
#pragma once

#include "answer.h"

answer chassis_answer(); // AGENT_OPC_GET_CHASSIS
