// The readers of the image formats, over a memory file that the input shapes. A reader ends with one of its three
// results, a text that ends in its buffer, and the image as it was.
//
//   decisions | reader, size, offset (1 byte each) | piece...
//   piece = unit (1 byte: 0 bytes, otherwise KiB), offset in units (2 bytes), length (1 byte), bytes
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "bios_flash.h"
#include "bios_results.h"
#include "fuzz_platform.h"
#include "open_descriptor_check.h"
#include "ppc_version.h"
#include "x86_version.h"

#include <fcntl.h>
#include <sys/mman.h>

namespace
{

using version_reader = std::int32_t (*)(const char *path, std::uint32_t phys_offset, char *version_out);

struct image_reader {
    version_reader read;
    bool checks_digest;
};
constexpr image_reader READERS[] = {
    {get_x86_bios_version, false}, {get_x86n_bios_version, false},      {get_x86s_bios_version, false},
    {get_ppc_bios_version, true},  {get_ppc_lc2dc3_bios_version, true},
};

constexpr std::size_t PPC_IMAGE_BYTES = 0x80000;
constexpr std::size_t SIZES[] = {0,       1,        48,          49,          127,           128,
                                 129,     4096,     0x10000,     0x10001,     0x10000 + 128, 0x7ffff,
                                 0x80000, 0x801000, 0x1000 + 40, 0x2000 - 16, 0x200000};
constexpr std::uint32_t OFFSETS[] = {0, 0x1000, 0x10000, 0x80000, 1, 0x7ffff000, 0x80000000, 0xfffff000};

constexpr const char *IMAGE_PATH = "/image";
constexpr std::string_view WORK_IMAGE = "/tmp/new_bios";
constexpr std::string_view WORK_DIGEST = "/tmp/chksum";
constexpr std::size_t DIGEST_OFFSET = 4;
constexpr std::size_t DIGEST_BYTES = 16;

enum digest_answer : unsigned { DIGEST_EQUAL, DIGEST_DIFFERS, DIGEST_SHORT, DIGEST_MISSING, DIGEST_ANSWERS };

// The files that a reader meets. The memory files last; their contents are another input's each time.
struct image_files {
    unique_fd image = memory_file("");
    unique_fd work_image = memory_file("");
    std::string digest;
    bool digest_equal = false;
};

image_files &files()
{
    static image_files kept;
    return kept;
}

unique_fd reopened(const unique_fd &file, int flags)
{
    return real_open(("/proc/self/fd/" + std::to_string(file.get())).c_str(), flags & O_ACCMODE);
}

// As the daemon's code finds them.
unique_fd open_file(const char *path, int flags)
{
    if (path == std::string_view(IMAGE_PATH))
        return reopened(files().image, flags);
    require((flags & O_NOFOLLOW) != 0, "a link under the name of a work file is not followed");
    if (path == WORK_IMAGE) {
        require((flags & O_EXCL) != 0, "a work file is a new one");
        require(::ftruncate(files().work_image.get(), 0) == 0, "a memory file can be emptied");
        return reopened(files().work_image, flags);
    }
    require(path == WORK_DIGEST, "no other file is opened");
    if (!files().digest.empty())
        return memory_file(files().digest);
    errno = ENOENT;
    return unique_fd();
}

std::vector<std::uint8_t> content_of(const unique_fd &file, std::size_t length)
{
    std::vector<std::uint8_t> content(length);
    const ssize_t got = ::pread(file.get(), content.data(), length, 0);
    content.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return content;
}

std::string hexadecimal(const std::vector<std::uint8_t> &image)
{
    std::string text;
    for (std::size_t i = DIGEST_OFFSET; i < DIGEST_OFFSET + DIGEST_BYTES; ++i) {
        char digits[3];
        (void)std::snprintf(digits, sizeof digits, "%02x", image[i]);
        text += digits;
    }
    return text;
}

// In the place of the command that computes the digest: the image is laid out as it must be, and the digest is what
// is decided.
void compute_digest(const char *, const char *)
{
    std::vector<std::uint8_t> image = content_of(files().image, PPC_IMAGE_BYTES);
    const std::string digest = hexadecimal(image);
    std::fill_n(image.begin() + DIGEST_OFFSET, DIGEST_BYTES, std::uint8_t{0});
    require(content_of(files().work_image, PPC_IMAGE_BYTES + 1) == image,
            "the work file is the image with zeros in the place of its digest");
    const unsigned answer = platform().decide(DIGEST_ANSWERS);
    files().digest_equal = answer == DIGEST_EQUAL;
    if (answer == DIGEST_EQUAL)
        files().digest = digest + "  /tmp/new_bios\n";
    if (answer == DIGEST_DIFFERS)
        files().digest = std::string(2 * DIGEST_BYTES, digest[0] == '0' ? '1' : '0');
    if (answer == DIGEST_SHORT)
        files().digest = digest.substr(0, digest.size() - 1);
}

void make_image(fuzz_input &input, std::size_t image_bytes)
{
    const int file = files().image.get();
    require(::ftruncate(file, 0) == 0 && ::ftruncate(file, static_cast<off_t>(image_bytes)) == 0,
            "a memory file takes any size");
    while (!input.at_end()) {
        const std::size_t unit = input.byte() == 0 ? 1 : 1024;
        const std::size_t offset = input.word() * unit;
        const auto piece = input.bytes(input.byte());
        if (offset < image_bytes)
            (void)!::pwrite(file, piece.data(), std::min(piece.size(), image_bytes - offset),
                            static_cast<off_t>(offset));
    }
    files().digest.clear();
    files().digest_equal = false;
}

struct reading {
    const image_reader *reader;
    std::uint32_t offset;
    char *version;
    std::int32_t result;
};
reading now;

void read_version(fuzz_platform &)
{
    now.result = now.reader->read(IMAGE_PATH, now.offset, now.version);
}

void expect_outcome()
{
    const std::size_t length = ::strnlen(now.version, BIOS_VERSION_TEXT_BYTES);
    require(length < BIOS_VERSION_TEXT_BYTES, "a version text ends in its buffer");
    if (now.result == 0) {
        require(length > 0, "a version that was found is not empty");
        require(!now.reader->checks_digest || now.offset != 0 || files().digest_equal,
                "an image file without its digest has no version");
        return;
    }
    require(now.result == BIOS_READER_NO_ACCESS || now.result == BIOS_READER_NO_VERSION, "a reader's result");
    const bool zeroed =
        std::all_of(now.version, now.version + BIOS_VERSION_TEXT_BYTES, [](char c) { return c == 0; });
    require(zeroed, "a version that was not found is all zeros");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    return std::freopen("/dev/null", "w", stdout) == nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    (void)files();
    const open_descriptor_check descriptors;
    fuzz_platform platform(fuzz_input(data, size));
    platform.opened_file = open_file;
    platform.command_run = compute_digest;
    const image_reader &reader = READERS[platform.input.byte() % std::size(READERS)];
    const std::size_t image_bytes = SIZES[platform.input.byte() % std::size(SIZES)];
    const std::uint32_t offset = OFFSETS[platform.input.byte() % std::size(OFFSETS)];
    make_image(platform.input, image_bytes);
    const std::vector<std::uint8_t> before = content_of(files().image, std::min<std::size_t>(image_bytes, 0x1000));

    const std::unique_ptr<char[]> version(new char[BIOS_VERSION_TEXT_BYTES]);
    std::memset(version.get(), 'x', BIOS_VERSION_TEXT_BYTES);
    now = {&reader, offset, version.get(), 0};
    platform.run(read_version);
    expect_outcome();
    require(content_of(files().image, before.size() + 1).size() >= before.size() &&
                content_of(files().image, before.size()) == before,
            "an image is only read");
    return 0;
}
