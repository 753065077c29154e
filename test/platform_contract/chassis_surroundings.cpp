// The surroundings of the contract on the chassis on one machine: a chassis of three cards in a folder of its own.
// This process is the active supervisor in slot 1, slot 2 is the standby supervisor, peers run on the line card in
// slot 3. Each card has its agent. Everything can be had here, and every condition is a file.
#include "contract_surroundings.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>
#include <vector>

#include "bios_header.h"
#include "card_agent_process.h"
#include "chassis_diagnostics.h"
#include "chassis_dir.h"
#include "flash_claim.h"
#include "flash_geometry.h"
#include "loader_file.h"
#include "nor_file_layout.h"

namespace
{

namespace fs = std::filesystem;

constexpr unsigned OWN_SLOT = 1;
constexpr unsigned STANDBY_SLOT = 2;
constexpr unsigned PEER_SLOT = 3;
constexpr std::uint8_t EMPTY_SLOT = 9;
constexpr std::uint16_t SUPERVISOR_CARD = 90;
constexpr std::uint16_t LINE_CARD = 106;
constexpr std::uint32_t FIRST_DEBUG_CATEGORY = 100;
constexpr std::uint32_t CONTROL_REGISTER = 186;
constexpr const char *STANDBY_FILE = "/bootflash/contract.bin";
constexpr const char *LOADER_VERSION = "1.8.0";

// Small, and in the time of a real part, so that a programming can be met while it runs.
constexpr flash_geometry FLASH = {.size_bytes = 32 << 10, .sector_bytes = 4 << 10, .page_bytes = 256};
constexpr std::array<bios_header, 2> IMAGES = {bios_header{3, 1, 2, 11, 11}, bios_header{3, 5, 9, 17, 12}};
constexpr const char *IMAGE_VERSIONS[] = {"  v3.1.0(02/11/11)", "  v3.5.0(09/17/12)"};

constexpr std::uint16_t SPROM_BYTES = 64;

// What outputs of the surroundings point into.
struct kept_texts {
    std::string folder;
    std::string temporary_image;
    std::string image[2];
    std::string loader;
    std::array<std::uint8_t, SPROM_BYTES> sprom;
    std::vector<std::unique_ptr<card_agent_process>> agents;
};
kept_texts kept;

std::string below(const std::string &name)
{
    return kept.folder + "/chassis/" + name;
}

void put(const std::string &path, const std::string &content)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string content_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void insert_card(unsigned slot, unsigned card_id, unsigned kind, unsigned supervisor_state)
{
    const std::string inventory = below("inventory/" + std::to_string(slot) + "/");
    put(inventory + "card_id", std::to_string(card_id));
    put(inventory + "kind", std::to_string(kind));
    put(inventory + "sup_state", std::to_string(supervisor_state));
    fs::create_directories(below("slots/" + std::to_string(slot) + "/root/bootflash"));
}

void make_image(unsigned number)
{
    std::string bytes(FLASH.size_bytes, '\0');
    for (std::size_t at = 0; at < bytes.size(); ++at)
        bytes[at] = static_cast<char>(at * 7 + number * 101 + at / 251);
    (void)bios_header_write(IMAGES[number], bytes.data());
    kept.image[number] = kept.folder + "/bios." + std::to_string(number) + ".bin";
    put(kept.image[number], bytes);
}

void make_files()
{
    make_image(0);
    make_image(1);
    kept.loader = kept.folder + "/loader.sro";
    put(kept.loader, std::string(100, '\x7f') + loader_version_tag(LOADER_VERSION) + std::string(5000, '\x55'));
    for (std::size_t at = 0; at < kept.sprom.size(); ++at)
        kept.sprom[at] = static_cast<std::uint8_t>(200 - at);
    put(below("slots/1/sprom"), std::string(kept.sprom.begin(), kept.sprom.end()));
    put(below("inventory/1/hw_change_bit"), "0"); // without it no SPROM answers
}

void set_or_remove(const std::string &path, const std::string &content, int on)
{
    if (on != 0)
        put(path, content);
    else
        fs::remove(path);
}

const char *fill(contract_flash *flash_out, std::uint32_t variant)
{
    *flash_out = {0,
                  variant,
                  FLASH.size_bytes,
                  {kept.image[0].c_str(), kept.image[1].c_str()},
                  {IMAGE_VERSIONS[0], IMAGE_VERSIONS[1]}};
    return nullptr;
}

std::string history()
{
    std::vector<chassis_history_event> events;
    std::string text;
    if (!chassis_read_history(OWN_SLOT, events))
        return text;
    for (const chassis_history_event &event : events)
        text += event.text + "\n";
    return text;
}

} // namespace

