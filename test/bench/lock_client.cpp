#include "lock_client.h"

#include <cstdlib>
#include <stdexcept>

#include "bios_messages.h"
#include "bios_opcodes.h"
#include "cmi.h"
#include "endpoints.h"
#include "mts_tools.h"
#include "version_messages.h"

namespace
{

constexpr std::uint32_t WAIT_LIMIT_S = 60;
constexpr std::uint32_t NEVER_LOCKED = 0x4242; // node id of no card

} // namespace

lock_client::lock_client(unsigned slot)
    : handle_(mts_bind(BIND_KIND, ANY_SAP, BIND_OPTIONS, "bench")),
      node_(mts_node_of_slot(slot)),
      body_(be32_bytes(BIOS_MODULE_LOCK_RELEASE) + be32_bytes(NEVER_LOCKED))
{
}

void lock_client::unlock() const
{
    void *answer = nullptr;
    auto length = static_cast<std::uint32_t>(body_.size());
    const std::int32_t status =
        cmi_remote_req_resp(MTS_OPC_BIOS_MODULE_LOCK, REQUEST_TYPE, body_.data(), &answer, &length, "bench",
                            "bench", BIOS_DAEMON_SAP, node_, handle_, WAIT_LIMIT_S);
    std::free(answer);
    if (status != 0 || length != sizeof(bios_module_lock_reply_t))
        throw std::runtime_error("a request was not answered");
}
