#include "source_version.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bios_daemon_state.h"
#include "bios_flash.h"
#include "bios_log.h"
#include "bios_opcodes.h"
#include "bios_results.h"
#include "card_table.h"
#include "cmi.h"
#include "free_block.h"
#include "pfm.h"
#include "text_field.h"

namespace
{

constexpr std::int32_t NO_MEMORY = 12;
constexpr std::size_t PATH_BYTES = 256;
constexpr std::size_t SCRATCH_BYTES = 256;

// The image that a request names. A text that fills its field is cut there.
class named_image
{
public:
    explicit named_image(const bios_src_version_req &request) : in_tree_(request.def != 0)
    {
        (void)std::snprintf(path_, sizeof path_, "%.*s", static_cast<int>(sizeof path_ - 1), request.image_path);
    }
    const char *path() const { return in_tree_ ? nullptr : path_; } // null for the image tree

private:
    bool in_tree_;
    char path_[sizeof(bios_src_version_req::image_path)];
};

// What the walk over the rows works on.
struct walk {
    std::int32_t handle;
    const bios_src_version_req &request;
    const char *image_path; // null for the image tree
    bios_src_version_entry *entries;
    std::uint32_t filled;
    std::int32_t status;
};

enum class row_outcome { next_row, end_of_walk };

bool wants_progress(const bios_src_version_req &request)
{
    return request.progress_addr.node != MTS_NODE_LISTENERS || request.progress_addr.sap != 0;
}

// Sent before a row is worked on: the first row sends none, and 100 is never sent.
void send_progress(const walk &w, std::uint32_t row, std::uint32_t rows)
{
    if (!wants_progress(w.request))
        return;
    const std::uint32_t percent = 100 * row / rows;
    if (percent != 0)
        (void)mts_send(w.handle, w.request.progress_addr.node, w.request.progress_addr.sap,
                       MTS_OPC_BIOS_SRC_VERSION_PROGRESS, &percent, sizeof percent, 0, 0, 0);
}

// The clean-up operation's result, logged when it failed.
std::int32_t clean_up(const walk &w, const bios_flash_entry &row)
{
    const std::int32_t result = row.cleanup(w.handle, row.flash_type, w.image_path, row.src_path, row.tmp_path);
    if (result != 0)
        BIOS_LOG("error: in cleanup err=%x \n", static_cast<unsigned>(result));
    return result;
}

void fill_entry(walk &w, const bios_flash_entry &row, const char *version)
{
    bios_src_version_entry &entry = w.entries[w.filled];
    entry = {};
    entry.swid.store(row.flash_type);
    store_text(entry.swid_str, row.sw_id_str);
    std::memcpy(entry.ver, version, sizeof entry.ver);
    entry.src_id.store(row.sw_src_id);
    BIOS_LOG("(%d) swid=%d swidstr=%s src_id = %d ver=%s\n", static_cast<int>(w.filled),
             static_cast<int>(row.flash_type), row.sw_id_str, static_cast<int>(row.sw_src_id), version);
}

// The version was not to be had. A clean-up that succeeds turns the answer into a success with the entries so far.
void give_up(walk &w, const bios_flash_entry &row)
{
    BIOS_LOG("error: in getting source version err=%x \n", static_cast<unsigned>(w.status));
    src_version_chk = 0;
    if (row.cleanup != nullptr)
        w.status = clean_up(w, row);
}

row_outcome report_row(walk &w, const bios_flash_entry &row, std::uint32_t k, std::uint32_t rows)
{
    if (row.flash_instance != 0)
        return row_outcome::next_row;
    BIOS_LOG("--- starting extraction in active %d out of %d\n", static_cast<int>(k), static_cast<int>(rows));
    if (row.flash_type == 0) {
        BIOS_LOG("SKIPPING entry %d bios id invalid\n", static_cast<int>(k));
        return row_outcome::next_row;
    }
    if (row.extract == nullptr) {
        w.status = bios_signed(BIOS_ERR_NO_OPERATION);
        return row_outcome::end_of_walk;
    }
    const std::int32_t extracted = row.extract(w.handle, row.flash_type, w.image_path, row.src_path, row.tmp_path);
    if (extracted != 0) {
        BIOS_LOG("error: in extracting err=%x \n", static_cast<unsigned>(extracted));
        w.status = row.cleanup != nullptr ? clean_up(w, row) : 0;
        return row_outcome::next_row;
    }

    BIOS_LOG("pathname=%s, bios_src=%s\n", row.src_path, row.tmp_path);
    char path[PATH_BYTES];
    (void)std::snprintf(path, sizeof path, "%s", row.tmp_path);
    char version[SCRATCH_BYTES] = {};
    src_version_chk = 1; // stays 1 after a successful read
    w.status = row.image_src_version(path, version, row.sw_src_id);
    if (w.status != 0) {
        give_up(w, row);
        return row_outcome::end_of_walk;
    }
    fill_entry(w, row, version);
    if (row.cleanup == nullptr) {
        w.status = bios_signed(BIOS_ERR_NO_OPERATION);
        return row_outcome::end_of_walk;
    }
    (void)clean_up(w, row);
    ++w.filled;
    return row_outcome::next_row;
}

void walk_rows(walk &w, const bios_card_table &table)
{
    for (std::uint32_t k = 0; k < table.count; ++k) {
        send_progress(w, k, table.count);
        if (report_row(w, table.entries()[k], k, table.count) == row_outcome::end_of_walk)
            return;
    }
}

// The rows of this card, or null and why there are none.
owned_card_table own_rows(std::int32_t &status)
{
    BIOS_LOG("get the sw card id.....");
    card_module_info_t info = {};
    if (get_card_module_info(&info) != 0) {
        BIOS_LOG("SYSERR_BIOS_PFM_GET_MODULES_FAILED.");
        status = bios_signed(BIOS_ERR_MODULE_INFO);
        return nullptr;
    }
    BIOS_LOG("sw card id = %d", info.card_id);
    const bool first_generation = info.card_id == 39 || info.card_id == 44 || info.card_id == 40;
    BIOS_LOG("%s", first_generation ? "case 1" : "case 2"); // told apart in the log alone
    owned_card_table table(bios_get_card_id_ent(info.card_id, 0));
    status = table == nullptr ? bios_signed(BIOS_ERR_NO_ENTRIES) : 0;
    return table;
}

std::int32_t report_without_entries(std::int32_t handle, mts_message_t *msg, std::size_t length,
                                    std::int32_t status)
{
    (void)cmi_response(nullptr, static_cast<std::uint32_t>(length), handle, msg, 0);
    return status;
}

} // namespace

std::int32_t bios_return_src_version(std::int32_t handle, const bios_src_version_req *request, mts_message_t *msg)
{
    const named_image image(*request);
    std::int32_t status = 0;
    owned_card_table table = own_rows(status);
    if (table == nullptr)
        return report_without_entries(handle, msg, sizeof(bios_src_version_reply), status);

    const std::size_t length = sizeof(bios_src_version_reply) + table->count * sizeof(bios_src_version_entry);
    const owned_block<std::uint8_t> reply(static_cast<std::uint8_t *>(std::calloc(1, length)));
    if (reply == nullptr) {
        table.reset();
        return report_without_entries(handle, msg, length, NO_MEMORY);
    }

    auto *entries = reinterpret_cast<bios_src_version_entry *>(reply.get() + sizeof(bios_src_version_reply));
    walk w = {handle, *request, image.path(), entries, 0, 0};
    walk_rows(w, *table);
    auto *header = reinterpret_cast<bios_src_version_reply *>(reply.get());
    header->status.store(static_cast<std::uint32_t>(w.status));
    header->count.store(w.filled);
    table.reset();
    (void)cmi_response(reply.get(), static_cast<std::uint32_t>(length), handle, msg, 0);
    return w.status;
}
