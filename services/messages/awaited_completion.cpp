#include "awaited_completion.h"

#include <cstring>
#include <string_view>

#include "agent_messages.h"
#include "bios_messages.h"
#include "bios_opcodes.h"
#include "bios_results.h"
#include "flash_event.h"
#include "mts_endpoint.h"
#include "mts_request_id.h"
#include "text_field.h"

namespace
{

constexpr std::int64_t LOOK_INTERVAL_US = MICROSECONDS;
constexpr std::int64_t QUIET_US = 3 * MICROSECONDS;   // without progress; then the agent is asked who writes
constexpr std::int64_t RESULT_WAIT_US = MICROSECONDS; // for the agent's word on the result
constexpr std::size_t SECONDS_TEXT_BYTES = 19;        // "2026-01-31T23:59:59"

// Takes a record from the front of an answer.
template<class Record>
bool take_record(std::string_view &bytes, Record &record)
{
    if (bytes.size() < sizeof record)
        return false;
    std::memcpy(&record, bytes.data(), sizeof record);
    bytes.remove_prefix(sizeof record);
    return true;
}

std::string_view bytes_of(const mts_message &message)
{
    return {reinterpret_cast<const char *>(message.payload), message.header.payload_bytes};
}

// Where the last line begins.
std::size_t last_line_at(std::string_view lines)
{
    const std::size_t newline = lines.substr(0, lines.size() - 1).rfind('\n');
    return newline == std::string_view::npos ? 0 : newline + 1;
}

// Only the codes of a programming travel in the report of its end.
bool is_reportable(std::uint32_t result)
{
    return (result & ~0xffU) == BIOS_RESULT_PREFIX || result == BIOS_OK;
}

} // namespace

awaited_completion::awaited_completion(mts_address_t target, const datagram_peer &peer, std::uint32_t instance)
    : target_(target),
      peer_(peer),
      instance_(instance),
      next_look_us_(monotonic_us() + LOOK_INTERVAL_US),
      last_sign_us_(monotonic_us()),
      result_(BIOS_ERR_NO_COMPLETION)
{
}

void awaited_completion::look(mts_endpoint &endpoint)
{
    const std::int64_t now = monotonic_us();
    if (state_ == state::asking_for_result && now >= result_until_us_)
        give_up();
    if (state_ != state::waiting || now < next_look_us_)
        return;
    next_look_us_ = now + LOOK_INTERVAL_US;
    const bool is_gone = !card_datagram_driver->is_there(endpoint.port, target_, peer_);
    if (is_gone || now - last_sign_us_ >= COMPLETION_PATIENCE_US)
        ask_for_result(endpoint);
    else if (!writer_ || now - last_sign_us_ >= QUIET_US)
        ask(endpoint, AGENT_OPC_GET_CARD, nullptr, 0);
}

// The question may get lost: it is asked again at the next look, and an answer to an older one is no one's.
void awaited_completion::ask(mts_endpoint &endpoint, std::uint32_t opcode, const void *body, std::uint32_t bytes)
{
    static constexpr std::uint8_t REQUEST_HEADER[MTS_REQUEST_HEADER_BYTES] = {};
    mts_frame_header header{};
    header.kind = mts_frame_kind::request;
    header.opcode = opcode;
    header.wait_ms = static_cast<std::uint32_t>(LOOK_INTERVAL_US / 1000);
    header.request_id = asked_id_ = mts_next_request_id();
    asked_opcode_ = opcode;
    const mts_payload payload = {REQUEST_HEADER, sizeof REQUEST_HEADER, body, bytes};
    if (mts_endpoint_send(endpoint, {target_.node, AGENT_SAP}, header, payload, nullptr) != 0)
        asked_id_ = 0;
}

void awaited_completion::ask_for_result(mts_endpoint &endpoint)
{
    if (!writer_)
        return give_up(); // what the agent could tell would be of another programming
    const agent_events_req_t all = {be32::of(instance_), be64::of(0)};
    ask(endpoint, AGENT_OPC_GET_EVENTS, &all, sizeof all);
    if (asked_id_ == 0)
        return give_up();
    state_ = state::asking_for_result;
    next_look_us_ = result_until_us_ = monotonic_us() + RESULT_WAIT_US;
}

void awaited_completion::give_up()
{
    state_ = state::given_up;
    given_up_us_ = monotonic_us();
}

bool awaited_completion::takes(const mts_message &message)
{
    const mts_frame_header &header = message.header;
    const bool is_answer = header.kind == mts_frame_kind::response || header.kind == mts_frame_kind::reject;
    if (!is_answer || asked_id_ == 0 || header.request_id != asked_id_)
        return false;
    asked_id_ = 0;
    const bool is_good = header.kind == mts_frame_kind::response && header.status == AGENT_OK;
    if (is_good && asked_opcode_ == AGENT_OPC_GET_CARD)
        take_card(message);
    if (is_good && asked_opcode_ == AGENT_OPC_GET_EVENTS)
        take_events(message);
    if (state_ == state::asking_for_result)
        give_up();
    return true;
}

void awaited_completion::take_card(const mts_message &answer)
{
    std::string_view rest = bytes_of(answer);
    agent_card_t card;
    agent_flash_t flash;
    if (!take_record(rest, card))
        return;
    while (take_record(rest, flash)) {
        if (flash.instance.load() != instance_ || (flash.state.load() & AGENT_FLASH_HAS_WRITER) == 0)
            continue;
        last_sign_us_ = monotonic_us();
        if ((flash.state.load() & AGENT_FLASH_HAS_PROGRESS) != 0)
            writer_ = {flash.pid.load(), field_text(flash.since).text};
    }
}

// The end of what the writer has begun; both times are of the target's clock.
void awaited_completion::take_events(const mts_message &answer)
{
    std::string_view lines = bytes_of(answer);
    while (!lines.empty()) {
        const std::size_t at = last_line_at(lines);
        const std::string_view line = lines.substr(at, lines.size() - at - 1);
        const auto event = flash_event_parse(line);
        lines = lines.substr(0, at);
        if (!event)
            continue;
        if (event->time.compare(0, SECONDS_TEXT_BYTES, writer_->since, 0, SECONDS_TEXT_BYTES) < 0)
            return;
        if (event->pid != writer_->pid || event->kind != flash_event_kind::ended || !event->result)
            continue;
        if (is_reportable(*event->result))
            result_ = *event->result;
        return;
    }
}

void awaited_completion::notice(const mts_message &message)
{
    const mts_frame_header &header = message.header;
    if (header.kind == mts_frame_kind::unsolicited && header.opcode == MTS_OPC_BIOS_PROGRAMMING_PROGRESS &&
        header.source_node == target_.node)
        last_sign_us_ = monotonic_us();
}

bool awaited_completion::is_ended_by(const mts_message &message) const
{
    return message.header.opcode == MTS_OPC_BIOS_PROGRAMMING_DONE;
}

mts_held_message awaited_completion::made() const
{
    const bios_programming_done_t done{be32::of(result_)};
    mts_frame_header header{};
    header.magic = MTS_FRAME_MAGIC;
    header.version = MTS_FRAME_VERSION;
    header.kind = mts_frame_kind::unsolicited;
    header.opcode = MTS_OPC_BIOS_PROGRAMMING_DONE;
    header.source_node = target_.node;
    header.source_sap = target_.sap;
    header.payload_bytes = sizeof done;
    mts_held_message message = mts_message_for(header);
    if (message)
        std::memcpy(message->payload, &done, sizeof done);
    return message;
}
