#include "other_user.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "unique_fd.h"

namespace
{

constexpr const char *NEW_FILE = "/of-another-user";

int errno_unless(bool worked)
{
    return worked ? 0 : errno;
}

bool become(uid_t user)
{
    if (::geteuid() == user)
        return true;
    return ::setgroups(0, nullptr) == 0 && ::setresgid(user, user, user) == 0 && ::setresuid(user, user, user) == 0;
}

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error(path + ": is too long for a socket");
    path.copy(address.sun_path, path.size());
    return address;
}

template<class Lock>
attempt locking_in_one_way(const std::string &path, const char *how, Lock lock)
{
    return {std::string(how) + " " + path, [path, lock] {
                const unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
                return errno_unless(file && lock(file.get()) == 0);
            }};
}

int read_lock(int file, int command)
{
    struct flock whole = {};
    whole.l_type = F_RDLCK;
    whole.l_whence = SEEK_SET;
    return ::fcntl(file, command, &whole);
}

} // namespace

std::vector<int> results_of(uid_t user, const std::vector<attempt> &attempts)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe");
    const unique_fd output(ends[0]);
    unique_fd input(ends[1]);
    const pid_t other = ::fork();
    if (other == 0) {
        if (!become(user))
            ::_exit(1);
        for (const attempt &each : attempts) {
            const int result = each.make();
            if (::write(input.get(), &result, sizeof result) != sizeof result)
                ::_exit(2);
        }
        ::_exit(0);
    }
    input.reset();
    std::vector<int> results;
    for (int result = 0; ::read(output.get(), &result, sizeof result) == sizeof result;)
        results.push_back(result);
    int status = -1;
    if (other < 0 || ::waitpid(other, &status, 0) != other || status != 0 || results.size() != attempts.size())
        throw std::runtime_error("no process of user " + std::to_string(user) + " has made the attempts");
    return results;
}

attempt creating_in(const std::string &directory, const std::string &folder)
{
    const std::string path = directory + "/" + folder + NEW_FILE;
    return {"create " + path, [path] {
                const unique_fd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
                return errno_unless(file && ::unlink(path.c_str()) == 0);
            }};
}

attempt listing(const std::string &directory, const std::string &folder)
{
    const std::string path = directory + "/" + folder;
    return {.what = "list " + path,
            .make =
                [path] {
                    DIR *const opened = ::opendir(path.c_str());
                    return errno_unless(opened != nullptr && ::closedir(opened) == 0);
                },
            .reads = true};
}

attempt reading(const std::string &directory, const std::string &file)
{
    const std::string path = directory + "/" + file;
    return {.what = "read " + path,
            .make = [path] { return errno_unless(bool(unique_fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)))); },
            .reads = true};
}

attempt writing_to(const std::string &directory, const std::string &file)
{
    const std::string path = directory + "/" + file;
    return {"write to " + path, [path] {
                return errno_unless(bool(unique_fd(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC))));
            }};
}

attempt removing(const std::string &directory, const std::string &file)
{
    const std::string path = directory + "/" + file;
    return {.what = "remove " + path,
            .make = [path] { return errno_unless(::unlink(path.c_str()) == 0); },
            .may_be_repeated = false};
}

std::vector<attempt> locking(const std::string &directory, const std::string &file)
{
    const std::string path = directory + "/" + file;
    return {
        locking_in_one_way(path, "flock", [](int fd) { return ::flock(fd, LOCK_SH | LOCK_NB); }),
        locking_in_one_way(path, "read-lock", [](int fd) { return read_lock(fd, F_SETLK); }),
        locking_in_one_way(path, "read-lock for an opening of", [](int fd) { return read_lock(fd, F_OFD_SETLK); }),
    };
}

attempt binding(const std::string &directory, const std::string &endpoint)
{
    const std::string path = directory + "/mts/" + endpoint;
    return {"bind " + path, [path] {
                const unique_fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
                const sockaddr_un address = address_of(path);
                return errno_unless(
                    ::bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                    ::unlink(path.c_str()) == 0);
            }};
}

attempt sending_to(const std::string &directory, const std::string &endpoint, const std::string &datagram)
{
    const std::string path = directory + "/mts/" + endpoint;
    return {"send to " + path, [path, datagram] {
                const unique_fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
                const sockaddr_un address = address_of(path);
                const auto length = static_cast<ssize_t>(datagram.size());
                return errno_unless(
                    ::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                    ::send(socket.get(), datagram.data(), datagram.size(), 0) == length);
            }};
}
