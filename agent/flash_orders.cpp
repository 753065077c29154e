#include "flash_orders.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <span>

#include "bios_refusals.h"
#include "card_demands.h"
#include "card_identification.h"
#include "card_table.h"
#include "chassis_dir.h"
#include "flash_claim.h"
#include "flash_device.h"
#include "flash_geometry.h"
#include "flash_order.h"
#include "image_judgement.h"
#include "inventory_value.h"
#include "monotonic_clock.h"
#include "programming_child.h"
#include "unpacking_room.h"
#include "utc_time.h"
#include "writing_status.h"

namespace
{

// What an order is judged against; none when that cannot be found out.
//   failure_out  why not
std::optional<flash_facts> facts_of(unsigned instance, agent_status &failure_out)
{
    const auto flash = flash_device::open(instance, flash_access::read);
    if (!flash) {
        failure_out = AGENT_ERR_FLASH;
        return std::nullopt;
    }
    flash_facts facts{.size_bytes = flash->geometry().size_bytes, .version = version_in_flash(*flash)};
    if (!read_card_demands(facts)) {
        failure_out = static_cast<agent_status>(BIOS_REFUSED_NOT_CHECKED);
        return std::nullopt;
    }
    return facts;
}

// What was told of an image; none when no agent tells that.
std::optional<image_facts> facts_of(const agent_image_t &told)
{
    image_facts image{.size_bytes = told.size_bytes.load(),
                      .version = field_text(told.version).text,
                      .signature = told.signature.load()};
    switch (told.manifest_state.load()) {
    case AGENT_MANIFEST_NONE:
        return image;
    case AGENT_MANIFEST_DAMAGED:
        image.manifest_state = image_manifest_state::damaged;
        return image;
    case AGENT_MANIFEST_INTACT:
        break;
    default:
        return std::nullopt;
    }
    image_manifest_record record;
    static_assert(sizeof record == sizeof told.manifest);
    std::memcpy(&record, told.manifest, sizeof record);
    if (image_manifest_load(record, image.manifest) != nullptr)
        return std::nullopt;
    image.manifest_state = image_manifest_state::intact;
    return image;
}

std::uint64_t new_id(const std::optional<flash_order> &last)
{
    const auto now = static_cast<std::uint64_t>(microseconds_of(CLOCK_REALTIME));
    return std::max(now, last ? last->id + 1 : 0); // also when the clock was set back
}

std::uint32_t own_family()
{
    return get_sw_card_family(inventory_value(chassis_own_slot(), "card_id") & 0xffff);
}

// Whether the daemon programs this flash. Of a card whose family its table does not have it says itself.
bool is_programmed(unsigned instance)
{
    const std::span rows(bios_flash_entry_tbl, max_bios_id_entries);
    const std::uint32_t family = own_family();
    const auto is_own = [family](const bios_flash_entry &row) {
        return row.sw_card_id == family && row.flash_type != 0;
    };
    return std::ranges::none_of(rows, is_own) || std::ranges::any_of(rows, [&](const bios_flash_entry &row) {
               return is_own(row) && row.flash_instance == instance;
           });
}

flash_order order_of(const agent_order_req_t &request)
{
    flash_order order;
    std::ranges::copy(request.image.sha256, order.sha256.begin());
    order.size_bytes = request.image.size_bytes.load();
    order.family = own_family();
    order.forced = request.forced.load();
    order.renewed_s = flash_order_clock_s();
    order.version = field_text(request.image.version).text;
    order.image = field_text(request.from).text;
    order.user = field_text(request.user).text;
    order.host = field_text(request.host).text;
    order.ordered_at = order.changed_at = utc_now();
    return order;
}

// Changes the record under its lock.
//   change  AGENT_OK: the record is to be written as it was left
template<class Change>
answer with_order(unsigned instance, Change change)
{
    if (instance >= FLASH_INSTANCE_COUNT)
        return AGENT_ERR_FLASH;
    const unsigned slot = chassis_own_slot();
    const flash_orders_lock lock(slot);
    if (!lock.is_held())
        return writing_status();
    auto order = flash_order_read(slot, instance);
    if (!order)
        return AGENT_ERR_NO_ORDER;
    if (const agent_status status = change(*order); status != AGENT_OK)
        return status;
    return flash_order_write(slot, instance, *order) ? AGENT_OK : writing_status();
}

} // namespace

