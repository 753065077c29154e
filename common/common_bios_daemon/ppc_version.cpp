#include "ppc_version.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bios_flash.h"
#include "bios_log.h"
#include "bios_results.h"
#include "exec_cmd.h"
#include "image_mapping.h"
#include "unique_fd.h"
#include "x86_version.h"

namespace
{

constexpr std::size_t IMAGE_BYTES = 0x80000;
constexpr std::size_t HEADER_BYTES = 128; // what magic_string_check and the fields lie in

constexpr std::size_t DIGEST_OFFSET = 4;
constexpr std::size_t DIGEST_BYTES = 16;
constexpr std::size_t DIGEST_TEXT_BYTES = 2 * DIGEST_BYTES;
constexpr std::size_t WRITE_BYTES = 512;

constexpr const char *WORK_IMAGE = "/tmp/new_bios";
constexpr const char *WORK_DIGEST = "/tmp/chksum";
constexpr const char *DIGEST_COMMAND = "/usr/bin/md5sum /tmp/new_bios";

constexpr std::int32_t CHECKSUM_NOT_OPENED = -bios_signed(BIOS_ERR_IMAGE_VERSION_READ);
constexpr std::int32_t CHECKSUM_NOT_WRITTEN = -bios_signed(BIOS_ERR_WORK_FILE);

constexpr std::int32_t FIELD_DIGITS = 2;
constexpr std::int32_t MONTH_LETTERS = 3;

using header_text = char[HEADER_BYTES + 1]; // NUL behind the last byte: the fields have no terminator

void remove_work_files()
{
    (void)::unlink(WORK_IMAGE);
    (void)::unlink(WORK_DIGEST);
}

bool write_without_digest(int fd, const std::uint8_t *image)
{
    if (::write(fd, image, DIGEST_OFFSET) != static_cast<ssize_t>(DIGEST_OFFSET))
        return false;
    for (std::size_t i = 0; i < DIGEST_BYTES; ++i) {
        if (::write(fd, "", 1) != 1)
            return false;
    }
    for (std::size_t at = DIGEST_OFFSET + DIGEST_BYTES; at < IMAGE_BYTES;) {
        const ssize_t put = ::write(fd, image + at, std::min(WRITE_BYTES, IMAGE_BYTES - at));
        if (put <= 0)
            return false;
        at += static_cast<std::size_t>(put);
    }
    return true;
}

std::int32_t write_work_image(const std::uint8_t *image)
{
    // The folder is world-writable: what stands under this name now was planted since the removal.
    const unique_fd fd(::open(WORK_IMAGE, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0777));
    if (!fd) {
        BIOS_LOG("ERROR: Unable to Open New file\n");
        return CHECKSUM_NOT_OPENED;
    }
    (void)::fchmod(fd.get(), 0777);
    if (!write_without_digest(fd.get(), image)) {
        BIOS_LOG("ERROR:Unable to Write to File\n");
        return CHECKSUM_NOT_WRITTEN;
    }
    return 0;
}

void stored_digest_text(const std::uint8_t *image, char (&text)[DIGEST_TEXT_BYTES + 1])
{
    for (std::size_t i = 0; i < DIGEST_BYTES; ++i)
        (void)std::snprintf(text + 2 * i, 3, "%02x", image[DIGEST_OFFSET + i]);
}

bool read_computed_digest(char (&text)[DIGEST_TEXT_BYTES + 1])
{
    // O_NONBLOCK: a FIFO planted in the file's place must not stop the daemon.
    const unique_fd fd(::open(WORK_DIGEST, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat64 status = {}; // the 32-bit one fails on large inode numbers
    if (!fd || ::fstat64(fd.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != ::geteuid())
        return false;                                 // no digest that anybody else has laid there
    (void)!::read(fd.get(), text, DIGEST_TEXT_BYTES); // a short text is a mismatch
    return true;
}

std::int32_t field(const header_text &header, std::size_t offset)
{
    return asc_to_dec(header + offset, FIELD_DIGITS);
}

void format_ppc(const header_text &header, char *version_out)
{
    const std::int32_t year = field(header, 56);
    const std::int32_t day = field(header, 52);
    const std::int32_t month = asc_to_mon(header + 48, MONTH_LETTERS);
    const std::int32_t patch = field(header, 44);
    const std::int32_t minor = field(header, 41);
    const std::int32_t major = field(header, 38);
    (void)std::snprintf(version_out, BIOS_VERSION_TEXT_BYTES - 1, "  v%d.%d.%d(%02d/%02d/%02d)", major, minor,
                        patch, month, day, year);
    // The label is that of another card on purpose: log readers know the line by it.
    BIOS_LOG("LCDC3 version found to be %s\n", version_out);
}

void format_ppc_lc2dc3(const header_text &header, char *version_out)
{
    const std::int32_t year = field(header, 58);
    const std::int32_t day = field(header, 55);
    const std::int32_t month = asc_to_mon(header + 51, MONTH_LETTERS);
    const std::int32_t build = field(header, 47);
    const std::int32_t patch = field(header, 44);
    const std::int32_t minor = field(header, 41);
    const std::int32_t major = field(header, 38);
    (void)std::snprintf(version_out, BIOS_VERSION_TEXT_BYTES - 1, "  v%2d.%2d.%2d%d(%02d/%02d/%04d)", major, minor,
                        patch, build, month, day, year);
    BIOS_LOG("LC2DC3 version found to be %s\n", version_out);
}

// Signature and, for an image file, digest. 0 or BIOS_READER_NO_VERSION, then logged.
std::int32_t check_image(const image_mapping &image, std::uint32_t phys_offset)
{
    const bool has_header = image.readable_bytes() >= HEADER_BYTES;
    if (const std::int32_t rc = has_header ? magic_string_check(image.bytes()) : -1; rc < 0) {
        BIOS_LOG("ERROR: Magic String not Found %d\n", rc);
        return BIOS_READER_NO_VERSION;
    }
    const bool is_image_file = phys_offset == 0;
    if (is_image_file && (image.readable_bytes() < IMAGE_BYTES || bios_checksum_ppc(image.bytes()) != 0)) {
        BIOS_LOG("ERROR: Checksum Validation failed for the BIOS image\n");
        return BIOS_READER_NO_VERSION;
    }
    return 0;
}

std::int32_t read_version(const char *function, int line, const char *path, std::uint32_t phys_offset,
                          char *version_out, void (*format)(const header_text &, char *))
{
    BIOS_LOG("%s:%d:\n", function, line);
    std::memset(version_out, 0, BIOS_VERSION_TEXT_BYTES);
    BIOS_LOG("location=%s phy=0x%x ver=%s\n", path, phys_offset, version_out);

    image_mapping image;
    if (const std::int32_t result = image.map(path, IMAGE_BYTES, phys_offset); result != 0)
        return result;
    if (const std::int32_t rc = check_image(image, phys_offset); rc != 0) {
        image.release();
        errno = 0;
        BIOS_LOG("ERROR: could not find flash version (%s) err=%d rc=%d \n", version_out, errno, rc);
        return rc;
    }
    header_text header = {};
    std::memcpy(header, image.bytes(), HEADER_BYTES);
    format(header, version_out);
    return 0;
}

} // namespace

std::int32_t bios_checksum_ppc(const void *image)
{
    const auto *bytes = static_cast<const std::uint8_t *>(image);
    BIOS_LOG("%s:%d:\n", "bios_checksum_ppc", __LINE__);
    remove_work_files();
    if (const std::int32_t rc = write_work_image(bytes); rc != 0) {
        (void)::unlink(WORK_IMAGE);
        return rc;
    }

    char stored[DIGEST_TEXT_BYTES + 1] = {};
    char computed[DIGEST_TEXT_BYTES + 1] = {};
    stored_digest_text(bytes, stored);
    (void)exec_cmd_with_files_print(DIGEST_COMMAND, nullptr, WORK_DIGEST, nullptr, 0);
    if (!read_computed_digest(computed)) {
        BIOS_LOG("ERROR: Unable to Open New file\n");
        (void)::unlink(WORK_IMAGE);
        return CHECKSUM_NOT_OPENED;
    }
    BIOS_LOG(" Des = %s     Src = %s   \n", stored, computed);
    const std::int32_t result = std::strncmp(stored, computed, DIGEST_TEXT_BYTES);
    BIOS_LOG("RET CODE  of checksum %d \n", result);
    remove_work_files();
    return result;
}

std::int32_t get_ppc_bios_version(const char *path, std::uint32_t phys_offset, char *version_out)
{
    return read_version("get_ppc_bios_version", __LINE__, path, phys_offset, version_out, format_ppc);
}

std::int32_t get_ppc_lc2dc3_bios_version(const char *path, std::uint32_t phys_offset, char *version_out)
{
    return read_version("get_ppc_lc2dc3_bios_version", __LINE__, path, phys_offset, version_out, format_ppc_lc2dc3);
}
