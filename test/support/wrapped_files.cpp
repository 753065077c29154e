// File calls of the daemon: its absolute paths are taken below the test's own folder, and every use of such a path
// is recorded under the path that the daemon gave. Any other path goes to the file system as it stands.
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "record_forms.h"

namespace
{

constexpr std::array<const char *, 5> redirected_folders = {"/bootflash", "/mnt/pss", "/mnt/bootloader", "/var/tmp",
                                                            "/vesk"};
constexpr std::array<const char *, 4> redirected_files = {"/tmp/new_bios", "/tmp/chksum", "/tmp/install_loader.log",
                                                          "/etc/srg-ks.sro"};

bool begins_with_folder(const std::string &path, const std::string &folder)
{
    return path.compare(0, folder.size(), folder) == 0 &&
           (path.size() == folder.size() || path[folder.size()] == '/');
}

bool is_redirected(const std::string &path)
{
    if (current_platform == nullptr || begins_with_folder(path, platform().root()))
        return false;
    for (const char *folder : redirected_folders)
        if (begins_with_folder(path, folder))
            return true;
    for (const char *file : redirected_files)
        if (path == file)
            return true;
    return false;
}

// A path as the daemon gave it, and where it leads.
class file_use
{
public:
    file_use(const char *call, const char *path, const std::string &more = "")
        : redirected_(is_redirected(path)),
          real_(redirected_ ? platform().path(path) : path)
    {
        if (!redirected_)
            return;
        const scripted_result result = platform().called(call, quoted(path) + more);
        failed_ = result.value != 0;
    }
    bool failed() const { return failed_; }
    const char *real() const { return real_.c_str(); }

private:
    bool redirected_;
    bool failed_ = false;
    std::string real_;
};

std::string named_flags(int flags)
{
    const int access = flags & O_ACCMODE;
    std::string names = access == O_RDONLY ? "O_RDONLY" : access == O_WRONLY ? "O_WRONLY" : "O_RDWR";
    names += (flags & O_CREAT) != 0 ? "|O_CREAT" : "";
    names += (flags & O_TRUNC) != 0 ? "|O_TRUNC" : "";
    names += (flags & O_APPEND) != 0 ? "|O_APPEND" : "";
    return ", " + names;
}

// The daemon's name of a working folder.
std::string unredirected(const std::string &path)
{
    if (current_platform == nullptr || !begins_with_folder(path, platform().root()))
        return path;
    return path.size() == platform().root().size() ? "/" : path.substr(platform().root().size());
}

} // namespace

extern "C" {

int __real_open(const char *path, int flags, ...);
int __real_openat(int folder, const char *path, int flags, ...);
int __real_creat(const char *path, mode_t mode);
int __real_stat(const char *path, struct stat *out);
int __real_lstat(const char *path, struct stat *out);
int __real_lstat64(const char *path, struct stat64 *out);
int __real_access(const char *path, int mode);
int __real_unlink(const char *path);
int __real_remove(const char *path);
int __real_rename(const char *from, const char *to);
int __real_mkdir(const char *path, mode_t mode);
int __real_chmod(const char *path, mode_t mode);
int __real_chdir(const char *path);
FILE *__real_fopen(const char *path, const char *mode);
char *__real_getcwd(char *buffer, std::size_t length);

static int open_with(const char *path, int flags, mode_t mode)
{
    const file_use use("open", path, named_flags(flags));
    return use.failed() ? -1 : __real_open(use.real(), flags, mode);
}

static mode_t mode_of(int flags, std::va_list arguments)
{
    return (flags & O_CREAT) != 0 ? static_cast<mode_t>(va_arg(arguments, unsigned)) : 0;
}

int __wrap_open(const char *path, int flags, ...)
{
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_of(flags, arguments);
    va_end(arguments);
    return open_with(path, flags, mode);
}

int __wrap_openat(int folder, const char *path, int flags, ...)
{
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_of(flags, arguments);
    va_end(arguments);
    return path[0] == '/' ? open_with(path, flags, mode) : __real_openat(folder, path, flags, mode);
}

int __wrap_creat(const char *path, mode_t mode)
{
    return open_with(path, O_WRONLY | O_CREAT | O_TRUNC, mode);
}

int __wrap_stat(const char *path, struct stat *out)
{
    const file_use use("stat", path);
    return use.failed() ? -1 : __real_stat(use.real(), out);
}

int __wrap_lstat(const char *path, struct stat *out)
{
    const file_use use("lstat", path);
    return use.failed() ? -1 : __real_lstat(use.real(), out);
}

int __wrap_lstat64(const char *path, struct stat64 *out)
{
    const file_use use("lstat", path);
    return use.failed() ? -1 : __real_lstat64(use.real(), out);
}

int __wrap_access(const char *path, int mode)
{
    const file_use use("access", path);
    return use.failed() ? -1 : __real_access(use.real(), mode);
}

int __wrap_unlink(const char *path)
{
    const file_use use("unlink", path);
    return use.failed() ? -1 : __real_unlink(use.real());
}

int __wrap_remove(const char *path)
{
    const file_use use("remove", path);
    return use.failed() ? -1 : __real_remove(use.real());
}

int __wrap_rename(const char *from, const char *to)
{
    const file_use source("rename", from);
    const file_use target("rename_to", to);
    return source.failed() ? -1 : __real_rename(source.real(), target.real());
}

int __wrap_mkdir(const char *path, mode_t mode)
{
    const file_use use("mkdir", path);
    return use.failed() ? -1 : __real_mkdir(use.real(), mode);
}

int __wrap_chmod(const char *path, mode_t mode)
{
    const file_use use("chmod", path);
    return use.failed() ? -1 : __real_chmod(use.real(), mode);
}

int __wrap_chdir(const char *path)
{
    const file_use use("chdir", path);
    if (std::strcmp(path, "/") == 0)
        platform().note("chdir(\"/\")");
    return use.failed() ? -1 : __real_chdir(use.real());
}

FILE *__wrap_fopen(const char *path, const char *mode)
{
    const file_use use("fopen", path, ", " + quoted(mode));
    return use.failed() ? nullptr : __real_fopen(use.real(), mode);
}

char *__wrap_getcwd(char *buffer, std::size_t length)
{
    std::array<char, 4096> real;
    if (__real_getcwd(real.data(), real.size()) == nullptr)
        return nullptr;
    const std::string path = unredirected(real.data());
    if (buffer == nullptr)
        return ::strdup(path.c_str());
    if (path.size() >= length) {
        errno = ERANGE;
        return nullptr;
    }
    return std::strcpy(buffer, path.c_str());
}

char *__wrap_get_current_dir_name()
{
    return __wrap_getcwd(nullptr, 0);
}

} // extern "C"
