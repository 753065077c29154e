// nbitool: unpacks the boot loader of a system image, for init-system to install.
//
//   nbitool [-t TOP] open IMAGE RAMFS MNTPT    the loader becomes TOP/nbitool/mnt/MNTPT/etc/srg-sloader.sro, on a
//                                              ram file system with the name RAMFS
//   nbitool [-t TOP] close RAMFS MNTPT         takes all of it away
//
// TOP is /tmp unless -t tells another folder. IMAGE is a tar archive, compressed or not, with a member
// etc/srg-sloader.sro of 64 MiB at most. An open that fails leaves nothing behind.
//
// Exit status: 0 done, 1 failed, 64 wrong usage.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <unistd.h>
#include <vector>

#include "image_member.h"
#include "member_file.h"
#include "opened_image.h"

namespace
{

constexpr int EXIT_USAGE = 64;
constexpr std::uint64_t LOADER_LIMIT_MIB = 64;
constexpr unsigned LOADER_MODE = 0644;

void open_image(const std::string &top, const std::string &image, const std::string &ramfs,
                const std::string &mount_point)
{
    image_member loader(image, LOADER_MEMBER);
    image_being_opened opened(top, ramfs, mount_point);
    member_file file(opened.folder(), mount_point);
    loader.copy(LOADER_LIMIT_MIB, [&](const void *bytes, std::size_t length) { file.append(bytes, length); });
    file.commit(loader.components(), LOADER_MODE);
    opened.complete();
}

// false for words that are no command.
bool run(const std::string &top, const std::vector<std::string> &words)
{
    if (words.size() == 4 && words[0] == "open")
        open_image(top, words[1], words[2], words[3]);
    else if (words.size() == 3 && words[0] == "close")
        close_image(top, words[1], words[2]);
    else
        return false;
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    std::string top = NBITOOL_TOP;
    bool understood = true;
    for (int option = 0; (option = ::getopt(argc, argv, "+t:")) != -1;) {
        understood = understood && option == 't';
        if (option == 't')
            top = optarg;
    }
    try {
        if (understood && run(top, {argv + optind, argv + argc}))
            return EXIT_SUCCESS;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "nbitool: %s\n", failure.what());
        return EXIT_FAILURE;
    }
    std::fputs("usage: nbitool [-t TOP] open IMAGE RAMFS MNTPT\n       nbitool [-t TOP] close RAMFS MNTPT\n",
               stderr);
    return EXIT_USAGE;
}
