#include "delivered_files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "chassis_dir.h"
#include "harmless_path.h"
#include "line_file.h"
#include "read_all_at.h"
#include "text_field.h"
#include "write_all.h"
#include "writing_status.h"

namespace
{

constexpr const char *FOLDER = "images";
constexpr const char *DIGESTS = ".digests";
constexpr const char *NEW_DIGESTS = ".digests.new";
constexpr const char *PARTIAL_PREFIX = ".part.";
constexpr int SAFE_TO_OPEN = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr std::uint64_t NANOSECONDS = 1'000'000'000;

// What waits to be written to the disk is kept this small: the last fsync is not to hold the agent up.
constexpr std::uint64_t WRITTEN_BEHIND_BYTES = std::uint64_t{1} << 20;

// A record of DIGESTS, for this card only.
struct digest_record {
    std::uint64_t inode;
    std::uint64_t changed_ns; // the contents, for the last time
    agent_file_t file;
};
static_assert(sizeof(digest_record) == 120);
constexpr std::size_t RECORDS_MAX = AGENT_FILES_MAX + 1; // one file may be about to replace another

// Why something that is there could not be found, by errno.
agent_status finding_status()
{
    return errno == ENOENT ? AGENT_ERR_NO_FILE : AGENT_ERR_UNREADABLE;
}

unique_fd open_folder()
{
    const std::string path = chassis_slot_path(chassis_own_slot(), FOLDER);
    return unique_fd(::openat(chassis_dir_fd(), path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

digest_record record_of(const struct stat &status, const agent_file_t &file)
{
    return {static_cast<std::uint64_t>(status.st_ino),
            static_cast<std::uint64_t>(status.st_mtim.tv_sec) * NANOSECONDS +
                static_cast<std::uint64_t>(status.st_mtim.tv_nsec),
            file};
}

bool is_of(const digest_record &record, const struct stat &status)
{
    const digest_record now = record_of(status, record.file);
    return S_ISREG(status.st_mode) && now.inode == record.inode && now.changed_ns == record.changed_ns &&
           static_cast<std::uint64_t>(status.st_size) == record.file.size_bytes.load();
}

// The records that are those of the files with their names.
std::vector<digest_record> valid_records(const unique_fd &folder)
{
    const unique_fd digests(::openat(folder.get(), DIGESTS, O_RDONLY | SAFE_TO_OPEN));
    struct stat status {
    };
    if (!digests || ::fstat(digests.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return {};
    std::vector<digest_record> records(
        std::min(static_cast<std::size_t>(status.st_size) / sizeof(digest_record), RECORDS_MAX));
    if (!read_all_at(digests.get(), 0, records.data(), records.size() * sizeof(digest_record)))
        return {};
    std::erase_if(records, [&](const digest_record &record) {
        const auto name = delivered_name(record.file.name);
        return !name || ::fstatat(folder.get(), name->c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
               !is_of(record, status);
    });
    return records;
}

bool has_name(const digest_record &record, const std::string &name)
{
    return name == field_text(record.file.name).text;
}

bool store_records(const unique_fd &folder, const std::vector<digest_record> &records)
{
    (void)::unlinkat(folder.get(), NEW_DIGESTS, 0); // from an agent that died
    const unique_fd file(
        ::openat(folder.get(), NEW_DIGESTS, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file)
        return false;
    if (write_all(file.get(), records.data(), records.size() * sizeof(digest_record)) && ::fsync(file.get()) == 0 &&
        ::renameat(folder.get(), NEW_DIGESTS, folder.get(), DIGESTS) == 0)
        return true;
    const int failure = errno;
    (void)::unlinkat(folder.get(), NEW_DIGESTS, 0);
    errno = failure;
    return false;
}

struct close_folder {
    void operator()(DIR *opened) const { ::closedir(opened); }
};

} // namespace

std::optional<std::string> delivered_name(const char (&field)[AGENT_FILE_NAME_BYTES])
{
    if (::strnlen(field, sizeof field) == sizeof field || !is_harmless_file_name(field))
        return std::nullopt;
    return field;
}

std::vector<agent_file_t> delivered_files()
{
    std::vector<agent_file_t> files;
    for (const digest_record &record : valid_records(open_folder()))
        files.push_back(record.file);
    std::ranges::sort(files, [](const agent_file_t &one, const agent_file_t &other) {
        return std::strcmp(one.name, other.name) < 0;
    });
    return files;
}

agent_status remove_delivered_file(const std::string &name)
{
    const unique_fd folder = open_folder();
    if (!folder || ::unlinkat(folder.get(), name.c_str(), 0) != 0 || ::fsync(folder.get()) != 0)
        return finding_status();
    return AGENT_OK;
}

agent_status open_delivered_file(const std::string &name, piece_source &source_out)
{
    const unique_fd folder = open_folder();
    if (!folder)
        return finding_status();
    const std::vector<digest_record> records = valid_records(folder);
    const auto record =
        std::ranges::find_if(records, [&](const digest_record &one) { return has_name(one, name); });
    if (record == records.end())
        return AGENT_ERR_NO_FILE;
    const auto file = std::make_shared<unique_fd>(::openat(folder.get(), name.c_str(), O_RDONLY | SAFE_TO_OPEN));
    struct stat status {
    };
    if (!*file || ::fstat(file->get(), &status) != 0)
        return finding_status();
    if (!is_of(*record, status))
        return AGENT_ERR_NO_FILE; // replaced just now
    source_out = {.subject = "file " + name,
                  .size_bytes = record->file.size_bytes.load(),
                  .read =
                      [file](std::uint64_t offset, std::uint8_t *bytes_out, std::size_t count) {
                          return read_all_at(file->get(), offset, bytes_out, count) ? AGENT_OK
                                                                                    : AGENT_ERR_UNREADABLE;
                      },
                  .confirm =
                      [wanted = record->file](const sha256_digest &digest) {
                          const bool is_same = std::ranges::equal(digest, wanted.sha256);
                          return is_same ? AGENT_OK : AGENT_ERR_DIGEST;
                      }};
    return AGENT_OK;
}

void remove_partial_files()
{
    unique_fd folder = open_folder();
    if (!folder)
        return;
    const std::unique_ptr<DIR, close_folder> listed(::fdopendir(folder.get()));
    if (!listed)
        return;
    const int listed_fd = folder.release(); // the list's from now on
    while (const dirent *entry = ::readdir(listed.get())) {
        if (std::strncmp(entry->d_name, PARTIAL_PREFIX, std::strlen(PARTIAL_PREFIX)) == 0)
            (void)::unlinkat(listed_fd, entry->d_name, 0);
    }
}

agent_status partial_file::make(std::uint64_t id, std::uint64_t size_bytes)
{
    if (!make_slot_folder(chassis_own_slot(), FOLDER))
        return writing_status();
    folder_ = open_folder();
    if (!folder_)
        return AGENT_ERR_UNREADABLE;
    char name[40];
    (void)std::snprintf(name, sizeof name, "%s%016llx", PARTIAL_PREFIX, static_cast<unsigned long long>(id));
    file_.reset(::openat(folder_.get(), name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file_)
        return writing_status();
    name_ = name;
    // What cannot keep room says when there is none left.
    if (::fallocate(file_.get(), 0, 0, static_cast<off_t>(size_bytes)) != 0 && errno != EOPNOTSUPP)
        return writing_status();
    return AGENT_OK;
}

partial_file::~partial_file()
{
    if (!name_.empty())
        (void)::unlinkat(folder_.get(), name_.c_str(), 0);
}

agent_status partial_file::add(std::uint64_t offset, std::span<const std::uint8_t> bytes)
{
    if (!write_all(file_.get(), bytes.data(), bytes.size()))
        return writing_status();
    // Advice only, but for what is a while ago, which is waited for.
    const auto count = static_cast<off_t>(bytes.size());
    (void)::sync_file_range(file_.get(), static_cast<off_t>(offset), count, SYNC_FILE_RANGE_WRITE);
    if (offset >= WRITTEN_BEHIND_BYTES)
        (void)::sync_file_range(file_.get(), static_cast<off_t>(offset - WRITTEN_BEHIND_BYTES), count,
                                SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER);
    return AGENT_OK;
}

agent_status partial_file::deliver(const agent_file_t &file)
{
    struct stat status {
    };
    if (::fsync(file_.get()) != 0 || ::fstat(file_.get(), &status) != 0)
        return writing_status();
    std::vector<digest_record> records = valid_records(folder_);
    const bool replaces =
        std::ranges::any_of(records, [&](const digest_record &one) { return has_name(one, file.name); });
    if (!replaces && records.size() >= AGENT_FILES_MAX)
        return AGENT_ERR_TOO_MANY_FILES;
    // The record first, beside that of the file that has the name: whichever file is there has one.
    records.push_back(record_of(status, file));
    if (!store_records(folder_, records) || ::renameat(folder_.get(), name_.c_str(), folder_.get(), file.name) != 0)
        return writing_status();
    name_.clear();
    if (::fsync(folder_.get()) != 0) {
        (void)::unlinkat(folder_.get(), file.name, 0);
        return AGENT_ERR_UNREADABLE;
    }
    return AGENT_OK;
}
