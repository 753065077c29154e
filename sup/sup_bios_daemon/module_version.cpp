#include "module_version.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "bios_log.h"
#include "bios_messages.h"
#include "bios_opcodes.h"
#include "cmi.h"
#include "endpoints.h"
#include "free_block.h"
#include "module_node.h"
#include "text_field.h"
#include "tlv.h"

namespace
{

constexpr std::uint32_t REQUEST_BODY_BYTES = 4; // the tag; no receiver looks at it

constexpr std::uint32_t FORWARDED_SWID = 11; // whatever the module sent
constexpr const char *FORWARDED_LABEL = "swid-bios";
constexpr std::size_t TEXT_BYTES = 127; // of each 128-byte text field

struct answer_to {
    std::int32_t handle;
    mts_message_t *msg;
    std::uint32_t module_num;
};

void answer_failure(const answer_to &to)
{
    const bios_version_failure_t failure = {be32::of(0xffffffff), be32::of(to.module_num), {}, {}};
    (void)cmi_response(&failure, sizeof failure, to.handle, to.msg, 0);
}

// The answer's memory, zeroed, with its header; null when it is larger than any message or memory runs out.
owned_block<bios_new_vers_message> new_answer(const answer_to &to, std::uint64_t total, std::uint32_t num_entries,
                                              be32 bios_id)
{
    if (total > MTS_MAX_PAYLOAD_BYTES) {
        errno = ENOMEM; // answered and logged like an allocation that failed
        return nullptr;
    }
    owned_block<bios_new_vers_message> message(
        static_cast<bios_new_vers_message *>(std::calloc(1, static_cast<std::size_t>(total))));
    if (message == nullptr)
        return nullptr;
    message->module_num.store(to.module_num);
    message->num_entries.store(num_entries);
    message->bios_id = bios_id;
    return message;
}

bios_version_entry *entries_of(bios_new_vers_message *message)
{
    return reinterpret_cast<bios_version_entry *>(message + 1);
}

void fill_entry(bios_version_entry &entry, be32 stat, const char *label, const char *cur, const char *run)
{
    entry.stat = stat;
    entry.swid.store(FORWARDED_SWID);
    store_text(entry.swid_str, label, TEXT_BYTES);
    store_text(entry.cur, cur, TEXT_BYTES);
    store_text(entry.run, run, TEXT_BYTES);
}

std::int32_t forward_short_form(const answer_to &to, const bios_get_lc_version_t &response)
{
    constexpr std::uint32_t TOTAL = sizeof(bios_new_vers_message) + sizeof(bios_version_entry);
    BIOS_LOG("Total msg_length is %d\n", static_cast<int>(TOTAL));
    const auto message = new_answer(to, TOTAL, 1, be32::of(FORWARDED_SWID));
    if (message == nullptr) {
        answer_failure(to);
        return -1;
    }
    fill_entry(entries_of(message.get())[0], response.stat, FORWARDED_LABEL, response.cur, response.run);
    (void)cmi_response(message.get(), TOTAL, to.handle, to.msg, 0);
    return 0;
}

// One TLV of the module's answer. What is rejected is logged and leaves its entry unwritten.
void forward_tlv(bios_version_entry &entry, std::uint16_t type, std::uint16_t length, const void *value)
{
    if (type == BIOS_TLV_VERSION_ENTRY && length == sizeof(bios_version_entry)) {
        const auto *sent = static_cast<const bios_version_entry *>(value);
        fill_entry(entry, sent->stat, sent->swid_str, sent->cur, sent->run);
        BIOS_LOG("swid=%d swid_str=%s ver=%s\n", static_cast<int>(sent->swid.load()),
                 field_text(sent->swid_str).text, field_text(sent->cur).text);
    } else if (type == BIOS_TLV_VERSION_ENTRY) {
        BIOS_LOG("ERROR: length mismatch %d and %d\n", length, static_cast<int>(sizeof(bios_version_entry)));
    } else if (type == BIOS_TLV_IGNORED && length != 1) {
        BIOS_LOG("ERROR: Unexpected size %d for type %d \n", length, 1);
    }
}

void forward_further_rows(const tlv_aligned_array_t &array, bios_version_entry *entries, std::uint32_t num_entries)
{
    std::uint32_t cursor = 0;
    for (std::uint32_t i = 1; i < num_entries; ++i) {
        std::uint16_t type = 0;
        std::uint16_t length = 0;
        const void *value = nullptr;
        if (tlv_aligned_array_get_next_tlv(&array, &type, &length, &value, 1, &cursor) != 0)
            return;
        forward_tlv(entries[i], type, length, value);
    }
}

// Also for an answer that ends before its array: the count is read all the same, and is 0 beyond the end.
std::int32_t forward_full_form(const answer_to &to, const bios_compat_version_msg_t &response)
{
    std::uint32_t count_as_sent = 0;
    std::memcpy(&count_as_sent, &response.further_rows.count, sizeof count_as_sent);
    BIOS_LOG("Num Entry from Mod %d \n", static_cast<int>(count_as_sent));
    const std::uint32_t num_entries = response.further_rows.count.load() + 1;
    BIOS_LOG("Num elem in Sup %d\n", static_cast<int>(num_entries));
    const std::uint64_t total =
        sizeof(bios_version_entry) * (std::uint64_t{response.further_rows.count.load()} + 1) +
        sizeof(bios_new_vers_message);
    BIOS_LOG("Total length is %d\n", static_cast<int>(total));

    const auto message = new_answer(to, total, num_entries, response.swid.swid);
    if (message == nullptr) {
        BIOS_LOG("ERROR: could not allocated the mesg err=%d\n", errno);
        answer_failure(to);
        return -1;
    }
    bios_version_entry *entries = entries_of(message.get());
    fill_entry(entries[0], response.version.stat, response.swid.swid_str, response.version.cur,
               response.version.run);
    forward_further_rows(response.further_rows, entries, num_entries);
    (void)cmi_response(message.get(), static_cast<std::uint32_t>(total), to.handle, to.msg, 0);
    return 0;
}

} // namespace

