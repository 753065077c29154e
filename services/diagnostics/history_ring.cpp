// History of a card: a ring of its last events in a file that all its processes map.
//
// The file is a header and RECORD_COUNT records of equal size, in host order. A writer draws the next sequence
// number from the header and fills the record that belongs to it; nobody waits for anybody. A record carries a
// checksum of all it says, by which a reader tells a whole record from one that is being written, that its
// writer did not finish, or that was never used. What a process has written outlives it.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bios_log.h"
#include "chassis_diagnostics.h"
#include "chassis_dir.h"
#include "mapping_guard.h"
#include "sdwrap.h"
#include "this_process.h"
#include "unique_fd.h"
#include "watched_file.h"

namespace
{

constexpr char RING_MAGIC[8] = {'E', 'V', 'T', 'R', 'I', 'N', 'G', '2'};
constexpr std::uint32_t RECORD_COUNT = 1024;
constexpr std::size_t TEXT_BYTES = 352; // with the terminator

struct ring_header {
    char magic[8];
    std::uint32_t record_count;
    std::uint32_t record_bytes;
    alignas(8) std::uint64_t last_sequence; // drawn so far; 0: none
    std::uint8_t reserved[40];
};

struct ring_record {
    alignas(8) std::uint64_t sequence;
    std::uint64_t time_ns;
    std::uint32_t pid;
    std::uint32_t event_type;
    std::uint32_t reserved;
    std::uint32_t checksum; // of the rest, this word taken as 0; never 0 in a whole record
    char text[TEXT_BYTES];
};

struct ring_file {
    ring_header header;
    ring_record record[RECORD_COUNT];
};

// Processes of different word size share the file.
static_assert(sizeof(ring_header) == 64 && offsetof(ring_header, last_sequence) == 16);
static_assert(sizeof(ring_record) == 384 && offsetof(ring_record, text) == 32);
static_assert(offsetof(ring_file, record) == 64);
static_assert(std::atomic_ref<std::uint64_t>::is_always_lock_free);

std::string history_path(unsigned slot)
{
    return chassis_slot_path(slot, "history");
}

// FNV-1a over words of 32 bits. Of a zero only the factor is left: a stretch of them costs one multiplication by
// its power.
class fnv_sum
{
public:
    // REQUIRES: length is a multiple of a word's.
    void add(const void *data, std::size_t length)
    {
        const auto *bytes = static_cast<const unsigned char *>(data);
        for (std::size_t index = 0; index < length; index += WORD_BYTES) {
            std::uint32_t word = 0;
            std::memcpy(&word, bytes + index, WORD_BYTES);
            sum_ = (sum_ ^ word) * FACTOR;
        }
    }
    void add_zeros(std::size_t length)
    {
        std::size_t count = length / WORD_BYTES;
        for (std::uint32_t power = FACTOR; count > 0; count /= 2, power *= power) {
            if (count % 2 != 0)
                sum_ *= power;
        }
    }
    std::uint32_t value() const { return sum_; }

    static constexpr std::size_t WORD_BYTES = sizeof(std::uint32_t);

private:
    static constexpr std::uint32_t FACTOR = 16777619U;
    std::uint32_t sum_ = 2166136261U;
};
static_assert(offsetof(ring_record, checksum) % fnv_sum::WORD_BYTES == 0 && TEXT_BYTES % fnv_sum::WORD_BYTES == 0);

constexpr std::size_t whole_words(std::size_t bytes)
{
    return (bytes + fnv_sum::WORD_BYTES - 1) / fnv_sum::WORD_BYTES * fnv_sum::WORD_BYTES;
}

// Of a record whose text is zero from text_words bytes on, or is to be.
std::uint32_t checksum_of(const ring_record &record, std::size_t text_words)
{
    fnv_sum sum;
    sum.add(&record, offsetof(ring_record, checksum));
    sum.add(record.text, text_words);
    sum.add_zeros(sizeof record.text - text_words);
    return sum.value() != 0 ? sum.value() : 1;
}

ring_header fresh_header()
{
    ring_header header{};
    std::memcpy(header.magic, RING_MAGIC, sizeof header.magic);
    header.record_count = RECORD_COUNT;
    header.record_bytes = sizeof(ring_record);
    return header;
}

bool is_ring_header(const ring_header &header)
{
    return std::memcmp(header.magic, RING_MAGIC, sizeof header.magic) == 0 && header.record_count == RECORD_COUNT &&
           header.record_bytes == sizeof(ring_record);
}

// The ring as this process and the children that it forks have mapped it.
class mapped_ring
{
public:
    // The ring of a card; made anew when there is none or what is there is no ring. null with errno.
    // The file is looked at when it may have changed: one that was removed would otherwise lose events.
    ring_file *of(unsigned slot)
    {
        if (!file_ || slot != slot_) {
            file_.emplace(history_path(slot));
            slot_ = slot;
        }
        if (!file_->may_have_changed() && ring_ != nullptr)
            return ring_;
        const std::string &path = file_->path();
        struct stat status {
        };
        if (::fstatat(chassis_dir_fd(), path.c_str(), &status, 0) == 0 && is_mapped(status))
            return ring_;
        forget();
        if (!map(path) && chassis_write_file(path, empty_file()))
            (void)map(path);
        return ring_;
    }