int contract_begin(int is_peer)
{
    if (is_peer != 0)
        return 0; // the environment says which card of which chassis it is
    char folder[] = "/tmp/platform_contract_XXXXXX";
    if (::mkdtemp(folder) == nullptr)
        return -1;
    kept.folder = folder;
    kept.temporary_image = kept.folder + "/temporary_image";
    flash_temporary_image = kept.temporary_image.c_str();
    insert_card(OWN_SLOT, SUPERVISOR_CARD, 1, 1);
    insert_card(STANDBY_SLOT, SUPERVISOR_CARD, 1, 2);
    insert_card(PEER_SLOT, LINE_CARD, 2, 0);
    make_files();
    ::unsetenv(CHASSIS_ENV_DIR_FD);
    ::setenv(CHASSIS_ENV_DIR, below("").c_str(), 1);
    fs::create_directories(below("mts"));
    fs::permissions(below("mts"), fs::perms::owner_all);
    for (const unsigned slot : {OWN_SLOT, STANDBY_SLOT, PEER_SLOT})
        kept.agents.push_back(std::make_unique<card_agent_process>(below(""), slot));
    ::setenv(CHASSIS_ENV_SLOT, std::to_string(OWN_SLOT).c_str(), 1);
    if (nor_file_create(OWN_SLOT, 0, FLASH) != 0)
        return -1;
    put(below("slots/1/flash/primary/timing"), "1");
    return 0;
}

void contract_end(void)
{
    kept.agents.clear();
    std::error_code ignored;
    fs::remove_all(kept.folder, ignored);
}

void contract_this_card(struct contract_card *card_out)
{
    *card_out = {OWN_SLOT, SUPERVISOR_CARD, 1, 1, 0, EMPTY_SLOT};
}

uint32_t contract_sap(uint32_t number)
{
    return 3000 + number;
}

const char *contract_scratch_folder(void)
{
    return kept.folder.c_str();
}

const char *contract_start_on_other_card(char *const arguments[], int input, int output, pid_t *process_out)
{
    *process_out = ::fork();
    if (*process_out < 0)
        return "no process can be forked";
    if (*process_out > 0)
        return nullptr;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::setenv(CHASSIS_ENV_SLOT, std::to_string(PEER_SLOT).c_str(), 1);
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::execv(arguments[0], arguments);
    ::_exit(127);
}

const char *contract_plain_flash(struct contract_flash *flash_out)
{
    return fill(flash_out, 0);
}

const char *contract_chipset_flash(struct contract_flash *flash_out)
{
    return fill(flash_out, 3);
}

const char *contract_temporary_image(const char **path_out)
{
    *path_out = flash_temporary_image;
    return nullptr;
}

const char *contract_missing_flash(uint32_t *instance_out)
{
    *instance_out = 1;
    return nullptr;
}

const char *contract_read_flash(uint32_t, uint32_t offset, void *bytes_out, uint32_t length)
{
    const std::string data = content_of(below("slots/1/flash/primary/data"));
    if (data.size() < std::size_t{offset} + length)
        return "the flash's file is too short";
    std::memcpy(bytes_out, data.data() + offset, length);
    return nullptr;
}

