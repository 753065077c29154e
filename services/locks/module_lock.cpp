// The module lock (platform/modlock.h): record locks of the system on one file that all cards share.
//
// Such a lock belongs to a process, is not inherited by its children and goes with it, however it ends. It would
// also go when the process closed any descriptor of the file: there is one descriptor, kept for life, and whoever
// wants to look at the locks goes through it. The system does not tell a process about its own locks; those are
// kept here.
#include "modlock.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "c_boundary.h"
#include "chassis_dir.h"
#include "chassis_module_lock.h"
#include "module_lock_record.h"
#include "this_process.h"
#include "unique_fd.h"
#include "watched_file.h"

namespace
{

constexpr const char *DIRECTORY_NAME = "locks";
constexpr const char *LOCK_FILE_NAME = "locks/modules";
constexpr unsigned REQUEST_REASON_WORD = 3;
constexpr std::uint32_t NODE_ID_COUNT = 0x10000;

struct client {
    unique_fd file;
    pid_t process = 0; // whose locks are listed; a forked child has none
    std::set<std::uint16_t> own;
    std::set<std::uint16_t> known_free; // nobody's when last asked for, and since then nobody has taken any lock
};

client &this_client()
{
    static client *const the_client = new client; // never freed: the locks last as long as the process
    if (the_client->process != this_process()) {
        the_client->process = this_process();
        the_client->own.clear();
        the_client->known_free.clear();
    }
    return *the_client;
}

bool open_lock_file(client &client)
{
    const int chassis = chassis_dir_fd();
    if (chassis < 0)
        return false;
    if (::mkdirat(chassis, DIRECTORY_NAME, 0700) != 0 && errno != EEXIST)
        return false;
    client.file.reset(::openat(chassis, LOCK_FILE_NAME, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    return static_cast<bool>(client.file);
}

bool is_open(client &client)
{
    return client.file || open_lock_file(client);
}

struct flock range(short type, std::uint32_t first, std::uint32_t count)
{
    struct flock lock {
    };
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(first);
    lock.l_len = static_cast<off_t>(count);
    return lock;
}

// 0, or -1 with errno: EBUSY when another process holds the lock.
int set_lock(const client &client, short type, std::uint16_t node_id)
{
    const struct flock lock = range(type, node_id, 1);
    while (::fcntl(client.file.get(), F_SETLK, &lock) != 0) {
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EACCES)
            errno = EBUSY;
        return -1;
    }
    return 0;
}

// The lock of another process that covers some of count node ids from first on; l_type F_UNLCK when there is none.
// 0, or -1 with errno.
int find_other_holder(const client &client, std::uint32_t first, std::uint32_t count, struct flock &found)
{
    found = range(F_WRLCK, first, count);
    return ::fcntl(client.file.get(), F_GETLK, &found);
}

// The system names one lock at a time, and locks of one process side by side as one: look on both sides of it.
// 0, or -1 with errno.
int collect_others(const client &client, std::uint32_t first, std::uint32_t end, std::set<std::uint16_t> &held)
{
    if (first >= end)
        return 0;
    struct flock found;
    if (find_other_holder(client, first, end - first, found) != 0)
        return -1;
    if (found.l_type == F_UNLCK)
        return 0;
    const auto found_first = static_cast<std::uint32_t>(std::max<off_t>(found.l_start, first));
    const off_t found_end_offset = found.l_len == 0 ? off_t{end} : found.l_start + found.l_len;
    const auto found_end = static_cast<std::uint32_t>(std::min<off_t>(found_end_offset, end));
    for (std::uint32_t node_id = found_first; node_id < found_end; ++node_id)
        held.insert(static_cast<std::uint16_t>(node_id));
    return collect_others(client, first, found_first, held) != 0 ? -1
                                                                 : collect_others(client, found_end, end, held);
}

std::int32_t take(client &client, std::uint16_t node_id, std::uint32_t owner, std::uint32_t reason)
{
    if (!is_open(client))
        return -1;
    if (client.own.contains(node_id))
        return 0;
    const auto entry = client.own.insert(node_id).first; // before the lock: memory may run out
    if (set_lock(client, F_WRLCK, node_id) != 0) {
        client.own.erase(entry);
        return -1;
    }
    // The lock is what counts: where its record cannot be written, the holder is only not shown by name.
    (void)c_boundary([&] { return module_lock_record_write(node_id, owner, reason) ? 0 : -1; });
    return 0;
}

// Whoever takes a lock writes a record beside the lock file.
bool was_any_lock_taken()
{
    static watched_file lock_file(LOCK_FILE_NAME);
    return lock_file.may_have_changed();
}

bool is_known_free(client &client, std::uint16_t node_id)
{
    if (was_any_lock_taken())
        client.known_free.clear();
    return client.known_free.contains(node_id);
}

std::int32_t release(client &client, std::uint16_t node_id)
{
    if (!is_open(client))
        return -1;
    if (client.own.contains(node_id)) {
        module_lock_record_remove(node_id);
        client.own.erase(node_id);
        return set_lock(client, F_UNLCK, node_id);
    }
    struct flock found;
    if (!is_known_free(client, node_id)) {
        if (find_other_holder(client, node_id, 1, found) != 0)
            return -1;
        if (found.l_type != F_UNLCK) {
            errno = EPERM;
            return -1;
        }
        client.known_free.insert(node_id);
    }
    errno = ENOENT;
    return -1;
}

} // namespace

int32_t modlock_init(void)
{
    return c_boundary([] {
        client &client = this_client();
        client.own.clear(); // opening anew closes the old descriptor, and with it go all locks
        return open_lock_file(client) ? 0 : -1;
    });
}

int32_t modlock_module_lock(uint32_t owner, uint32_t node_id, const uint32_t request[4])
{
    if (request == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return c_boundary([&] {
        return take(this_client(), static_cast<std::uint16_t>(node_id), owner, request[REQUEST_REASON_WORD]);
    });
}

int32_t modlock_module_unlock(uint32_t, uint32_t node_id)
{
    return c_boundary([&] { return release(this_client(), static_cast<std::uint16_t>(node_id)); });
}

std::vector<chassis_module_lock_holder> chassis_module_lock_holders(int &error_out)
{
    error_out = 0;
    client &client = this_client();
    std::set<std::uint16_t> held = client.own;
    if (!is_open(client) || collect_others(client, 0, NODE_ID_COUNT, held) != 0) {
        error_out = errno;
        return {};
    }
    std::vector<chassis_module_lock_holder> holders;
    holders.reserve(held.size());
    for (const std::uint16_t node_id : held)
        holders.push_back(module_lock_record_read(node_id));
    return holders;
}
