// A flash as the source of a copy. A copy is never a mixture of what the flash held before and after a change.
#pragma once

#include "piece_source.h"

// AGENT_OK and the source; AGENT_ERR_FLASH without such a flash, AGENT_ERR_FLASH_CHANGED while a process changes
// it.
agent_status open_flash_copy(unsigned instance, piece_source &source_out);
