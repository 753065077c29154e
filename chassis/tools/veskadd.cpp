// veskadd: takes one member out of a system image.
//
//   veskadd -x [-l MIB] IMAGE DESTINATION MEMBER
//
// IMAGE is a tar archive, compressed or not. MEMBER is a name such as /vesk/plugin_img/core_plugin; it is looked
// for with or without its leading slash, and the first member of that name is written as DESTINATION/MEMBER.
// Only regular files are taken out: an image comes from somewhere else, and a link or a device in it could lead
// out of the destination. When anything fails nothing is left behind.
//
// Exit status: 0 the member is there, 1 it is not, 64 wrong usage.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <unistd.h>
#include <vector>

#include "image_archive.h"
#include "member_file.h"

namespace
{

constexpr int EXIT_USAGE = 64;
constexpr std::uint64_t DEFAULT_LIMIT_MIB = 1024;
constexpr std::uint64_t MAX_LIMIT_MIB = 1024 * 1024;
constexpr std::size_t COPY_BYTES = 64 * 1024;
constexpr unsigned MODE_BITS = 0755; // of the member's own; never set-user-id, never writable for everyone

struct command_line {
    std::string image;
    std::string destination;
    std::string member;
    std::uint64_t limit_bytes = DEFAULT_LIMIT_MIB << 20;
};

bool parse_limit(const char *text, std::uint64_t &limit_bytes)
{
    char *end = nullptr;
    const unsigned long long mib = std::strtoull(text, &end, 10);
    if (end == text || *end != '\0' || mib == 0 || mib > MAX_LIMIT_MIB)
        return false;
    limit_bytes = mib << 20;
    return true;
}

bool parse_command_line(int argc, char **argv, command_line &line)
{
    bool extract = false;
    for (int option = 0; (option = ::getopt(argc, argv, "+xl:")) != -1;) {
        if (option == 'x')
            extract = true;
        else if (option != 'l' || !parse_limit(optarg, line.limit_bytes))
            return false;
    }
    if (!extract || argc - optind != 3)
        return false;
    line.image = argv[optind];
    line.destination = argv[optind + 1];
    line.member = argv[optind + 2];
    return true;
}

bool has_name(archive_entry *entry, const std::vector<std::string> &wanted)
{
    const char *name = archive_entry_pathname(entry);
    if (name == nullptr)
        return false;
    try {
        return member_components(name) == wanted;
    } catch (const image_error &) {
        return false; // a name that leads out of the archive is nobody's
    }
}

archive_entry *find_member(archive *reader, const command_line &line, const std::vector<std::string> &wanted)
{
    archive_entry *entry = nullptr;
    for (;;) {
        const int result = archive_read_next_header(reader, &entry);
        if (result == ARCHIVE_EOF)
            throw image_error(line.image + ": has no member " + line.member);
        if (result < ARCHIVE_WARN)
            throw image_error(line.image + ": " + archive_error_string(reader));
        if (has_name(entry, wanted))
            return entry;
    }
}

void require_regular_file(archive_entry *entry, const command_line &line)
{
    const bool is_link = archive_entry_hardlink(entry) != nullptr || archive_entry_symlink(entry) != nullptr;
    if (is_link)
        throw image_error(line.image + ": member " + line.member + " is a link, which is not taken out");
    if (archive_entry_filetype(entry) != AE_IFREG)
        throw image_error(line.image + ": member " + line.member + " is not a regular file");
}

void copy_contents(archive *reader, member_file &file, const command_line &line)
{
    std::vector<char> piece(COPY_BYTES);
    std::uint64_t total_bytes = 0;
    for (;;) {
        const la_ssize_t got = archive_read_data(reader, piece.data(), piece.size());
        if (got == 0)
            return;
        if (got < 0)
            throw image_error(line.image + ": " + archive_error_string(reader));
        total_bytes += static_cast<std::uint64_t>(got);
        if (total_bytes > line.limit_bytes)
            throw image_error(line.image + ": member " + line.member + " is larger than " +
                              std::to_string(line.limit_bytes >> 20) + " MiB (option -l)");
        file.append(piece.data(), static_cast<std::size_t>(got));
    }
}

void extract_member(const command_line &line)
{
    const std::vector<std::string> wanted = member_components(line.member);
    const archive_reader reader = open_image(line.image);
    archive_entry *entry = find_member(reader.get(), line, wanted);
    require_regular_file(entry, line);
    const unsigned mode = (archive_entry_perm(entry) & MODE_BITS) | 0600;

    member_file file(line.destination);
    copy_contents(reader.get(), file, line);
    file.commit(wanted, mode);
}

} // namespace

int main(int argc, char **argv)
{
    command_line line;
    if (!parse_command_line(argc, argv, line)) {
        std::fputs("usage: veskadd -x [-l MIB] IMAGE DESTINATION MEMBER\n", stderr);
        return EXIT_USAGE;
    }
    try {
        extract_member(line);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "veskadd: %s\n", failure.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