void record_own_family()
{
    const unsigned slot = chassis_own_slot();
    if (const flash_orders_lock lock(slot); lock.is_held())
        (void)chassis_write_value(chassis_slot_path(slot, FLASH_ORDERS_FAMILY), own_family());
}

answer order_answer(const agent_order_req_t &request)
{
    const unsigned instance = request.instance.load();
    const auto image = facts_of(request.image);
    if (instance >= FLASH_INSTANCE_COUNT)
        return AGENT_ERR_FLASH;
    if (!is_programmed(instance))
        return AGENT_ERR_NO_ROW;
    if (!image || (request.forced.load() & ~BIOS_FORCE_ALL) != 0)
        return AGENT_ERR_REQUEST;
    const unsigned slot = chassis_own_slot();
    const flash_orders_lock lock(slot);
    if (!lock.is_held())
        return writing_status();
    const auto last = flash_order_read(slot, instance);
    if (last && last->is_live())
        return AGENT_ERR_ORDER_LIVE;
    if (programming_child_lives(slot))
        return AGENT_ERR_PROGRAMMING;
    agent_status failure = AGENT_OK;
    const auto flash = facts_of(instance, failure);
    if (!flash)
        return failure;
    flash_order order = order_of(request);
    const std::uint32_t refusal = judge_image(*image, *flash, {.is_ordered = true, .forced = order.forced});
    if (refusal != 0)
        return static_cast<agent_status>(refusal);
    const std::uint64_t missing_bytes =
        request.is_copied.load() != 0 ? missing_room_for_copy(flash_temporary_image, order.size_bytes) : 0;
    const bool is_ordered = request.judge_only.load() == 0 && missing_bytes == 0;
    order.id = is_ordered ? new_id(last) : 0;
    if (is_ordered && !flash_order_write(slot, instance, order))
        return writing_status();
    answer given;
    given.add(agent_order_taken_t{request.instance, be64::of(order.id), be64::of(missing_bytes)});
    return given;
}

answer renewal_answer(const agent_order_id_t &request)
{
    return with_order(request.instance.load(), [&](flash_order &order) {
        if (order.id != request.id.load())
            return AGENT_ERR_NO_ORDER;
        order.renewed_s = flash_order_clock_s();
        // One that was cancelled holds its programming off for as long as it is renewed, and longer.
        return order.is_live() || order.state == flash_order_state::cancelled ? AGENT_OK : AGENT_ERR_NO_ORDER;
    });
}

answer order_end_answer(const agent_order_end_t &request)
{
    return with_order(request.order.instance.load(), [&](flash_order &order) {
        if (order.id != request.order.id.load())
            return AGENT_ERR_NO_ORDER;
        if (order.state == flash_order_state::cancelled)
            order.renewed_s = 0;
        else if (order.state != flash_order_state::ordered)
            return AGENT_ERR_NO_ORDER;
        else
            order.state = flash_order_state::failed;
        order.result = request.result.load();
        order.changed_at = utc_now();
        return AGENT_OK;
    });
}

answer cancellation_answer(const agent_flash_req_t &request)
{
    return with_order(request.instance.load(), [&](flash_order &order) {
        if (order.state == flash_order_state::writing)
            return AGENT_ERR_PROGRAMMING;
        if (order.state != flash_order_state::ordered)
            return AGENT_ERR_NO_ORDER;
        order.state = flash_order_state::cancelled;
        order.result = BIOS_REFUSED_CANCELLED;
        order.changed_at = utc_now();
        return AGENT_OK;
    });
}

answer order_record_answer(const agent_flash_req_t &request)
{
    const auto order = flash_order_read(chassis_own_slot(), request.instance.load());
    if (!order)
        return AGENT_ERR_NO_ORDER;
    answer given;
    given.add_text(flash_order_format(*order));
    return given;
}
