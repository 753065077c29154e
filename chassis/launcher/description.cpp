#include "description.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <string_view>

#include "card_families.h"
#include "flash_geometry.h"
#include "launcher_error.h"
#include "pfm.h"
#include "printable_text.h"
#include "sysmgr.h"
#include "toml_library.h"

namespace
{

constexpr std::uint32_t KIND_LINECARD = 2;
constexpr std::uint32_t DEFAULT_FLASH_KIB = 8 * 1024;
constexpr std::uint32_t DEFAULT_SECTOR_KIB = 64;
constexpr std::uint32_t MAX_BOOTFLASH_MIB = 16 * 1024;
constexpr std::uint32_t MAX_WAIT_LIMIT_S = 24 * 60 * 60;
constexpr std::size_t DESCRIPTION_BYTES_MAX = std::size_t{1} << 20;
// Each part of a key is a table in the one before, and the library needs stack for each table that lies in another.
// It counts those that are nested by brackets itself.
constexpr std::ptrdiff_t DOTS_MAX = 4'000;

bool is_control_character(char c)
{
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

// A table of the file, and how to complain about it.
class section
{
public:
    section(const toml::table &table, const std::string &file) : table_(table), file_(file) {}

    [[noreturn]] void fail(const toml::node &node, const std::string &text) const
    {
        throw launcher_error(file_ + ":" + std::to_string(node.source().begin.line) + ": " + printable_text(text));
    }
    [[noreturn]] void fail(const std::string &text) const { fail(table_, text); }

    // The node of a key; null when it is absent.
    const toml::node *find(std::string_view key) const { return table_.get(key); }

    void allow_only(std::initializer_list<std::string_view> keys) const
    {
        for (const auto &[key, node] : table_) {
            if (std::find(keys.begin(), keys.end(), key.str()) == keys.end())
                fail(node, "unknown key " + std::string(key.str()));
        }
    }

    std::optional<std::string> text(std::string_view key) const
    {
        const toml::node *node = find(key);
        if (node == nullptr)
            return std::nullopt;
        if (!node->is_string())
            fail(*node, std::string(key) + " is a text in quotes");
        const std::string value = node->as_string()->get();
        if (std::any_of(value.begin(), value.end(), is_control_character))
            fail(*node, std::string(key) + " has a control character");
        return value;
    }

    std::optional<std::uint32_t> number(std::string_view key, std::uint32_t low, std::uint32_t high) const
    {
        const toml::node *node = find(key);
        if (node == nullptr)
            return std::nullopt;
        if (!node->is_integer())
            fail(*node, std::string(key) + " is a number");
        const std::int64_t value = node->as_integer()->get();
        if (value < low || value > high)
            fail(*node, std::string(key) + " is from " + std::to_string(low) + " to " + std::to_string(high));
        return static_cast<std::uint32_t>(value);
    }

    std::optional<bool> flag(std::string_view key) const
    {
        const toml::node *node = find(key);
        if (node == nullptr)
            return std::nullopt;
        if (!node->is_boolean())
            fail(*node, std::string(key) + " is true or false");
        return node->as_boolean()->get();
    }

    std::uint32_t required_number(std::string_view key, std::uint32_t low, std::uint32_t high) const
    {
        const std::optional<std::uint32_t> value = number(key, low, high);
        if (!value)
            fail(std::string(key) + " is missing");
        return *value;
    }

    // A file or folder, relative to the description's folder; empty when the key is absent.
    std::string path(std::string_view key, bool folder) const
    {
        const std::optional<std::string> value = text(key);
        if (!value)
            return {};
        const std::filesystem::path found = std::filesystem::absolute(file_).parent_path() / *value;
        std::error_code problem;
        const bool right = folder ? std::filesystem::is_directory(found, problem)
                                  : std::filesystem::is_regular_file(found, problem);
        if (!right)
            fail(*find(key),
                 std::string(key) + ": " + found.string() + " is not a " + (folder ? "folder" : "file"));
        return found.string();
    }

private:
    const toml::table &table_;
    const std::string &file_;
};

// The card id and the hw.change.bit, told by themselves or by the family's name.
void read_identity(const section &card, card_description &result)
{
    const std::optional<std::string> name = card.text("family");
    const std::optional<std::uint32_t> change_bit = card.number("hw_change_bit", 0, UINT32_MAX);
    result.hw_change_bit = change_bit.value_or(0);
    if (!name) {
        if (card.find("card_id") == nullptr)
            card.fail("card_id or family is missing");
        result.card_id = card.required_number("card_id", 1, 0xffff);
        return;
    }
    if (card.find("card_id") != nullptr)
        card.fail(*card.find("family"), "either card_id or family");
    const card_family *family = find_card_family(*name);
    if (family == nullptr)
        card.fail(*card.find("family"), "there is no family " + *name + "; show them with: chassis families");
    if (family->hw_change_bit && change_bit)
        card.fail(*card.find("hw_change_bit"), "the family " + *name + " tells the hw_change_bit already");
    result.card_id = family->card_id;
    result.hw_change_bit = family->hw_change_bit.value_or(result.hw_change_bit);
}

std::uint32_t read_kind(const section &card)
{
    const toml::node *node = card.find("kind");
    if (node == nullptr)
        card.fail("kind is missing");
    if (!node->is_string())
        return card.required_number("kind", 1, 255);
    const std::string name = *card.text("kind");
    if (name == "supervisor")
        return PFM_KIND_SUPERVISOR;
    if (name == "linecard")
        return KIND_LINECARD;
    card.fail(*node, "kind is \"supervisor\", \"linecard\" or a number");
}

std::uint32_t read_role(const section &card, std::uint32_t kind)
{
    const std::string role = card.text("role").value_or("none");
    if (role == "none")
        return 0;
    if (role != "active" && role != "standby")
        card.fail(*card.find("role"), "role is \"active\", \"standby\" or \"none\"");
    if (kind != PFM_KIND_SUPERVISOR && kind != PFM_KIND_SUPERVISOR_ALTERNATE)
        card.fail(*card.find("role"), "only a supervisor has the role " + role);
    return role == "active" ? SYSMGR_SUP_STATE_ACTIVE : SYSMGR_SUP_STATE_STANDBY;
}

void read_flash(const section &card, card_description &result)
{
    const std::optional<std::uint32_t> mib = card.number("flash_mib", 1, FLASH_MAX_BYTES >> 20);
    const std::optional<std::uint32_t> kib = card.number("flash_kib", 1, FLASH_MAX_BYTES >> 10);
    if (mib && kib)
        card.fail(*card.find("flash_kib"), "either flash_mib or flash_kib");
    result.flash_bytes = (mib ? *mib * 1024 : kib.value_or(DEFAULT_FLASH_KIB)) * 1024;
    result.sector_bytes = card.number("sector_kib", 1, FLASH_MAX_BYTES >> 10).value_or(DEFAULT_SECTOR_KIB) * 1024;
    if (!flash_geometry_valid({.size_bytes = result.flash_bytes, .sector_bytes = result.sector_bytes}))
        card.fail("the flash is not made of whole sectors");

    result.flash_image = card.path("flash_image", false);
    result.alternate_image = card.path("alternate_image", false);
    for (const std::string &image : {result.flash_image, result.alternate_image}) {
        if (!image.empty() && std::filesystem::file_size(image) > result.flash_bytes)
            card.fail(image + ": is larger than the flash");
    }
}

std::string answer_form_names()
{
    std::string names;
    for (const named_answer_form &known : ANSWER_FORMS)
        names += (names.empty() ? "" : ", ") + ('"' + std::string(known.name) + '"');
    return names;
}

void read_answers(const section &card, card_description &result)
{
    const std::string name = card.text("answers").value_or("daemon");
    const std::optional<answer_form> form = parse_answer_form(name);
    if (!form)
        card.fail(*card.find("answers"), "answers is one of " + answer_form_names());
    if (*form != answer_form::daemon && !result.serves)
        card.fail(*card.find("answers"), "a card with serves = false runs no stand-in either");
    result.answers = *form;
    result.answer_rows = card.number("answer_rows", 1, MAX_ANSWER_ROWS);
    if (result.answer_rows && *form != answer_form::full)
        card.fail(*card.find("answer_rows"), "answer_rows goes with answers = \"full\"");
    result.answer_seed = card.number("answer_seed", 0, UINT32_MAX);
    if (result.answer_seed && *form != answer_form::garbage)
        card.fail(*card.find("answer_seed"), "answer_seed goes with answers = \"garbage\"");
}

card_description read_card(const section &card)
{
    card.allow_only({"slot",          "name",          "card_id",         "family",      "kind",
                     "role",          "hw_change_bit", "image_tree",      "flash_mib",   "flash_kib",
                     "sector_kib",    "flash_image",   "alternate_image", "boot_loader", "ks_image",
                     "bootflash_mib", "serves",        "answers",         "answer_rows", "answer_seed"});
    card_description result;
    result.slot = card.required_number("slot", 1, PFM_MODULE_COUNT);
    result.name = card.text("name").value_or("card " + std::to_string(result.slot));
    read_identity(card, result);
    result.kind = read_kind(card);
    result.sup_state = read_role(card, result.kind);
    result.image_tree = card.path("image_tree", true);
    if (!result.image_tree.empty() && !std::filesystem::is_directory(result.image_tree + "/vesk"))
        card.fail(*card.find("image_tree"), "image_tree: " + result.image_tree + " has no folder vesk");
    read_flash(card, result);
    result.boot_loader = card.path("boot_loader", false);
    result.ks_image = card.path("ks_image", false);
    result.bootflash_mib = card.number("bootflash_mib", 1, MAX_BOOTFLASH_MIB).value_or(0);
    result.serves = card.flag("serves").value_or(true);
    read_answers(card, result);
    return result;
}

void read_chassis(const toml::table &root, const std::string &file, chassis_description &result)
{
    const toml::node *node = root.get("chassis");
    if (node == nullptr)
        return;
    if (!node->is_table())
        section(root, file).fail(*node, "chassis is a table: [chassis]");
    const section chassis(*node->as_table(), file);
    chassis.allow_only({"name", "isolation", "wait_limit_s"});
    result.name = chassis.text("name").value_or("");
    result.wait_limit_s = chassis.number("wait_limit_s", 1, MAX_WAIT_LIMIT_S);
    const std::optional<std::string> way = chassis.text("isolation");
    if (!way)
        return;
    const std::optional<isolation> known = parse_isolation(*way);
    if (!known)
        chassis.fail(*chassis.find("isolation"), "isolation is \"auto\", \"mount\", \"user\" or \"plain\"");
    result.way = *known;
}

// What one card allows and two of them do not.
void check_together(const section &card, const card_description &added, const chassis_description &so_far)
{
    for (const card_description &other : so_far.cards) {
        if (other.slot == added.slot)
            card.fail(*card.find("slot"), "slot " + std::to_string(added.slot) + " has a card already");
        if (other.sup_state == SYSMGR_SUP_STATE_ACTIVE && added.sup_state == SYSMGR_SUP_STATE_ACTIVE)
            card.fail(*card.find("role"),
                      "slot " + std::to_string(other.slot) + " is the active supervisor already");
    }
    if (added.bootflash_mib != 0 && so_far.way == isolation::plain)
        card.fail(*card.find("bootflash_mib"), "bootflash_mib needs mounts, which isolation \"plain\" is without");
}

void read_cards(const toml::table &root, const std::string &file, chassis_description &result)
{
    const toml::node *node = root.get("card");
    if (node == nullptr)
        throw launcher_error(file + ": has no [[card]]");
    const toml::array *cards = node->as_array();
    if (cards == nullptr || cards->empty() || !cards->is_homogeneous(toml::node_type::table))
        section(root, file).fail(*node, "card is a list of tables: [[card]]");
    for (const toml::node &element : *cards) {
        const section card(*element.as_table(), file);
        const card_description added = read_card(card);
        check_together(card, added, result);
        result.cards.push_back(added);
    }
}

std::string read_text(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::string text(DESCRIPTION_BYTES_MAX + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file.is_open() || file.bad())
        throw system_error_of(path);
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > DESCRIPTION_BYTES_MAX)
        throw launcher_error(path + ": is larger than " + std::to_string(DESCRIPTION_BYTES_MAX) + " bytes");
    if (std::count(text.begin(), text.end(), '.') > DOTS_MAX)
        throw launcher_error(path + ": has more than " + std::to_string(DOTS_MAX) + " dots");
    return text;
}

} // namespace

chassis_description load_description(const std::string &path)
{
    toml::table root;
    try {
        root = toml::parse(read_text(path), path);
    } catch (const toml::parse_error &problem) {
        throw launcher_error(path + ":" + std::to_string(problem.source().begin.line) + ": " +
                             printable_text(problem.description()));
    }
    section(root, path).allow_only({"chassis", "card"});
    chassis_description result;
    read_chassis(root, path, result);
    read_cards(root, path, result);
    return result;
}
