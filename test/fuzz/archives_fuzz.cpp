// System images for veskadd and nbitool, which run here as they are built, in a private folder. Whatever an image
// and a member's name say, nothing is written outside of the destination, nothing is left behind by a run that
// failed, and no program is started.
//
//   mode (1 byte), length and name of the member | image
//   mode bit 0: nbitool in place of veskadd, bit 1: make the tar's checksums right, bits 2 to 4: what is planted in
//   the destination, bits 5 to 7: the name is one of those that the daemon asks for, or the input's own
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "fuzz_input.h"
#include "open_descriptor_check.h"
#include "scratch_folder.h"
#include "unique_fd.h"

int veskadd_main(int argument_count, char **arguments);
int nbitool_main(int argument_count, char **arguments);

namespace
{

constexpr std::size_t BLOCK_BYTES = 512;
constexpr std::size_t SIZE_OFFSET = 124;
constexpr std::size_t SIZE_DIGITS = 11;
constexpr std::size_t CHECKSUM_OFFSET = 148;
constexpr std::size_t CHECKSUM_BYTES = 8;
constexpr std::size_t LARGEST_MEMBER_BYTES = 64u << 20;

constexpr const char *MEMBERS[] = {"/vesk/plugin_img/core_plugin", "etc/srg-sloader.sro",
                                   "/vesk/bin/bios-x86n.bin.gz"};
constexpr const char *SENTINEL_TEXT = "untouched";

bool tool_runs;

// TOP/                the private folder
// TOP/around/in/out   the destination: a name that leads out of it ends in a folder that is looked at
// TOP/elsewhere       where planted links lead to
class image_folder
{
public:
    std::string image() const { return top_ + "/image"; }
    std::string destination() const { return top_ + "/around/in/out"; }
    std::string elsewhere() const { return top_ + "/elsewhere"; }

    void lay_out(std::span<const std::uint8_t> image_content) const
    {
        std::error_code problem;
        for (const char *name : {"/around", "/elsewhere"})
            std::filesystem::remove_all(top_ + name, problem);
        std::filesystem::create_directories(destination());
        std::filesystem::create_directories(elsewhere());
        write(elsewhere() + "/sentinel",
              {reinterpret_cast<const std::uint8_t *>(SENTINEL_TEXT), std::strlen(SENTINEL_TEXT)});
        write(image(), image_content);
    }
    // Everything but what is below the destination.
    std::set<std::string> names_outside() const
    {
        std::set<std::string> names;
        for (auto found = std::filesystem::recursive_directory_iterator(top_);
             found != std::filesystem::recursive_directory_iterator(); ++found) {
            names.insert(found->path().string());
            if (found->path() == destination())
                found.disable_recursion_pending();
        }
        return names;
    }
    bool sentinel_untouched() const
    {
        char text[64] = {};
        const unique_fd file(::open((elsewhere() + "/sentinel").c_str(), O_RDONLY | O_CLOEXEC));
        return ::read(file.get(), text, sizeof text) == static_cast<ssize_t>(std::strlen(SENTINEL_TEXT)) &&
               std::string_view(text) == SENTINEL_TEXT;
    }

private:
    static void write(const std::string &path, std::span<const std::uint8_t> content)
    {
        const unique_fd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        require(::write(file.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()),
                "a file of the private folder can be written");
    }

