#include "output_redirection.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "unique_fd.h"

namespace
{

constexpr mode_t LOG_FILE_MODE = 0644;
constexpr int NOTHING_SAVED = -1;

// What the process printed so far belongs to where its output went until now.
void flush_output()
{
    (void)std::fflush(stdout);
    (void)std::fflush(stderr);
}

// A file of this user's with no second name, or a device, which nobody else can make.
bool is_own_file(const struct stat64 &status)
{
    if (S_ISREG(status.st_mode))
        return status.st_uid == ::geteuid() && status.st_nlink <= 1;
    return S_ISCHR(status.st_mode);
}

// The folder is world-writable: somebody may have put a link, a FIFO, a folder or a second name of another file
// under the name of the log. That goes away; what it leads to stays.
void remove_planted(const char *path)
{
    struct stat64 status = {}; // the 32-bit one fails on large inode numbers, and on large files
    if (::lstat64(path, &status) == 0 && !is_own_file(status))
        (void)std::remove(path);
}

unique_fd open_log(const char *path)
{
    remove_planted(path);
    // O_NONBLOCK: a FIFO planted at this very moment must not stop the daemon.
    unique_fd log(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, LOG_FILE_MODE));
    struct stat64 status = {};
    // Output to a FIFO would end the daemon with its reader.
    if (log && (::fstat64(log.get(), &status) != 0 || !is_own_file(status)))
        log.reset();
    return log;
}

} // namespace

output_redirection::output_redirection(const char *path)
{
    flush_output();
    if (const unique_fd log = open_log(path); log) {
        redirect_to(log.get());
        return;
    }
    // Zero and not NOTHING_SAVED: restore takes descriptor 0 for the saved streams.
    saved_output_ = 0;
    saved_error_ = 0;
}

void output_redirection::redirect_to(int log)
{
    unique_fd output(::dup(STDOUT_FILENO));
    if (!output)
        return;
    unique_fd error(::dup(STDERR_FILENO));
    if (!error || ::dup2(log, STDOUT_FILENO) < 0)
        return;
    if (::dup2(log, STDERR_FILENO) < 0) {
        (void)::dup2(output.get(), STDOUT_FILENO);
        return;
    }
    saved_output_ = output.release();
    saved_error_ = error.release();
}

void output_redirection::close_saved()
{
    (void)::close(saved_output_);
    if (saved_error_ != saved_output_)
        (void)::close(saved_error_);
    saved_output_ = NOTHING_SAVED;
    saved_error_ = NOTHING_SAVED;
}

void output_redirection::restore()
{
    flush_output();
    if (saved_output_ == NOTHING_SAVED)
        return;
    (void)::dup2(saved_output_, STDOUT_FILENO);
    (void)::dup2(saved_error_, STDERR_FILENO);
    close_saved();
}

void output_redirection::keep()
{
    if (saved_output_ > 0) // descriptor 0 was not saved by this object
        close_saved();
}
