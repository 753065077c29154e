#include "agent_requests.h"

#include <algorithm>
#include <cstring>

#include "c_boundary.h"
#include "card_facts.h"
#include "card_roster.h"
#include "card_transfers.h"
#include "chassis_facts.h"
#include "cmi.h"
#include "event_heads.h"
#include "file_requests.h"
#include "flash_digest.h"
#include "flash_history.h"
#include "flash_orders.h"
#include "image_check.h"
#include "image_facts.h"
#include "module_locks.h"
#include "mts_tools.h"
#include "operator_locks.h"
#include "programming_results.h"
#include "version_facts.h"
#include "worker.h"

namespace
{

using request_body = std::span<const std::uint8_t>;

// A request whose body is one record.
template<class Record>
answer with_record(request_body body, answer (*serve)(const Record &))
{
    if (body.size() != sizeof(Record))
        return AGENT_ERR_REQUEST;
    Record record;
    std::memcpy(&record, body.data(), sizeof record);
    return serve(record);
}

answer without_body(request_body body, answer (*serve)())
{
    return body.empty() ? serve() : AGENT_ERR_REQUEST;
}

struct served_opcode {
    agent_opcode opcode;
    answer (*serve)(request_body body);
    bool takes_long = false; // a worker's
};

constexpr served_opcode SERVED_OPCODES[] = {
    {AGENT_OPC_GET_CHASSIS, [](request_body body) { return without_body(body, chassis_answer); }},
    {AGENT_OPC_GET_CARD, [](request_body body) { return without_body(body, card_answer); }},
    {AGENT_OPC_GET_VERSION, [](request_body body) { return with_record(body, version_answer); }},
    {AGENT_OPC_GET_EVENTS, [](request_body body) { return with_record(body, events_answer); }},
    {AGENT_OPC_GET_TOTALS, [](request_body body) { return with_record(body, totals_answer); }},
    {AGENT_OPC_GET_LOCKS, [](request_body body) { return without_body(body, locks_answer); }},
    {AGENT_OPC_OPERATOR_LOCK, [](request_body body) { return with_record(body, operator_lock_answer); }},
    {AGENT_OPC_OPERATOR_UNLOCK, [](request_body body) { return with_record(body, operator_unlock_answer); }},
    {AGENT_OPC_GET_RESULTS, [](request_body body) { return without_body(body, results_answer); }},
    {AGENT_OPC_GET_IMAGE, [](request_body body) { return with_record(body, image_answer); }, true},
    {AGENT_OPC_GET_DIGEST, [](request_body body) { return with_record(body, digest_answer); }, true},
    {AGENT_OPC_ORDER_FLASH, [](request_body body) { return with_record(body, order_answer); }},
    {AGENT_OPC_RENEW_ORDER, [](request_body body) { return with_record(body, renewal_answer); }},
    {AGENT_OPC_END_ORDER, [](request_body body) { return with_record(body, order_end_answer); }},
    {AGENT_OPC_CANCEL_ORDER, [](request_body body) { return with_record(body, cancellation_answer); }},
    {AGENT_OPC_GET_ORDER, [](request_body body) { return with_record(body, order_record_answer); }},
    {AGENT_OPC_VERIFY_IMAGE, [](request_body body) { return with_record(body, verified_answer); }, true},
    {AGENT_OPC_GET_VERSIONS, [](request_body body) { return without_body(body, versions_answer); }},
    {AGENT_OPC_GET_OUTCOME, [](request_body body) { return without_body(body, outcome_answer); }},
    {AGENT_OPC_GET_HEAD, [](request_body body) { return with_record(body, head_answer); }},
    {AGENT_OPC_GET_LOG_FAULTS, [](request_body body) { return with_record(body, log_faults_answer); }},
};

// Null for an opcode that is not served.
const served_opcode *row_of(std::uint32_t opcode)
{
    const auto *row = std::find_if(std::begin(SERVED_OPCODES), std::end(SERVED_OPCODES),
                                   [opcode](const served_opcode &one) { return one.opcode == opcode; });
    return row != std::end(SERVED_OPCODES) ? row : nullptr;
}

// The body behind the header that the transport puts before it; none in a message that is too short for one.
std::optional<request_body> body_of(mts_message_t *message)
{
    const std::uint32_t bytes = mts_payload_length(message);
    if (bytes < MTS_REQUEST_HEADER_BYTES)
        return std::nullopt;
    const auto *payload = static_cast<const std::uint8_t *>(mts_payload_get(message));
    return request_body(payload + MTS_REQUEST_HEADER_BYTES, bytes - MTS_REQUEST_HEADER_BYTES);
}

bool is_about_a_lock(std::uint32_t opcode)
{
    return opcode >= AGENT_OPC_LOCK && opcode <= AGENT_OPC_LOCK_ANSWER;
}

// These are no requests: one that is made of such an opcode is rejected.
void serve_lock_message(std::int32_t handle, mts_message_t *message)
{
    mts_address_t from{};
    if (lock_service *locks = module_locks(); locks != nullptr && mts_saddr_get(message, &from) == 0)
        locks->take(from, mts_opc_get(message), static_cast<const std::uint8_t *>(mts_payload_get(message)),
                    mts_payload_length(message));
    (void)mts_respond_reject(handle, 0, 0, message, 0, 0);
}

// Neither are these.
void serve_event_head(std::int32_t handle, mts_message_t *message)
{
    mts_address_t from{};
    if (mts_saddr_get(message, &from) == 0)
        take_event_head(from, mts_payload_get(message), mts_payload_length(message));
    (void)mts_respond_reject(handle, 0, 0, message, 0, 0);
}

void serve_card_is_there(std::int32_t handle, mts_message_t *message)
{
    mts_address_t from{};
    card_roster *roster = own_card_roster();
    if (roster != nullptr && mts_saddr_get(message, &from) == 0)
        best_effort([&] { roster->take(from, mts_payload_get(message), mts_payload_length(message)); });
    (void)mts_respond_reject(handle, 0, 0, message, 0, 0);
}

// Whether the message is kept, for a worker.
bool respond(std::int32_t handle, mts_message_t *message)
{
    if (is_about_a_lock(mts_opc_get(message))) {
        serve_lock_message(handle, message);
        return false;
    }
    if (mts_opc_get(message) == AGENT_OPC_EVENT_HEAD) {
        serve_event_head(handle, message);
        return false;
    }
    if (mts_opc_get(message) == AGENT_OPC_CARD_IS_THERE) {
        serve_card_is_there(handle, message);
        return false;
    }
    const auto body = body_of(message);
    const std::uint32_t opcode = mts_opc_get(message);
    const served_opcode *row = row_of(opcode);
    if (row != nullptr && row->takes_long && body)
        return answer_by_worker(handle, message, [&] { return row->serve(*body); });
    mts_address_t from{};
    (void)mts_saddr_get(message, &from); // fails for null only
    const auto given = body ? answer_to(opcode, *body, from) : std::nullopt;
    if (!given) {
        (void)mts_respond_reject(handle, 0, 0, message, 0, 0);
        return false;
    }
    // Who has asked may be gone.
    (void)cmi_response(given->payload().data(), static_cast<std::uint32_t>(given->payload().size()), handle,
                       message, given->status());
    return false;
}

} // namespace

std::optional<answer> answer_to(std::uint32_t opcode, std::span<const std::uint8_t> body, mts_address_t from)
{
    if (file_transfers *transfers = card_transfers(); transfers != nullptr && is_about_files(opcode))
        return answer_about_files(*transfers, from, opcode, body);
    const served_opcode *row = row_of(opcode);
    return row != nullptr ? std::optional(row->serve(body)) : std::nullopt;
}

void serve(std::int32_t handle, mts_message *message)
{
    bool is_kept = false;
    const bool served = c_boundary(false, [&] {
        is_kept = respond(handle, message);
        return true;
    });
    if (!served) // no memory; whoever has asked is not left waiting
        (void)cmi_response(nullptr, 0, handle, message, AGENT_ERR_UNREADABLE);
    if (!is_kept)
        (void)mts_drop(handle, message);
}
