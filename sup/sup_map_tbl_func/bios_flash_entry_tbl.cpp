// The table of BIOS flashes: one row per card family. Its order is kept by every copy of its rows.
#include "card_table.h"

#include "flash_programming.h"
#include "image_extraction.h"
#include "version_accessors.h"

namespace
{

constexpr std::uint32_t FLASH_TYPE = 11;
constexpr std::uint32_t IMAGE_FORMAT_X86N = 19;
constexpr const char *TMP_PATH = "/bootflash/.tmpbios.bin";

// What differs between the rows of boards with the same way to the flash.
struct board_operations {
    bios_get_flash_version_op get_flash_version;
    bios_program_op program;
    bios_image_src_version_op image_src_version;
    bios_get_src_version_op get_src_version;
};

constexpr board_operations X86N = {
    .get_flash_version = std_get_flash_version_func,
    .program = std_bios_program,
    .image_src_version = std_image_src_version_func,
    .get_src_version = std_get_src_version_func,
};
constexpr board_operations IBEXPEAK = {
    .get_flash_version = std_get_ibexpeak_flash_version_func,
    .program = std_ibexpeak_bios_program,
    .image_src_version = std_image_ibexpeak_src_version_func,
    .get_src_version = std_get_ibexpeak_src_version_func,
};
constexpr board_operations IBEXPEAK_QEL = {
    .get_flash_version = std_get_ibexpeak_qel_flash_version_func,
    .program = std_ibexpeak_qel_bios_program,
    .image_src_version = std_image_ibexpeak_src_version_func,
    .get_src_version = std_get_ibexpeak_src_version_func,
};
constexpr board_operations TARVIK_A = {
    .get_flash_version = std_get_ibexpeak_tarvik_a_flash_version_func,
    .program = std_ibexpeak_tarvik_a_bios_program,
    .image_src_version = std_image_ibexpeak_src_version_func,
    .get_src_version = std_get_ibexpeak_src_version_func,
};

constexpr bios_flash_entry row(std::uint16_t sw_card_id, const char *src_path, const board_operations &board)
{
    return {
        .sw_card_id = sw_card_id,
        .sw_id_str = "swid-bios",
        .flash_type = FLASH_TYPE,
        .sw_src_id = IMAGE_FORMAT_X86N,
        .flash_instance = 0,
        .tmp_path = TMP_PATH,
        .src_path = src_path,
        .get_flash_version = board.get_flash_version,
        .program = board.program,
        .version_compare = nullptr, // every image is programmed, newer than the flash or not
        .image_src_version = board.image_src_version,
        .get_src_version = board.get_src_version,
        .extract = extract_bios_image,
        .cleanup = cleanup_temp_files,
    };
}

} // namespace

constexpr bios_flash_entry bios_flash_entry_tbl[] = {
    row(17, "/vesk/bin/bios-x86n.bin.gz", X86N),
    row(19, "/vesk/bin/bios-x86n-o2.bin.gz", IBEXPEAK),
    row(21, "/vesk/bin/bios-x86n-o2-mod.bin.gz", IBEXPEAK),
    row(23, "/vesk/bin/bios-x86n-o2-qel.bin.gz", IBEXPEAK_QEL),
    row(26, "/vesk/bin/bios-x86n-tarvik-a.bin.gz", TARVIK_A),
    row(34, "/vesk/bin/bios-x86n-tarvik-a_cr.bin.gz", TARVIK_A), // before 28: the ids are not sorted
    row(28, "/vesk/bin/bios-x86n-tarvik-b.bin.gz", TARVIK_A),
    row(29, "/vesk/bin/bios-x86n-tarvik-c.bin.gz", TARVIK_A),
    row(32, "/vesk/bin/bios-x86n-tarvik-c-pfcr-sandyb.bin.gz", TARVIK_A),
    row(33, "/vesk/bin/bios-x86n-tarvik-c-pfcr-ivb.bin.gz", TARVIK_A),
    row(30, "/vesk/bin/bios-x86n-tarvik-d.bin.gz", TARVIK_A),
    row(31, "/vesk/bin/bios-x86n-tarvik-e.bin.gz", TARVIK_A),
    row(35, "/vesk/bin/bios-x86n-tarvik-f.bin.gz", TARVIK_A),
    row(36, "/vesk/bin/bios-x86n-tarvik-g.bin.gz", TARVIK_A),
    row(37, "/vesk/bin/bios-x86n-tarvik-h.bin.gz", TARVIK_A),
};

constexpr std::uint32_t max_bios_id_entries = 15;
static_assert(sizeof bios_flash_entry_tbl / sizeof bios_flash_entry_tbl[0] == max_bios_id_entries);
