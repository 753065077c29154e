// The table of result codes. Adding a code is adding a row; the order and the texts are checked when this file
// is compiled.
#include "result_text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "bios_flash.h"
#include "bios_refusals.h"
#include "bios_results.h"

namespace
{

constexpr styled_literal NOT_TOUCHED{"not touched"};
constexpr styled_literal NOT_CONCERNED{"not concerned"};
// The procedures for cards with an ibexpeak chipset erase the flash before they look at the image.
constexpr styled_literal ERASED_WITH_CHIPSET{
    "not touched on a card with the plain flash layout; erased on all others: do not reboot such a card",
    text_meaning::wrong};

constexpr next_step LOOK_AT_LOG{"look at the card's log for the reason", look_at::log};

constexpr std::uint32_t LOCK_RESULT = 0x80000000; // combined with the low 12 bits of an errno
constexpr std::uint32_t LOCK_RESULT_ERRNO = 0xfff;

constexpr auto result_tbl = std::to_array<result_row>({
    {.code = BIOS_OK,
     .name = "ok",
     .meaning = "the request has ended; so does a programming whose process is killed",
     .flash = {"verified only if the progress reached 100 percent; if the process was killed, it may be half "
               "written: do "
               "not reboot",
               text_meaning::wrong},
     .next = {"biosctl show says whether the flash is verified; reboot the card only then"},
     .exit = EXIT_DONE},
    {.code = BIOS_LOADER_ERR_INSTALL,
     .name = "loader_install_failed",
     .meaning = "the command that installs the boot loader failed",
     .flash = {"BIOS flash not touched; the boot loader may be incomplete"},
     .next = {"read /tmp/install_loader.log on the card and install again before a reboot"},
     .exit = EXIT_FAILED},
    {.code = BIOS_LOADER_SAME_VERSION,
     .name = "loader_same_version",
     .meaning = "the image's boot loader has the version that is installed already; nothing was installed",
     .flash = NOT_TOUCHED,
     .next = {"nothing to do"},
     .exit = EXIT_NOTHING_TO_DO},
    {.code = BIOS_LOADER_ERR_IMAGE,
     .name = "loader_image_not_opened",
     .meaning = "the system image with the boot loader could not be opened",
     .flash = NOT_TOUCHED,
     .next = {"check the image's path and that it is a system image; see /tmp/install_loader.log on the card"},
     .exit = EXIT_FAILED},
    {.code = BIOS_LOADER_ERR_NO_VERSION,
     .name = "loader_no_version",
     .meaning = "the image's boot-loader file has no version that could be read",
     .flash = NOT_TOUCHED,
     .next = {"use a system image that holds a boot loader"},
     .exit = EXIT_FAILED},
    {.code = BIOS_LOADER_ERR_MOUNT,
     .name = "loader_partition_not_mounted",
     .meaning = "the boot-loader partition could not be mounted",
     .flash = NOT_TOUCHED,
     .next = {"check /mnt/bootloader on the card"},
     .exit = EXIT_FAILED},
    {.code = BIOS_NOT_NEEDED,
     .name = "not_needed",
     .meaning = "the flash needs no programming: the image is not newer",
     .flash = NOT_TOUCHED,
     .next = {"nothing to do"},
     .exit = EXIT_NOTHING_TO_DO},
    {.code = BIOS_ERR_NO_IMAGE_FILE,
     .name = "no_image_file",
     .meaning = "the BIOS image file does not exist on the card",
     .flash = NOT_TOUCHED,
     .next = {"check that the image holds a BIOS for this card type and that /bootflash has room for it"},
     .exit = EXIT_NOT_FOUND},
    {.code = BIOS_ERR_IMAGE_NOT_REMOVED,
     .name = "image_not_removed",
     .meaning = "the temporary image file could not be removed; this hides the result of the programming itself",
     .flash = {"verified only if the progress reached 100 percent; otherwise it may be corrupted: do not reboot",
               text_meaning::wrong},
     .next = {"check /bootflash of the card (full, read-only, or somebody removed .tmpbios.bin) and program again"},
     .exit = EXIT_FAILED},
    {.code = BIOS_ERR_URI,
     .name = "uri_not_mapped",
     .meaning = "the image URI names no place in the card's file system",
     .flash = NOT_TOUCHED,
     .next = {"use a URI such as bootflash:NAME or file:///PATH"},
     .exit = EXIT_NOT_FOUND},
    {.code = BIOS_ERR_MODULE_INFO,
     .name = "no_module_info",
     .meaning = "the card's module information could not be read",
     .flash = NOT_TOUCHED,
     .next = {"check the card in the inventory", look_at::cards},
     .exit = EXIT_FAILED},
    {.code = BIOS_ERR_NOT_SENT,
     .name = "not_sent_to_module",
     .meaning = "the supervisor could not hand the request to the target module, or the module refused it",
     .flash = {"not touched, unless the module took the request and its answer was lost"},
     .next = {"check that the module is up and is not being programmed already", look_at::states,
              ", then try again"},
     .exit = EXIT_FAILED},
    {.code = BIOS_ERR_NO_COMPLETION,
     .name = "no_completion",
     .meaning =
         "the end of the programming was not reported: the target's daemon ended, or nothing worked there for "
         "30 seconds",
     .flash = {"unknown, the module may still be programming: do not reboot it", text_meaning::wrong},
     .next = {"look at the module's log and state", look_at::log_and_states, ", then program again"},
     .exit = EXIT_FAILED},
    {.code = BIOS_FLASH_ERR_ERASE,
     .name = "erase_failed",
     .meaning = "the flash could not be erased and is left unprogrammed",
     .flash = FLASH_CORRUPTED,
     .next = PROGRAM_AGAIN,
     .exit = EXIT_FAILED},
    {.code = BIOS_ERR_BUSY,
     .name = "busy",
     .meaning = "a programming is in progress already, or somebody else holds a module lock that it needs",
     .flash = {"not touched by this request"},
     .next = {"wait for the other programming to end", look_at::states, " and try again"},
     .exit = EXIT_BUSY},
    {.code = BIOS_LOCK_FOR_PEER,
     .name = "locked_for_peer",
     .meaning =
         "reason of a module lock that was taken on request of a peer or for an operator (biosctl lock); no result",
     .flash = NOT_CONCERNED,
     .next = {"free the lock when it is needed no more (biosctl unlock MODULE)"},
     .exit = EXIT_FAILED},
    {.code = BIOS_FLASH_ERR_PROGRAM,
     .name = "program_failed",
     .meaning = "the flash could not be written, or did not equal the image when it was read back",
     .flash = FLASH_CORRUPTED,
     .next = PROGRAM_AGAIN,
     .exit = EXIT_FAILED},
    {.code = BIOS_ERR_IMAGE_NO_VERSION,
     .name = "image_no_version",
     .meaning = "there is no BIOS version in the image",
     .flash = NOT_TOUCHED,
     .next = {"check that the file is a BIOS image for this card type"},
     .exit = EXIT_FAILED},
    {.code = BIOS_ERR_BIND,
     .name = "no_endpoint",
     .meaning = "a process of the daemon could not bind its transport endpoint",
     .flash = NOT_TOUCHED,
     .next = LOOK_AT_LOG,
     .exit = EXIT_FAILED},
    {.code = BIOS_ERR_NO_ENTRIES,
     .name = "no_flash_entries",
     .meaning = "the daemon knows no BIOS flash for the module's card id",
     .flash = NOT_TOUCHED,
     .next = {"check the module's card id in the inventory", look_at::card_ids},
     .exit = EXIT_FAILED},
    {.code = BIOS_ERR_NO_OPERATION,
     .name = "no_operation",
     .meaning = "a flash of the card lacks an operation that was needed after or besides the programming",
     .flash = {"verified if the progress reached 100 percent, else not touched"},
     .next = LOOK_AT_LOG,
     .exit = EXIT_FAILED},
    {.code = BIOS_ERR_IMAGE_VERSION_READ,
     .name = "image_version_not_read",
     .meaning = "the image's BIOS version could not be read",
     .flash = NOT_TOUCHED,
     .next = {"check that the image can be read and that it is a BIOS image"},
     .exit = EXIT_FAILED},
    {.code = BIOS_FLASH_ERR_IMAGE_SIZE,
     .name = "image_unfit",
     .meaning = "the image is empty, larger than the flash, or no regular file",
     .flash = ERASED_WITH_CHIPSET,
     .next = {"program again with an image made for this card type"},
     .exit = EXIT_FAILED},
    {.code = BIOS_FLASH_ERR_PROTECTED,
     .name = "write_protected",
     .meaning = "a sector of the flash that would have to change is write protected",
     .flash = NOT_TOUCHED,
     .next = {"take the write protection off and program again"},
     .exit = EXIT_FAILED},
    {.code = BIOS_ERR_WORK_FILE,
     .name = "work_file_not_written",
     .meaning = "a work file for the image's checksum could not be written",
     .flash = NOT_TOUCHED,
     .next = {"check the room in /tmp of the card"},
     .exit = EXIT_FAILED},
    {.code = BIOS_FLASH_ERR_IMAGE_READ,
     .name = "image_not_read",
     .meaning = "the image could not be read",
     .flash = ERASED_WITH_CHIPSET,
     .next = {"check the card's /bootflash and program again"},
     .exit = EXIT_FAILED},
    {.code = BIOS_FLASH_ERR_NO_FLASH,
     .name = "flash_not_opened",
     .meaning = "the card has no such flash, or it could not be opened or read",
     .flash = {"not touched, unless the card's log says that it was erased before"},
     .next = {"check --type and the card's flash devices"},
     .exit = EXIT_FAILED},
    {.code = BIOS_ERR_FLASH_NO_VERSION,
     .name = "flash_no_version",
     .meaning = "there is no BIOS version in the flash",
     .flash = {"not touched, but its content is no complete BIOS: do not reboot the card", text_meaning::wrong},
     .next = PROGRAM_AGAIN,
     .exit = EXIT_FAILED},
    {.code = BIOS_ERR_FLASH_VERSION_READ,
     .name = "flash_version_not_read",
     .meaning = "the flash's BIOS version could not be read",
     .flash = NOT_TOUCHED,
     .next = {"check the card's flash devices"},
     .exit = EXIT_FAILED},
    {.code = BIOS_FLASH_ERR_IN_USE,
     .name = "flash_in_use",
     .meaning = "the flash is being programmed by another process",
     .flash = {"not touched by this request; the other process is changing it"},
     .next = {"wait for the other programming to end and try again"},
     .exit = EXIT_BUSY},
    {.code = BIOS_ERR_NO_MEMORY,
     .name = "no_memory",
     .meaning = "the daemon could not allocate a work area",
     .flash = NOT_TOUCHED,
     .next = {"check the memory of the card and try again"},
     .exit = EXIT_FAILED},
    {.code = BIOS_ERR_CARD_ID,
     .name = "no_card_id",
     .meaning = "the card does not know its own card id; its daemon may have ended because of that",
     .flash = NOT_TOUCHED,
     .next = {"check the card's card_id in the inventory", look_at::card_ids},
     .exit = EXIT_FAILED},
    {.code = BIOS_REFUSED_NOT_CHECKED,
     .name = "not_checked",
     .meaning = "the card could not check the image or record what is written, and so nothing was begun",
     .flash = NOT_TOUCHED,
     .next = {"check the card's policy file, its agent and the room on its disk"},
     .exit = EXIT_FAILED},
    {.code = BIOS_REFUSED_NO_IMAGE,
     .name = "no_image",
     .meaning = "the flash was to be erased, and there was no image to write into it",
     .flash = NOT_TOUCHED,
     .next = {"check that the image holds a BIOS for this card type and that /bootflash has room for it"},
     .exit = EXIT_FAILED},
    {.code = BIOS_REFUSED_NO_ORDER,
     .name = "no_order",
     .meaning = "the card programs only what was ordered, and there was no order",
     .flash = NOT_TOUCHED,
     .next = {"program with biosctl, or change the card's policy"},
     .exit = EXIT_FAILED},
    {.code = BIOS_REFUSED_OTHER_IMAGE,
     .name = "other_image",
     .meaning = "the image that was to be written is not the one that was ordered",
     .flash = NOT_TOUCHED,
     .next = {"try again; see who else programs", look_at::states},
     .exit = EXIT_FAILED},
    {.code = BIOS_REFUSED_CANCELLED,
     .name = "cancelled",
     .meaning = "the programming was cancelled before anything was written",
     .flash = NOT_TOUCHED,
     .next = {"program again when you want it"},
     .exit = EXIT_FAILED},
    {.code = BIOS_REFUSED_FAMILY,
     .name = "other_family",
     .meaning = "the image is for cards of another family",
     .flash = NOT_TOUCHED,
     .next = {"use an image for this type of card; biosctl program MODULE --force=family programs it all the same"},
     .exit = EXIT_FAILED},
    {.code = BIOS_REFUSED_TOO_LARGE,
     .name = "too_large",
     .meaning = "the image is larger than the flash",
     .flash = NOT_TOUCHED,
     .next = {"use an image for this type of card"},
     .exit = EXIT_FAILED},
    {.code = BIOS_REFUSED_SMALLER,
     .name = "smaller",
     .meaning = "the image is smaller than the flash",
     .flash = NOT_TOUCHED,
     .next = {"check that it is whole; biosctl program MODULE --force=smaller programs it, and erases the rest"},
     .exit = EXIT_FAILED},
    {.code = BIOS_REFUSED_NO_VERSION,
     .name = "no_version",
     .meaning = "the image has no version, so it may be no BIOS",
     .flash = NOT_TOUCHED,
     .next = {"check that the file is a BIOS image; biosctl program MODULE --force=no-version programs it all the "
              "same"},
     .exit = EXIT_FAILED},
    {.code = BIOS_REFUSED_OLDER,
     .name = "older",
     .meaning = "the image is older than what the flash holds",
     .flash = NOT_TOUCHED,
     .next = {"biosctl program MODULE --force=older programs it all the same"},
     .exit = EXIT_FAILED},
    {.code = BIOS_REFUSED_MANIFEST,
     .name = "manifest_damaged",
     .meaning = "the manifest of the image is damaged, or does not fit its bytes",
     .flash = NOT_TOUCHED,
     .next = {"get the image again from whoever made it"},
     .exit = EXIT_FAILED},
    {.code = BIOS_REFUSED_UNSIGNED,
     .name = "unsigned",
     .meaning = "the card takes signed images only, and the image has no signature",
     .flash = NOT_TOUCHED,
     .next = {"use a signed image"},
     .exit = EXIT_FAILED},
    {.code = BIOS_REFUSED_SIGNATURE,
     .name = "signature_wrong",
     .meaning = "the image's signature is wrong, or was made with a key that the card does not trust",
     .flash = NOT_TOUCHED,
     .next = {"use an image that was signed with a key of this card"},
     .exit = EXIT_FAILED},
    {.code = BIOS_REFUSED_SECURITY,
     .name = "security_version",
     .meaning = "the security version of the image is below the one that the card demands",
     .flash = NOT_TOUCHED,
     .next = {"use a newer image"},
     .exit = EXIT_FAILED},
    {.code = BIOS_REFUSED_CHANGED,
     .name = "image_changed",
     .meaning = "the image file was written to while it was in use",
     .flash = {"not touched if the programming had not begun; else half written: do not reboot",
               text_meaning::wrong},
     .next = PROGRAM_AGAIN,
     .exit = EXIT_FAILED},
    {.code = LOCK_RESULT | EPERM,
     .name = "lock_not_owned",
     .meaning = "the module lock belongs to another process",
     .flash = NOT_CONCERNED,
     .next = {"have the holder free it; it frees itself when the holder ends"},
     .exit = EXIT_BUSY},
    {.code = LOCK_RESULT | ENOENT,
     .name = "lock_not_held",
     .meaning = "nobody holds the module lock",
     .flash = NOT_CONCERNED,
     .next = {"nothing to do"},
     .exit = EXIT_NOTHING_TO_DO},
    {.code = LOCK_RESULT | EBUSY,
     .name = "lock_held",
     .meaning = "another process holds the module lock",
     .flash = NOT_CONCERNED,
     .next = {"wait until the holder frees it and try again"},
     .exit = EXIT_BUSY},
});

constexpr bool is_sentence(const char *text)
{
    return text != nullptr && text[0] != '\0';
}

constexpr bool is_complete(const result_row &row)
{
    return is_sentence(row.name) && is_sentence(row.meaning) && is_sentence(row.flash.text) &&
           is_sentence(row.next.text);
}

static_assert(std::ranges::all_of(result_tbl, is_complete), "every text of every row is needed");
static_assert(std::ranges::adjacent_find(result_tbl, std::ranges::greater_equal{}, &result_row::code) ==
                  result_tbl.end(),
              "rows stand in order of their codes, each once");

std::string text_of(const next_step &next)
{
    return next.text + place_in_brackets(next.where) + next.rest;
}

result_description describe_unknown(std::uint32_t code)
{
    if ((code & ~LOCK_RESULT_ERRNO) == LOCK_RESULT) {
        return {code,
                "lock_failed",
                std::string("the module lock failed: ") + std::strerror(static_cast<int>(code & LOCK_RESULT_ERRNO)),
                NOT_CONCERNED,
                text_of(LOOK_AT_LOG),
                EXIT_FAILED};
    }
    if ((code & 0xffffff00) == BIOS_RESULT_PREFIX) {
        return {code,
                "unknown",
                "the programming process ended with exit status " + std::to_string(code & 0xff) +
                    ", which is no known result",
                FLASH_CORRUPTED,
                text_of(LOOK_AT_LOG),
                EXIT_FAILED};
    }
    return {code, "unknown", "no known result code", FLASH_UNKNOWN, text_of(LOOK_AT_LOG), EXIT_FAILED};
}

} // namespace

std::span<const result_row> result_rows()
{
    return result_tbl;
}

const result_row *find_result(std::uint32_t code)
{
    const auto row = std::ranges::lower_bound(result_tbl, code, {}, &result_row::code);
    return row != result_tbl.end() && row->code == code ? &*row : nullptr;
}

result_description describe_result(std::uint32_t code)
{
    if (const result_row *row = find_result(code); row != nullptr)
        return {row->code, row->name, row->meaning, row->flash, text_of(row->next), row->exit};
    return describe_unknown(code);
}

exit_code failure_exit(std::uint32_t code)
{
    const exit_code exit = describe_result(code).exit;
    return exit != EXIT_DONE ? exit : EXIT_FAILED;
}

styled_text result_sentence(const result_description &result)
{
    const bool is_known = find_result(result.code) != nullptr;
    return code_text(result.code) + " (" +
           styled_text(result.name, is_known ? text_meaning::none : text_meaning::wrong) + "): " + result.meaning;
}

std::string slot_text(unsigned slot)
{
    return "slot " + std::to_string(slot);
}

std::string code_text(std::uint32_t code)
{
    char text[sizeof "0x00000000"];
    (void)std::snprintf(text, sizeof text, "0x%08x", code);
    return text;
}
