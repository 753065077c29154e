#include "event_heads.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <sstream>

#include "chassis_dir.h"
#include "daemon_node.h"
#include "hex_text.h"
#include "inventory_value.h"
#include "monotonic_clock.h"
#include "mts_tools.h"
#include "pfm.h"
#include "sha256.h"

namespace
{

constexpr std::size_t FILE_BYTES_MAX = 1 << 20;

std::string file_path()
{
    return chassis_slot_path(chassis_own_slot(), "event_heads");
}

bool is_possible(unsigned slot, unsigned instance, std::uint64_t sequence)
{
    return slot >= 1 && slot <= PFM_MODULE_COUNT && instance < FLASH_INSTANCE_COUNT && sequence >= 1 &&
           sequence <= FLASH_EVENT_SEQUENCE_MAX;
}

std::unique_ptr<head_teller> &own_teller()
{
    static std::unique_ptr<head_teller> teller;
    return teller;
}

} // namespace

std::string event_heads_format(const event_heads &heads)
{
    std::string text;
    for (const auto &[place, head] : heads)
        text += std::to_string(place.first) + " " + std::to_string(place.second) + " " +
                std::to_string(head.sequence) + " " + head.chain + "\n";
    return text;
}

event_heads event_heads_parse(const std::string &text)
{
    event_heads heads;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        unsigned slot = 0;
        unsigned instance = 0;
        event_head head;
        sha256_digest digest;
        if (fields >> slot >> instance >> head.sequence >> head.chain &&
            is_possible(slot, instance, head.sequence) && parse_hex_text(head.chain, digest))
            heads[{slot, instance}] = head;
    }
    return heads;
}

event_heads load_event_heads()
{
    std::string text;
    return chassis_read_file(file_path(), text, FILE_BYTES_MAX) ? event_heads_parse(text) : event_heads();
}

void take_event_head(mts_address_t from, const void *body, std::size_t bytes)
{
    agent_event_head_t told{};
    if (bytes != sizeof told)
        return;
    std::memcpy(&told, body, sizeof told);
    const unsigned slot = told.slot.load();
    const unsigned instance = told.instance.load();
    const std::uint64_t sequence = told.sequence.load();
    if (!is_possible(slot, instance, sequence) || from.sap != AGENT_SAP || from.node != mts_node_of_slot(slot) ||
        slot == chassis_own_slot())
        return;
    sha256_digest digest;
    std::ranges::copy(told.chain, digest.begin());
    event_heads heads = load_event_heads();
    event_head &known = heads[{slot, instance}];
    if (sequence <= known.sequence)
        return;
    known = {sequence, sha256_text(digest)};
    (void)chassis_write_file(file_path(), event_heads_format(heads));
}

answer head_answer(const agent_head_req_t &request)
{
    const event_heads heads = load_event_heads();
    const auto found = heads.find({request.slot.load(), request.instance.load()});
    answer given;
    if (found == heads.end())
        return given;
    agent_event_head_t head{request.slot, request.instance, be64::of(found->second.sequence), {}};
    sha256_digest digest{};
    if (parse_hex_text(found->second.chain, digest))
        std::ranges::copy(digest, head.chain);
    given.add(head);
    return given;
}

std::int64_t head_teller::wait_limit_us() const
{
    return std::max<std::int64_t>(next_look_us_ - now_us_(), 0);
}

void head_teller::tick()
{
    const std::int64_t now = now_us_();
    if (now < next_look_us_)
        return;
    next_look_us_ = now + HEAD_LOOK_US;
    for (unsigned instance = 0; instance < FLASH_INSTANCE_COUNT; ++instance) {
        const flash_event_log_state state = flash_event_log_state_of(chassis_own_slot(), instance);
        const bool is_due = told_us_[instance] == 0 || now - told_us_[instance] >= HEAD_AGAIN_US;
        if (state == told_state_[instance] && !is_due)
            continue;
        told_state_[instance] = state;
        told_us_[instance] = now;
        tell(instance);
    }
}

void head_teller::tell(unsigned instance)
{
    const unsigned own_slot = chassis_own_slot();
    const auto last = flash_event_last_of(own_slot, instance);
    sha256_digest digest{};
    if (!last || !parse_hex_text(last->chain, digest))
        return;
    agent_event_head_t head{be32::of(own_slot), be32::of(instance), be64::of(last->sequence), {}};
    std::ranges::copy(digest, head.chain);
    for (unsigned slot = 1; slot <= PFM_MODULE_COUNT; ++slot) {
        if (slot != own_slot && is_supervisor_kind(inventory_value(slot, "kind")))
            send_({mts_node_of_slot(slot), AGENT_SAP}, head);
    }
}

void start_head_teller(std::int32_t handle)
{
    own_teller() = std::make_unique<head_teller>(
        [handle](mts_address_t to, const agent_event_head_t &head) {
            (void)mts_send(handle, to.node, to.sap, AGENT_OPC_EVENT_HEAD, &head, sizeof head, 0, 0, 0);
        },
        monotonic_us);
}

head_teller *card_head_teller()
{
    return own_teller().get();
}
