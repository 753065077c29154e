#include "member_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "image_archive.h"
#include "write_all.h"

namespace
{

constexpr mode_t FOLDER_MODE = 0755;

[[noreturn]] void fail(const std::string &what)
{
    throw image_error(what + ": " + std::strerror(errno));
}

// Opens a sub-folder, which is made when it is missing. A link in its place is not followed.
unique_fd enter_folder(int parent_fd, const std::string &name)
{
    if (::mkdirat(parent_fd, name.c_str(), FOLDER_MODE) != 0 && errno != EEXIST)
        fail(name);
    unique_fd folder(::openat(parent_fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder)
        fail("folder " + name + " of the destination");
    return folder;
}

} // namespace

std::vector<std::string> member_components(const std::string &name)
{
    if (std::any_of(name.begin(), name.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }))
        throw image_error("member name has a control character");
    std::vector<std::string> components;
    for (std::size_t begin = 0; begin < name.size();) {
        const std::size_t end = std::min(name.find('/', begin), name.size());
        const std::string component = name.substr(begin, end - begin);
        if (component == "..")
            throw image_error("member name " + name + " leads out of the destination");
        if (!component.empty() && component != ".")
            components.push_back(component);
        begin = end + 1;
    }
    if (components.empty())
        throw image_error("member name is empty");
    return components;
}

member_file::member_file(const std::string &destination)
    : member_file(unique_fd(::open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), destination)
{
}

member_file::member_file(unique_fd folder, const std::string &destination) : folder_(std::move(folder))
{
    if (!folder_)
        fail(destination);
    const std::string name = ".member." + std::to_string(::getpid());
    (void)::unlinkat(folder_.get(), name.c_str(), 0); // of an earlier process with this number that was killed
    file_.reset(::openat(folder_.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file_)
        fail(destination);
    temporary_name_ = name;
}

member_file::~member_file()
{
    if (!temporary_name_.empty())
        (void)::unlinkat(folder_.get(), temporary_name_.c_str(), 0);
}

void member_file::append(const void *bytes, std::size_t length)
{
    if (!write_all(file_.get(), bytes, length))
        fail("member");
}

void member_file::commit(const std::vector<std::string> &components, unsigned mode)
{
    if (::fchmod(file_.get(), mode) != 0)
        fail("member");
    unique_fd parent(::fcntl(folder_.get(), F_DUPFD_CLOEXEC, 0));
    if (!parent)
        fail("destination");
    for (std::size_t i = 0; i + 1 < components.size(); ++i)
        parent = enter_folder(parent.get(), components[i]);
    if (::renameat(folder_.get(), temporary_name_.c_str(), parent.get(), components.back().c_str()) != 0)
        fail(components.back());
    temporary_name_.clear();
}
