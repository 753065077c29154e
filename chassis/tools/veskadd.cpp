// veskadd: takes one member out of a system image.
//
//   veskadd -x [-l MIB] IMAGE DESTINATION MEMBER
//
// IMAGE is a tar archive, compressed or not. MEMBER is a name such as /vesk/plugin_img/core_plugin; it is looked
// for with or without its leading slash, and the first member of that name is written as DESTINATION/MEMBER.
// Only regular files are taken out. When anything fails nothing is left behind.
//
// Exit status: 0 the member is there, 1 it is not, 64 wrong usage.
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <unistd.h>

#include "image_member.h"
#include "member_file.h"

namespace
{

constexpr int EXIT_USAGE = 64;
constexpr std::uint64_t DEFAULT_LIMIT_MIB = 1024;
constexpr std::uint64_t MAX_LIMIT_MIB = std::uint64_t{1024} * 1024;

struct command_line {
    std::string image;
    std::string destination;
    std::string member;
    std::uint64_t limit_mib = DEFAULT_LIMIT_MIB;
};

bool parse_limit(const char *text, std::uint64_t &limit_mib)
{
    char *end = nullptr;
    const unsigned long long mib = std::strtoull(text, &end, 10);
    if (end == text || *end != '\0' || mib == 0 || mib > MAX_LIMIT_MIB)
        return false;
    limit_mib = mib;
    return true;
}

bool parse_command_line(int argc, char **argv, command_line &line)
{
    bool extract = false;
    for (int option = 0; (option = ::getopt(argc, argv, "+xl:")) != -1;) {
        if (option == 'x')
            extract = true;
        else if (option != 'l' || !parse_limit(optarg, line.limit_mib))
            return false;
    }
    if (!extract || argc - optind != 3)
        return false;
    line.image = argv[optind];
    line.destination = argv[optind + 1];
    line.member = argv[optind + 2];
    return true;
}

void extract_member(const command_line &line)
{
    image_member member(line.image, line.member);
    member_file file(line.destination);
    member.copy(line.limit_mib, [&](const void *bytes, std::size_t length) { file.append(bytes, length); });
    file.commit(member.components(), member.mode());
}

} // namespace

int main(int argc, char **argv)
{
    command_line line;
    if (!parse_command_line(argc, argv, line)) {
        std::fputs("usage: veskadd -x [-l MIB] IMAGE DESTINATION MEMBER\n", stderr);
        return EXIT_USAGE;
    }
    (void)std::signal(SIGXFSZ, SIG_IGN); // a member beyond the caller's limit is an error like others
    try {
        extract_member(line);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "veskadd: %s\n", failure.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