const char *contract_set_condition(enum contract_condition condition, int on)
{
    const std::string flash = below("slots/1/flash/primary/");
    switch (condition) {
    case CONTRACT_FLASH_CANNOT_BE_ERASED:
        set_or_remove(flash + "faults", "fail erase always\n", on);
        return nullptr;
    case CONTRACT_FLASH_CANNOT_BE_WRITTEN:
        set_or_remove(flash + "faults", "fail program always\n", on);
        return nullptr;
    case CONTRACT_FLASH_KEEPS_OTHER_BYTES:
        set_or_remove(flash + "faults", "flip program always\n", on);
        return nullptr;
    case CONTRACT_FLASH_IS_PROTECTED:
        set_or_remove(flash + "protected", "5\n", on);
        return nullptr;
    case CONTRACT_REGISTER_CANNOT_BE_WRITTEN:
        set_or_remove(below("slots/1/registers/fault"), "", on);
        return nullptr;
    case CONTRACT_MODULE_INFO_CANNOT_BE_READ:
        set_or_remove(below("inventory/1/module_info_error"), "5", on);
        return nullptr;
    case CONTRACT_MODULES_CANNOT_BE_LISTED:
        fs::rename(below(on != 0 ? "inventory" : "inventory.away"),
                   below(on != 0 ? "inventory.away" : "inventory"));
        return nullptr;
    case CONTRACT_NO_STANDBY:
        put(below("inventory/2/sup_state"), on != 0 ? "0" : "2");
        return nullptr;
    }
    return "an unknown condition";
}

const char *contract_standby_file(const char **path_out)
{
    *path_out = STANDBY_FILE;
    return nullptr;
}

const char *contract_read_standby_file(const char *path, void *bytes_out, size_t limit, size_t *length_out)
{
    const std::string content = content_of(below("slots/2/root" + std::string(path)));
    *length_out = std::min(limit, content.size());
    std::memcpy(bytes_out, content.data(), *length_out);
    return nullptr;
}

const char *contract_sprom(struct contract_known_sprom *sprom_out)
{
    *sprom_out = {3, 0, SPROM_BYTES, kept.sprom.data()};
    return nullptr;
}

const char *contract_register(uint32_t *number_out, uint32_t *value_out)
{
    *number_out = CONTROL_REGISTER;
    *value_out = 0x80000001;
    return nullptr;
}

const char *contract_read_register(uint32_t number, uint32_t *value_out)
{
    const std::string text = content_of(below("slots/1/registers/" + std::to_string(number)));
    *value_out = static_cast<std::uint32_t>(std::strtoul(text.c_str(), nullptr, 0));
    return text.empty() ? "the register was never written" : nullptr;
}

const char *contract_image_uri(const char **uri_out, const char **path_out)
{
    *uri_out = "bootflash:images/new.bin";
    *path_out = "/bootflash/images/new.bin";
    return nullptr;
}

const char *contract_loader_file(const char **path_out, const char **version_out)
{
    *path_out = kept.loader.c_str();
    *version_out = LOADER_VERSION;
    return nullptr;
}

const char *contract_set_debug_category(uint32_t category, int on)
{
    const std::string &name = chassis_debug_flag_names().at(category - FIRST_DEBUG_CATEGORY);
    std::vector<std::string> flags = chassis_read_debug_flags(OWN_SLOT);
    std::erase(flags, name);
    if (on != 0)
        flags.push_back(name);
    return chassis_write_debug_flags(OWN_SLOT, flags) ? nullptr : "the debug flags cannot be written";
}

const char *contract_read_record(enum contract_record record, char *text_out, size_t bytes)
{
    std::string text = record == CONTRACT_HISTORY        ? history()
                       : record == CONTRACT_DEBUG_OUTPUT ? content_of(below("slots/1/debug/output"))
                                                         : content_of(below("slots/1/syslog"));
    if (text.size() >= bytes)
        text.erase(0, text.size() - (bytes - 1));
    std::memcpy(text_out, text.c_str(), text.size() + 1);
    return nullptr;
}
