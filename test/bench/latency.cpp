#include "latency.h"

#include "bios_opcodes.h"
#include "version_messages.h"

request_reply ask_self_report(requester &client, unsigned slot)
{
    return client.ask(slot, MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(slot));
}