    const scratch_folder folder_;
    const std::string &top_ = folder_.path();
};

image_folder &folder()
{
    static image_folder kept;
    return kept;
}

std::size_t octal(const std::uint8_t *digits)
{
    std::size_t number = 0;
    for (std::size_t i = 0; i < SIZE_DIGITS && digits[i] >= '0' && digits[i] <= '7'; ++i)
        number = number * 8 + (digits[i] - '0');
    return std::min(number, LARGEST_MEMBER_BYTES);
}

// So that a changed header is one that the archive's reader looks at.
void correct_checksums(std::vector<std::uint8_t> &tar)
{
    for (std::size_t at = 0; at + BLOCK_BYTES <= tar.size();) {
        std::uint8_t *header = tar.data() + at;
        if (std::all_of(header, header + BLOCK_BYTES, [](std::uint8_t byte) { return byte == 0; }))
            return;
        std::fill_n(header + CHECKSUM_OFFSET, CHECKSUM_BYTES, std::uint8_t{' '});
        unsigned sum = 0;
        for (std::size_t i = 0; i < BLOCK_BYTES; ++i)
            sum += header[i];
        (void)std::snprintf(reinterpret_cast<char *>(header + CHECKSUM_OFFSET), CHECKSUM_BYTES - 1, "%06o", sum);
        const std::size_t blocks = (octal(header + SIZE_OFFSET) + BLOCK_BYTES - 1) / BLOCK_BYTES;
        at += (1 + blocks) * BLOCK_BYTES;
    }
}

// What an attacker may have laid under the names that are to be written.
void plant(unsigned kind)
{
    const std::string out = folder().destination();
    int result = 0;
    if ((kind & 1) != 0) // a folder on the way is a link
        result |= ::symlink(folder().elsewhere().c_str(), (out + "/vesk").c_str());
    if ((kind & 2) != 0) // the file itself is one
        result |= ::mkdir((out + "/etc").c_str(), 0755) |
                  ::symlink((folder().elsewhere() + "/sentinel").c_str(), (out + "/etc/srg-sloader.sro").c_str());
    if ((kind & 4) != 0) // nbitool's folder is one
        result |= ::symlink(folder().elsewhere().c_str(), (out + "/nbitool").c_str());
    require(result == 0, "what is planted can be made");
}

template<std::size_t COUNT>
int run_tool(int (*tool)(int, char **), std::array<std::string, COUNT> words)
{
    std::array<char *, COUNT + 1> arguments{};
    for (std::size_t i = 0; i < COUNT; ++i)
        arguments[i] = words[i].data();
    ::optind = 0; // getopt begins anew
    tool_runs = true;
    const int status = tool(static_cast<int>(COUNT), arguments.data());
    tool_runs = false;
    return status;
}

bool is_empty(const std::string &path)
{
    std::error_code problem;
    return std::filesystem::is_empty(path, problem) && !problem;
}

void run_veskadd(const std::string &member, bool planted)
{
    const std::string out = folder().destination();
    const int status = run_tool<6>(veskadd_main, {"veskadd", "-x", "-l64", folder().image(), out, member});
    require(status == 0 || status == 1 || status == 64, "an exit status of veskadd");
    if (!planted)
        require(is_empty(out) == (status != 0) || status == 1, "a member that is taken out is there");
    for (const auto &entry : std::filesystem::recursive_directory_iterator(out))
        require(!entry.path().filename().string().starts_with(".member."), "no temporary file is left behind");
}

void run_nbitool(bool planted)
{
    const std::string out = folder().destination();
    const int opened =
        run_tool<7>(nbitool_main, {"nbitool", "-t", out, "open", folder().image(), "7_ramfs", "7_mntpt"});
    require(opened == 0 || opened == 1, "an exit status of nbitool");
    const std::string mount_point = out + "/nbitool/mnt/7_mntpt";
    std::error_code problem;
    if (!planted)
        require((opened == 0) == std::filesystem::is_regular_file(mount_point + "/etc/srg-sloader.sro", problem),
                "an opened image has its loader");
    const int closed = run_tool<6>(nbitool_main, {"nbitool", "-t", out, "close", "7_ramfs", "7_mntpt"});
    require(closed == opened, "what is open can be closed");
    if (!planted && std::filesystem::exists(out + "/nbitool", problem))
        require(is_empty(out + "/nbitool/mnt"), "a closed image leaves nothing behind");
}

void expect_name_below(const char *name)
{
    if (!tool_runs)
        return;
    const std::string_view text = name;
    require(text.find('/') == std::string_view::npos && text != ".." && text != ".",
            "a name is made in the folder that was opened for it");
}

} // namespace

extern "C" {

int __real_openat(int folder_fd, const char *name, int flags, ...);
int __real_mkdirat(int folder_fd, const char *name, mode_t mode);
int __real_renameat(int from_fd, const char *from, int to_fd, const char *to);

int __wrap_openat(int folder_fd, const char *name, int flags, unsigned mode)
{
    expect_name_below(name);
    return __real_openat(folder_fd, name, flags, mode);
}

int __wrap_mkdirat(int folder_fd, const char *name, mode_t mode)
{
    expect_name_below(name);
    return __real_mkdirat(folder_fd, name, mode);
}

int __wrap_renameat(int from_fd, const char *from, int to_fd, const char *to)
{
    expect_name_below(from);
    expect_name_below(to);
    return __real_renameat(from_fd, from, to_fd, to);
}

// As for a card without the right to mount.
int __wrap_mount(const char *, const char *, const char *, unsigned long, const void *)
{
    errno = EPERM;
    return -1;
}

int __wrap_umount2(const char *, int)
{
    errno = EINVAL;
    return -1;
}

// The archive library's way to start a program; this definition comes before the C library's.
int posix_spawnp(pid_t *, const char *, const posix_spawn_file_actions_t *, const posix_spawnattr_t *,
                 char *const[], char *const[])
{
    require(false, "an image starts no program");
    return ENOENT;
}

int LLVMFuzzerInitialize(int *, char ***)
{
    (void)folder();
    // The tools' own messages would hide the fuzzer's; those go to the descriptor and not to the stream.
    stderr = std::fopen("/dev/null", "w");
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_input input(data, size);
    const unsigned mode = input.byte();
    std::string member = input.text();
    member = member.c_str(); // as an argument of a program
    if (const unsigned known = mode >> 5; known < std::size(MEMBERS))
        member = MEMBERS[known];
    const auto rest = input.rest();
    std::vector<std::uint8_t> image(rest.begin(), rest.end());
    if ((mode & 2) != 0)
        correct_checksums(image);
    const unsigned planted = mode >> 2 & 7;

    const int working_folder = ::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    {
        const open_descriptor_check descriptors;
        folder().lay_out(image);
        plant(planted);
        const std::set<std::string> before = folder().names_outside();
        if ((mode & 1) != 0)
            run_nbitool(planted != 0);
        else
            run_veskadd(member, planted != 0);
        require(folder().names_outside() == before && folder().sentinel_untouched(),
                "nothing is written outside of the destination");
    }
    require(::fchdir(working_folder) == 0, "the fuzzer's own folder is there");
    (void)::close(working_folder);
    return 0;
}

} // extern "C"
