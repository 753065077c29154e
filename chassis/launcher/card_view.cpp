#include "card_view.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <unistd.h>
#include <vector>

#include "answer_form.h"
#include "bios_header.h"
#include "card_families.h"
#include "card_files.h"
#include "card_root.h"
#include "chassis_dir.h"
#include "flash_folder.h"
#include "flash_geometry.h"
#include "followed_file.h"
#include "keeper_lock.h"
#include "launcher_error.h"
#include "loader_file.h"
#include "nor_file_layout.h"
#include "sysmgr.h"

namespace
{

struct card_status {
    unsigned slot = 0;
    std::string name;
    unsigned card_id = 0;
    unsigned kind = 0;
    std::string role;
    bool serves = false; // it should
    std::string answers; // name of the form: "daemon" or that of a stand-in
    std::string state;
    int pid = 0;
    std::string isolation_way;
    std::array<std::string, FLASH_INSTANCE_COUNT> version; // empty: none in the flash
    std::array<bool, FLASH_INSTANCE_COUNT> programming = {};
    std::string boot_loader_version; // empty: no loader is installed, or it has none
};

std::string flash_version(unsigned slot, unsigned instance)
{
    std::string bytes;
    if (!chassis_read_file(flash_file_path(slot, instance, FLASH_FILE_DATA), bytes, BIOS_HEADER_BYTES))
        return {};
    bios_header header{};
    if (bytes.size() < BIOS_HEADER_BYTES || !bios_header_read(bytes.data(), header))
        return {};
    const std::string text = bios_header_text(header);
    return text.substr(std::min(text.find_first_not_of(' '), text.size()));
}

std::string role_name(unsigned sup_state)
{
    if (sup_state == SYSMGR_SUP_STATE_ACTIVE)
        return "active";
    return sup_state == SYSMGR_SUP_STATE_STANDBY ? "standby" : "none";
}

// What was recorded holds only while somebody keeps the card.
std::string state_now(const card_status &card)
{
    if (!card.serves)
        return "no daemon";
    if (!keeper_of(card.slot))
        return card_state(card.slot) == STATE_FAILED ? STATE_FAILED : STATE_DOWN;
    return card_state(card.slot);
}

std::string answers_of(unsigned slot)
{
    const std::string name = read_line(chassis_slot_path(slot, ANSWERS_FILE));
    return parse_answer_form(name) ? name : "daemon";
}

std::string boot_loader_version(unsigned slot)
{
    const std::string head = card_root(slot).boot_loader_head(LOADER_HEAD_BYTES);
    return std::string(loader_version_in(head));
}

card_status status_of(unsigned slot)
{
    card_status card;
    card.slot = slot;
    card.name = read_line(chassis_slot_path(slot, "name"));
    card.card_id = chassis_read_value(chassis_inventory_path(slot, "card_id"), 0);
    card.kind = chassis_read_value(chassis_inventory_path(slot, "kind"), 0);
    card.role = role_name(chassis_read_value(chassis_inventory_path(slot, "sup_state"), 0));
    card.serves = chassis_read_value(chassis_slot_path(slot, "serves"), 0) != 0;
    card.answers = answers_of(slot);
    card.state = state_now(card);
    card.pid = static_cast<int>(chassis_read_value(chassis_slot_path(slot, "pid"), 0));
    card.isolation_way = read_line(chassis_slot_path(slot, "isolation"));
    for (unsigned instance = 0; instance < FLASH_INSTANCE_COUNT; ++instance) {
        card.programming[instance] = flash_folder_has_marker(flash_folder_path(slot, instance));
        card.version[instance] = flash_version(slot, instance);
    }
    card.boot_loader_version = boot_loader_version(slot);
    return card;
}

nlohmann::json json_of(const card_status &card)
{
    nlohmann::json flashes = nlohmann::json::array();
    for (unsigned instance = 0; instance < FLASH_INSTANCE_COUNT; ++instance) {
        nlohmann::json version = nullptr;
        if (!card.version[instance].empty())
            version = card.version[instance];
        flashes.push_back({{"flash", instance == 0 ? "primary" : "alternate"},
                           {"version", version},
                           {"being_programmed", card.programming[instance]}});
    }
    nlohmann::json boot_loader = nullptr;
    if (!card.boot_loader_version.empty())
        boot_loader = card.boot_loader_version;
    return {{"slot", card.slot},       {"name", card.name},
            {"card_id", card.card_id}, {"kind", card.kind},
            {"role", card.role},       {"serves", card.serves},
            {"answers", card.answers}, {"state", card.state},
            {"pid", card.pid},         {"isolation", card.isolation_way},
            {"flashes", flashes},      {"boot_loader_version", boot_loader}};
}

template<std::size_t COLUMNS>
using row_of_texts = std::array<std::string, COLUMNS>;
using row = row_of_texts<6>;

row row_of(const card_status &card)
{
    std::string version = card.version[0].empty() ? "-" : card.version[0];
    if (card.programming[0])
        version += " being programmed";
    const std::string state = card.answers == "daemon" ? card.state : card.state + " (" + card.answers + ")";
    return {std::to_string(card.slot), card.name, std::to_string(card.card_id), card.role, state, version};
}

template<std::size_t COLUMNS>
std::string table_of(const std::vector<row_of_texts<COLUMNS>> &rows)
{
    std::array<std::size_t, COLUMNS> width = {};
    for (const auto &each : rows) {
        for (std::size_t column = 0; column < each.size(); ++column)
            width[column] = std::max(width[column], each[column].size());
    }
    std::ostringstream text;
    for (const auto &each : rows) {
        for (std::size_t column = 0; column + 1 < each.size(); ++column)
            text << each[column] << std::string(width[column] - each[column].size() + 2, ' ');
        text << each.back() << '\n';
    }
    return std::move(text).str();
}

} // namespace

std::string show_status(bool json)
{
    std::vector<row> rows = {{"SLOT", "NAME", "CARD", "ROLE", "STATE", "PRIMARY FLASH"}};
    nlohmann::json cards = nlohmann::json::array();
    for (const unsigned slot : card_slots()) {
        const card_status card = status_of(slot);
        rows.push_back(row_of(card));
        cards.push_back(json_of(card));
    }
    if (!json)
        return table_of(rows);
    const nlohmann::json chassis = {{"name", read_line("name")}, {"cards", cards}};
    // Names are a person's; bytes that are no UTF-8 must not make the output unreadable.
    return chassis.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string show_families(bool json)
{
    std::vector<row_of_texts<4>> rows = {{"FAMILY", "CARD", "CHANGE BIT", "IMAGE"}};
    nlohmann::json families = nlohmann::json::array();
    for (const card_family &family : CARD_FAMILIES) {
        const std::string change_bit = family.hw_change_bit ? std::to_string(*family.hw_change_bit) : "-";
        rows.push_back({family.name, std::to_string(family.card_id), change_bit, image_file_of(family)});
        nlohmann::json each = {{"family", family.name},
                               {"card_id", family.card_id},
                               {"hw_change_bit", nullptr},
                               {"image", image_file_of(family)}};
        if (family.hw_change_bit)
            each["hw_change_bit"] = *family.hw_change_bit;
        families.push_back(each);
    }
    return json ? families.dump(2) + "\n" : table_of(rows);
}

void print_log(unsigned slot, bool follow)
{
    require_serving_slot(slot);
    if (!print_file(chassis_slot_path(slot, "log"), follow))
        throw launcher_error("card " + std::to_string(slot) + ": has no log yet; it was never up");
}