std::int32_t bios_get_version_info_from_mod(std::int32_t handle, std::uint32_t module_num, mts_message_t *msg,
                                            const pfm_module_record_t *, std::uint32_t module)
{
    const answer_to to = {handle, msg, module_num};
    const std::uint32_t node = get_nodeid_for_module(handle, module) & 0xffff;
    BIOS_LOG("mod=%d dest_node=%x\n", static_cast<int>(module), node);

    void *response_block = nullptr;
    std::uint32_t length = REQUEST_BODY_BYTES;
    const std::int32_t rc = cmi_remote_req_resp(MTS_OPC_BIOS_GET_LC_BIOS_VERSION, REQUEST_TYPE, &length,
                                                &response_block, &length, MODULE_REQUEST_TAG, MODULE_REQUEST_TAG,
                                                BIOS_DAEMON_SAP, node, handle, MODULE_REQUEST_WAIT_LIMIT);
    const owned_block<void> response(response_block);
    BIOS_LOG("resp = %d\n", rc);
    if (rc != 0) {
        BIOS_LOG("Could not send bios upgrade cmd to the modules err=%d retcode=%d\n", errno, rc);
        answer_failure(to);
        return rc;
    }

    BIOS_LOG("Got message length = %d\n", static_cast<int>(length));
    if (response == nullptr || length < sizeof(bios_get_lc_version_t)) {
        answer_failure(to);
        return -1;
    }
    if (length == sizeof(bios_get_lc_version_t))
        return forward_short_form(to, *static_cast<const bios_get_lc_version_t *>(response.get()));
    return forward_full_form(to, *static_cast<const bios_compat_version_msg_t *>(response.get()));
}
