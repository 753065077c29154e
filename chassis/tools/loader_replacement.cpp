#include "loader_replacement.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <vector>

#include "image_error.h"
#include "unique_fd.h"
#include "write_all.h"

namespace
{

constexpr const char *FRESH_FILE = ".srg-sloader.sro.new"; // before it takes its place; then the old loader
constexpr mode_t LOADER_MODE = 0644;
constexpr std::size_t PIECE_BYTES = std::size_t{256} * 1024;

[[noreturn]] void fail(const std::string &what)
{
    throw image_error(what + ": " + std::strerror(errno));
}

// Fills the piece, less only at the end of the file. Bytes read.
std::size_t read_piece(int fd, std::vector<char> &piece, std::uint64_t offset, const char *what)
{
    std::size_t done = 0;
    while (done < piece.size()) {
        const ssize_t got =
            ::pread(fd, piece.data() + done, piece.size() - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            fail(std::string(what) + " cannot be read");
        if (got == 0)
            break;
        done += static_cast<std::size_t>(got);
    }
    return done;
}

void copy_all(int from, int to)
{
    std::vector<char> piece(PIECE_BYTES);
    std::uint64_t offset = 0;
    for (;;) {
        const std::size_t got = read_piece(from, piece, offset, "the new loader");
        if (!write_all(to, piece.data(), got))
            fail("the new loader cannot be written");
        offset += got;
        if (got < piece.size())
            break;
    }
    if (offset == 0)
        throw image_error("the new loader is empty");
}

void require_equal(int one, int other)
{
    std::vector<char> left(PIECE_BYTES);
    std::vector<char> right(PIECE_BYTES);
    for (std::uint64_t offset = 0;; offset += left.size()) {
        const std::size_t got = read_piece(one, left, offset, "the new loader");
        if (read_piece(other, right, offset, "what was written") != got ||
            !std::equal(left.begin(), left.begin() + static_cast<std::ptrdiff_t>(got), right.begin()))
            throw image_error("what was written to the partition differs from the new loader");
        if (got < left.size())
            return;
    }
}

// Removes the fresh file, or what has become of it.
class fresh_file_owner
{
public:
    explicit fresh_file_owner(int folder_fd) : folder_fd_(folder_fd) {}
    fresh_file_owner(const fresh_file_owner &) = delete;
    fresh_file_owner &operator=(const fresh_file_owner &) = delete;
    ~fresh_file_owner() { (void)::unlinkat(folder_fd_, FRESH_FILE, 0); }

private:
    int folder_fd_;
};

void write_fresh_file(int folder_fd, int source_fd)
{
    const unique_fd fresh(
        ::openat(folder_fd, FRESH_FILE, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, LOADER_MODE));
    if (!fresh)
        fail("the new loader cannot be written");
    copy_all(source_fd, fresh.get());
    if (::fsync(fresh.get()) != 0)
        fail("the new loader cannot be written");
}

void compare_fresh_file(int folder_fd, int source_fd)
{
    const unique_fd fresh(::openat(folder_fd, FRESH_FILE, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fresh)
        fail("what was written");
    // From the medium, as far as the system does what it is asked for; it is in memory, too.
    (void)::posix_fadvise(fresh.get(), 0, 0, POSIX_FADV_DONTNEED);
    require_equal(source_fd, fresh.get());
}

bool has_loader(int folder_fd)
{
    struct stat status = {};
    if (::fstatat(folder_fd, LOADER_FILE, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    if (!S_ISREG(status.st_mode))
        throw image_error("what is in the place of the loader is not a regular file");
    return true;
}

// 0, or -1 with errno. exchange: what has the other name gets the first one's.
int rename_within(int folder_fd, const char *from, const char *to, bool exchange)
{
    return ::renameat2(folder_fd, from, folder_fd, to, exchange ? RENAME_EXCHANGE : 0);
}

void put_into_place(int folder_fd)
{
    // The two change places, so that the old one can come back; not every file system can do that.
    bool exchanged = has_loader(folder_fd);
    int result = rename_within(folder_fd, FRESH_FILE, LOADER_FILE, exchanged);
    if (result != 0 && errno == EINVAL && exchanged) {
        exchanged = false;
        result = rename_within(folder_fd, FRESH_FILE, LOADER_FILE, false);
    }
    if (result != 0)
        fail("the new loader cannot take its place");
    if (::fsync(folder_fd) == 0)
        return;
    const int error = errno;
    if (rename_within(folder_fd, LOADER_FILE, FRESH_FILE, exchanged) != 0)
        std::fputs("init-system: the old loader could not be put back\n", stderr);
    errno = error;
    fail("the partition cannot be synced");
}

} // namespace

void replace_loader(int folder_fd, int source_fd)
{
    if (::flock(folder_fd, LOCK_EX | LOCK_NB) != 0)
        fail("the partition is in use by another installation");
    (void)::unlinkat(folder_fd, FRESH_FILE, 0); // of one that was killed
    const fresh_file_owner owner(folder_fd);
    write_fresh_file(folder_fd, source_fd);
    compare_fresh_file(folder_fd, source_fd);
    put_into_place(folder_fd);
}
