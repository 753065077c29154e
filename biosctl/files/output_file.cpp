#include "output_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "unique_fd.h"
#include "write_all.h"

namespace
{

std::string folder_of(const std::string &path)
{
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

mode_t usual_mode()
{
    const mode_t mask = ::umask(0);
    (void)::umask(mask);
    return 0666 & ~mask;
}

} // namespace

// A name beside the file to be; removed unless the file got its own name.
class temporary_file
{
public:
    explicit temporary_file(const std::string &path) : name_(path + ".XXXXXX"), fd_(::mkstemp(name_.data())) {}
    ~temporary_file()
    {
        if (fd_ && !renamed_)
            (void)::unlink(name_.c_str());
    }
    temporary_file(const temporary_file &) = delete;
    temporary_file &operator=(const temporary_file &) = delete;

    int fd() const { return fd_.get(); }

    bool rename_to(const std::string &path, bool overwrite)
    {
        const unsigned flags = overwrite ? 0 : RENAME_NOREPLACE;
        renamed_ = ::renameat2(AT_FDCWD, name_.c_str(), AT_FDCWD, path.c_str(), flags) == 0;
        // A file system that cannot do it this way: a link never replaces anything either.
        if (!renamed_ && !overwrite && errno == EINVAL && ::link(name_.c_str(), path.c_str()) == 0) {
            (void)::unlink(name_.c_str());
            renamed_ = true;
        }
        return renamed_;
    }

private:
    std::string name_;
    unique_fd fd_;
    bool renamed_ = false;
};

int check_output_file(const std::string &path, bool overwrite)
{
    struct stat status {
    };
    if (path.empty() || path.ends_with('/'))
        return EISDIR;
    if (::stat(path.c_str(), &status) == 0) {
        if (S_ISDIR(status.st_mode))
            return EISDIR;
        if (!overwrite)
            return EEXIST;
    }
    return ::access(folder_of(path).c_str(), W_OK | X_OK) == 0 ? 0 : errno;
}

output_file::output_file(std::string path) : path_(std::move(path)), file_(std::make_unique<temporary_file>(path_))
{
    if (file_->fd() < 0 || ::fchmod(file_->fd(), usual_mode()) != 0)
        error_ = errno;
}

output_file::~output_file() = default;

int output_file::write(std::span<const std::uint8_t> bytes)
{
    if (error_ == 0 && !write_all(file_->fd(), bytes.data(), bytes.size()))
        error_ = errno;
    return error_;
}

int output_file::finish(bool overwrite)
{
    if (error_ != 0)
        return error_;
    if (::fsync(file_->fd()) != 0 || !file_->rename_to(path_, overwrite))
        return error_ = errno;
    const unique_fd folder(::open(folder_of(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder || ::fsync(folder.get()) != 0)
        return error_ = errno;
    return 0;
}

int write_output_file(const std::string &path, std::span<const std::uint8_t> content, bool overwrite)
{
    output_file file(path);
    (void)file.write(content); // finish says what failed
    return file.finish(overwrite);
}
