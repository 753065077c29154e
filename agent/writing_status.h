// Why something could not be written, as an answer says it.
#pragma once

#include <cerrno>

#include "agent_messages.h"

// By errno. EFBIG: the file is as large as this process may make one.
inline agent_status writing_status()
{
    return errno == ENOSPC || errno == EDQUOT || errno == EFBIG ? AGENT_ERR_NO_SPACE : AGENT_ERR_UNREADABLE;
}