    // For one that turned out to be no ring any more: it is looked at anew.
    void forget()
    {
        if (ring_ != nullptr)
            (void)::munmap(ring_, sizeof(ring_file));
        ring_ = nullptr;
    }

private:
    bool is_mapped(const struct stat &status) const
    {
        return ring_ != nullptr && status.st_dev == device_ && status.st_ino == inode_ &&
               status.st_size == static_cast<off_t>(sizeof(ring_file));
    }

    bool map(const std::string &path)
    {
        const unique_fd file(::openat(chassis_dir_fd(), path.c_str(), O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        struct stat status {
        };
        ring_header header{};
        if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
            status.st_size != static_cast<off_t>(sizeof(ring_file)) ||
            ::pread(file.get(), &header, sizeof header, 0) != static_cast<ssize_t>(sizeof header) ||
            !is_ring_header(header))
            return false;
        void *memory = ::mmap(nullptr, sizeof(ring_file), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
        if (memory == MAP_FAILED)
            return false;
        ring_ = static_cast<ring_file *>(memory);
        device_ = status.st_dev;
        inode_ = status.st_ino;
        return true;
    }

    // Written in full, not only extended: a mapped file without its blocks ends the process on a full disk.
    static std::string empty_file()
    {
        const ring_header header = fresh_header();
        std::string content(reinterpret_cast<const char *>(&header), sizeof header);
        content.resize(sizeof(ring_file));
        return content;
    }

    unsigned slot_ = 0; // that file_ is of
    std::optional<watched_file> file_;
    ring_file *ring_ = nullptr;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

mapped_ring own_ring;

std::uint64_t now_ns()
{
    timespec now{};
    (void)::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000U + static_cast<std::uint64_t>(now.tv_nsec);
}

struct event_to_record {
    ring_file *ring;
    std::uint32_t event_type;
    std::string_view text;
    bool is_recorded;
};

// Records an event, unless what is mapped is no ring.
void record_event(event_to_record &event)
{
    ring_file &ring = *event.ring;
    if (!is_ring_header(ring.header))
        return;
    std::atomic_ref<std::uint64_t> last_sequence(ring.header.last_sequence);
    ring_record fresh; // of its text no more is set than is used
    fresh.sequence = last_sequence.fetch_add(1) + 1;
    fresh.time_ns = now_ns();
    fresh.pid = static_cast<std::uint32_t>(this_process());
    fresh.event_type = event.event_type;
    fresh.reserved = 0;
    const std::size_t text_bytes = std::min(event.text.size(), TEXT_BYTES - 1);
    const std::size_t text_words = whole_words(text_bytes);
    std::memcpy(fresh.text, event.text.data(), text_bytes);
    std::memset(fresh.text + text_bytes, 0, text_words - text_bytes);
    fresh.checksum = checksum_of(fresh, text_words);

    ring_record &record = ring.record[(fresh.sequence - 1) % RECORD_COUNT];
    std::memcpy(&record, &fresh, offsetof(ring_record, text) + text_words);
    std::memset(record.text + text_words, 0, TEXT_BYTES - text_words);
    event.is_recorded = true;
}

bool try_to_record(event_to_record &event)
{
    event.is_recorded = false;
    const auto record = [](void *context) { record_event(*static_cast<event_to_record *>(context)); };
    return survives_lost_pages(record, &event) && event.is_recorded;
}

bool is_whole(const ring_record &record, std::uint32_t index)
{
    return record.sequence != 0 && (record.sequence - 1) % RECORD_COUNT == index &&
           record.checksum == checksum_of(record, sizeof record.text) && record.text[TEXT_BYTES - 1] == '\0';
}

} // namespace

int32_t sdwrap_hist_event_subtype_check(uint32_t event_type, uint32_t subtype)
{
    return event_type == BIOS_LOG_EVENT_TYPE && subtype == BIOS_LOG_SUBTYPE ? 0 : 1;
}

int32_t sdwrap_hist_event(uint32_t event_type, uint32_t length, const char *text)
try {
    const unsigned slot = chassis_own_slot();
    if (text == nullptr || slot == 0) {
        errno = text == nullptr ? EINVAL : ENODEV;
        return -1;
    }
    event_to_record event = {own_ring.of(slot), event_type, {text, ::strnlen(text, length)}, false};
    if (event.ring == nullptr)
        return -1;
    if (try_to_record(event))
        return 0;
    // It was cut or spoiled since it was looked at.
    own_ring.forget();
    event.ring = own_ring.of(slot);
    return event.ring != nullptr && try_to_record(event) ? 0 : -1;
} catch (const std::exception &) {
    errno = ENOMEM;
    return -1;
}

bool chassis_read_history(unsigned slot, std::vector<chassis_history_event> &events)
{
    std::string content;
    if (!chassis_read_file(history_path(slot), content, sizeof(ring_file) + 1))
        return false;
    ring_header header{};
    std::memcpy(&header, content.data(), std::min(content.size(), sizeof header));
    if (content.size() != sizeof(ring_file) || !is_ring_header(header)) {
        errno = EBADMSG;
        return false;
    }
    std::vector<chassis_history_event> found;
    for (std::uint32_t index = 0; index < RECORD_COUNT; ++index) {
        ring_record record{};
        std::memcpy(&record, content.data() + offsetof(ring_file, record) + index * sizeof record, sizeof record);
        if (is_whole(record, index))
            found.push_back({record.sequence, record.time_ns, record.pid, record.event_type, record.text});
    }
    std::sort(found.begin(), found.end(), [](const auto &a, const auto &b) { return a.sequence < b.sequence; });
    events = std::move(found);
    return true;
}
