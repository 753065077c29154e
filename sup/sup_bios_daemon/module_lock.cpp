// Module locks. While a BIOS is being programmed the active supervisor holds the lock of its own module and of
// the target. A peer may have a module locked on its behalf; that is a service of its own and independent of
// the programming locks. Runs in the daemon's loop; the programming child never touches a lock.
#include "module_lock.h"

#include <cerrno>

#include "bios_daemon_state.h"
#include "bios_log.h"
#include "bios_messages.h"
#include "bios_results.h"
#include "cmi.h"
#include "daemon_node.h"
#include "modlock.h"
#include "module_node.h"
#include "request_body.h"

namespace
{

constexpr std::uint32_t MODULE_LOCK_OWNER_ID = 129;
constexpr std::uint32_t PEER_LOCK_FAILED = 0x80000000;
constexpr std::uint32_t PEER_LOCK_ERRNO_MASK = 0xfff;

constexpr std::uint32_t supervisor_node_id(std::uint32_t module)
{
    return daemon_node(module, true);
}

std::uint32_t target_node_id(std::int32_t handle, std::uint32_t module)
{
    return get_nodeid_for_module(handle, module) & 0xffff;
}

std::int32_t take_lock(std::uint32_t node_id, std::uint32_t reason)
{
    const std::uint32_t request[MODLOCK_REQUEST_WORDS] = {1, 0, 0, reason};
    return modlock_module_lock(MODULE_LOCK_OWNER_ID, node_id, request);
}

std::int32_t release_lock(std::uint32_t node_id)
{
    return modlock_module_unlock(MODULE_LOCK_OWNER_ID, node_id);
}

std::uint32_t peer_failure()
{
    return PEER_LOCK_FAILED | (static_cast<std::uint32_t>(errno) & PEER_LOCK_ERRNO_MASK);
}

std::uint32_t lock_for_peer(std::uint32_t node_id)
{
    if (take_lock(node_id, BIOS_LOCK_FOR_PEER) != 0)
        return peer_failure();
    module_lock_held = 1;
    return BIOS_OK;
}

std::uint32_t unlock_for_peer(std::uint32_t node_id)
{
    if (release_lock(node_id) == 0) {
        module_lock_held = 0;
        return BIOS_OK;
    }
    // Unlocking what was never locked for a peer counts as done.
    return module_lock_held != 0 ? peer_failure() : BIOS_OK;
}

} // namespace

std::int32_t bios_daemon_acquire_lock(std::int32_t handle, std::uint32_t my_module_num,
                                      std::uint32_t programming_mod_num, std::uint32_t *lock_data)
{
    BIOS_LOG("locking module here ...");
    *lock_data = 1;

    const std::uint32_t own_node_id = supervisor_node_id(my_module_num);
    if (const std::int32_t rc = take_lock(own_node_id, BIOS_ERR_BUSY); rc != 0) {
        BIOS_LOG("(bios_daemon) ERROR: sup modlock failed err=%d rc=%d", errno, rc);
        (void)release_lock(own_node_id);
        *lock_data = 0;
        return bios_signed(BIOS_ERR_BUSY);
    }
    if (programming_mod_num == my_module_num)
        return 0;

    const std::uint32_t target = target_node_id(handle, programming_mod_num);
    if (const std::int32_t rc = take_lock(target, BIOS_ERR_BUSY); rc != 0) {
        BIOS_LOG("(bios_daemon) ERROR: lc modlock failed err=%d rc=%d", errno, rc);
        (void)release_lock(target);
        // The number is the target's, not the own module's: the own supervisor's lock stays held.
        (void)release_lock(supervisor_node_id(programming_mod_num));
        *lock_data = 0;
        return bios_signed(BIOS_ERR_BUSY);
    }
    return 0;
}

std::int32_t bios_daemon_release_lock(std::int32_t handle, std::uint32_t my_module_num,
                                      std::uint32_t programming_mod_num, std::uint32_t *lock_data)
{
    if (*lock_data == 0)
        return 0;
    BIOS_LOG("Unlocking module now");
    *lock_data = 0;
    // Released also when only the own module was locked; the lock service refuses the second unlock harmlessly.
    (void)release_lock(target_node_id(handle, programming_mod_num));
    (void)release_lock(supervisor_node_id(my_module_num));
    return 0;
}

void serve_module_lock(std::int32_t handle, mts_message_t *message, const void *payload)
{
    const auto request = request_body<bios_module_lock_req_t>(payload);
    const std::uint32_t node_id = request.node_id.load() & 0xffff;

    std::uint32_t result = BIOS_OK;
    switch (request.operation.load()) {
    case BIOS_MODULE_LOCK_TAKE:
        result = lock_for_peer(node_id);
        break;
    case BIOS_MODULE_LOCK_RELEASE:
        result = unlock_for_peer(node_id);
        break;
    default:
        break;
    }

    const bios_module_lock_reply_t reply{request.operation, request.node_id, be32::of(result)};
    (void)cmi_response(&reply, sizeof reply, handle, message, 0);
}
