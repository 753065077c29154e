#include "folder_tree.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/sendfile.h>
#include <sys/stat.h>

#include "launcher_error.h"
#include "write_all.h"

namespace
{

constexpr mode_t FOLDER_MODE = 0755;
constexpr std::size_t COPY_BYTES = 1 << 20;

struct split_name {
    std::string folder;
    std::string file;
};

split_name split(const std::string &name)
{
    const std::size_t slash = name.rfind('/');
    if (slash == std::string::npos)
        return {"", name};
    return {name.substr(0, slash), name.substr(slash + 1)};
}

void copy_all(int from, int to, const std::string &name)
{
    for (;;) {
        const ssize_t put = ::sendfile(to, from, nullptr, COPY_BYTES);
        if (put == 0)
            return;
        if (put < 0 && errno != EINTR)
            throw system_error_of(name);
    }
}

// Creates a file under a temporary name, lets fill write it, and puts it in the place of the old one.
template<class Fill>
void replace(const unique_fd &folder, const std::string &file, mode_t mode, Fill fill)
{
    const std::string fresh = "." + file + ".new";
    (void)::unlinkat(folder.get(), fresh.c_str(), 0); // of a process that was killed
    try {
        const unique_fd output(
            ::openat(folder.get(), fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!output)
            throw system_error_of(file);
        fill(output.get());
        if (::fchmod(output.get(), mode) != 0)
            throw system_error_of(file);
        if (::renameat(folder.get(), fresh.c_str(), folder.get(), file.c_str()) != 0)
            throw system_error_of(file);
    } catch (...) {
        (void)::unlinkat(folder.get(), fresh.c_str(), 0);
        throw;
    }
}

} // namespace

// Opens a folder; no descriptor with errno when that fails.
unique_fd folder_tree::walk(const std::string &name, bool make_missing) const
{
    unique_fd folder(::openat(top_.get(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (std::size_t begin = 0; folder && begin < name.size();) {
        const std::size_t end = std::min(name.find('/', begin), name.size());
        const std::string component = name.substr(begin, end - begin);
        begin = end + 1;
        if (component.empty() || component == ".")
            continue;
        if (component == "..")
            throw launcher_error(name + ": leads out of the card's root");
        if (make_missing && ::mkdirat(folder.get(), component.c_str(), FOLDER_MODE) != 0 && errno != EEXIST)
            return unique_fd();
        folder.reset(::openat(folder.get(), component.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    return folder;
}

unique_fd folder_tree::open_folder(const std::string &name) const
{
    unique_fd folder = walk(name, true);
    if (!folder)
        throw system_error_of("folder " + name + " of the card's root");
    return folder;
}

void folder_tree::make_folder(const std::string &name, mode_t mode) const
{
    const unique_fd folder = open_folder(name);
    // A mode is not changed through O_PATH; opening "." of it again follows nothing.
    const unique_fd readable(::openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!readable || ::fchmod(readable.get(), mode) != 0)
        throw system_error_of(name);
}

void folder_tree::make_link(const std::string &name, const std::string &target) const
{
    const split_name where = split(name);
    const unique_fd folder = open_folder(where.folder);
    if (::symlinkat(target.c_str(), folder.get(), where.file.c_str()) != 0 && errno != EEXIST)
        throw system_error_of(name);
}

unique_fd folder_tree::open_file_place(const std::string &name) const
{
    const split_name where = split(name);
    const unique_fd folder = open_folder(where.folder);
    unique_fd place(::openat(folder.get(), where.file.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (place)
        return place;
    const unique_fd made(
        ::openat(folder.get(), where.file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    place.reset(::openat(folder.get(), where.file.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!place)
        throw system_error_of(name);
    return place;
}

void folder_tree::write_file(const std::string &name, const std::string &contents, mode_t mode) const
{
    const split_name where = split(name);
    replace(open_folder(where.folder), where.file, mode, [&](int output) {
        if (!write_all(output, contents.data(), contents.size()))
            throw system_error_of(name);
    });
}

void folder_tree::copy_file(const std::string &source, const std::string &name, mode_t mode) const
{
    const unique_fd input(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
    if (!input)
        throw system_error_of(source);
    const split_name where = split(name);
    replace(open_folder(where.folder), where.file, mode,
            [&](int output) { copy_all(input.get(), output, source); });
}

void folder_tree::make_device(const std::string &name, dev_t device) const
{
    const split_name where = split(name);
    const unique_fd folder = open_folder(where.folder);
    struct stat found = {};
    if (::fstatat(folder.get(), where.file.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISCHR(found.st_mode) && found.st_rdev == device)
            return;
        (void)::unlinkat(folder.get(), where.file.c_str(), 0);
    }
    if (::mknodat(folder.get(), where.file.c_str(), S_IFCHR | 0666, device) != 0) {
        write_file(name, "", 0666);
        return;
    }
    if (::fchmodat(folder.get(), where.file.c_str(), 0666, 0) != 0) // not what the umask left of it
        throw system_error_of(name);
}

std::string folder_tree::read_file(const std::string &name, std::size_t limit) const
{
    const split_name where = split(name);
    const unique_fd folder = walk(where.folder, false);
    if (!folder)
        return {};
    // A FIFO in the file's place must not keep the reader waiting.
    const unique_fd file(
        ::openat(folder.get(), where.file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return {};
    std::string content(limit, '\0');
    const ssize_t got = ::pread(file.get(), content.data(), content.size(), 0);
    content.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return content;
}

void folder_tree::remove(const std::string &name) const
{
    const split_name where = split(name);
    const unique_fd folder = open_folder(where.folder);
    std::error_code ignored;
    (void)std::filesystem::remove_all("/proc/self/fd/" + std::to_string(folder.get()) + "/" + where.file, ignored);
}

bool folder_tree::remove_link(const std::string &name) const
{
    const split_name where = split(name);
    const unique_fd folder = open_folder(where.folder);
    struct stat found = {};
    if (::fstatat(folder.get(), where.file.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISLNK(found.st_mode))
        return false;
    if (::unlinkat(folder.get(), where.file.c_str(), 0) != 0)
        throw system_error_of(name);
    return true;
}

void folder_tree::empty_folder(const std::string &name) const
{
    const unique_fd folder = open_folder(name);
    const std::string path = "/proc/self/fd/" + std::to_string(folder.get());
    std::error_code problem;
    for (const std::filesystem::directory_entry &entry : std::filesystem::directory_iterator(path, problem))
        (void)std::filesystem::remove_all(entry.path(), problem); // what cannot be removed stays
}
