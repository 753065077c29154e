#include "flash_event_faults.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <optional>
#include <string>

#include "chassis_dir.h"
#include "flash_event_log.h"

namespace
{

constexpr std::uint64_t READ_BYTES_MAX = 4 * FLASH_EVENT_LOG_BYTES_MAX; // as readers of the events do
constexpr std::size_t FAULT_KINDS = 5;
constexpr timespec WRITERS_PAUSE = {.tv_sec = 0, .tv_nsec = 20'000'000};

// Goes through the files in the order in which they were written.
class line_check
{
public:
    line_check(unsigned slot, unsigned instance) : slot_(slot), instance_(instance) {}

    void read(std::string_view content, bool in_older)
    {
        in_older_ = in_older;
        line_ = 0;
        found_ = {};
        for (std::size_t end = content.find('\n'); end != std::string_view::npos; end = content.find('\n')) {
            ++line_;
            take(content.substr(0, end));
            content.remove_prefix(end + 1);
        }
        if (!content.empty()) {
            ++line_;
            note(flash_line_fault::unfinished, 0);
        }
        std::ranges::copy_if(found_, std::back_inserter(all_),
                             [](const flash_line_finding &finding) { return finding.lines != 0; });
    }
    std::vector<flash_line_finding> all() const { return all_; }

private:
    void take(std::string_view text)
    {
        const auto event = flash_event_parse(text);
        if (!event)
            return note(flash_line_fault::no_event, 0);
        if (event->slot != slot_ || event->instance != instance_)
            return note(flash_line_fault::other_flash, event->sequence);
        if (known_.empty() || event->sequence > known_.back())
            return known_.push_back(event->sequence);
        const bool was_there = std::ranges::binary_search(known_, event->sequence);
        note(was_there ? flash_line_fault::twice : flash_line_fault::out_of_order, event->sequence);
    }
    void note(flash_line_fault fault, std::uint64_t sequence)
    {
        flash_line_finding &finding = found_[static_cast<std::size_t>(fault)];
        if (finding.lines == 0)
            finding = {.fault = fault, .in_older = in_older_, .line = line_, .sequence = sequence};
        ++finding.lines;
    }

    unsigned slot_;
    unsigned instance_;
    bool in_older_ = false;
    std::uint64_t line_ = 0;
    std::vector<std::uint64_t> known_; // numbers, growing
    std::array<flash_line_finding, FAULT_KINDS> found_ = {};
    std::vector<flash_line_finding> all_;
};

// The content. The rest of a line is left out while somebody is at it.
std::string settled_content(const std::string &path)
{
    std::string content;
    if (!chassis_read_file(path, content, READ_BYTES_MAX) || content.empty() || content.back() == '\n')
        return content;
    std::string later;
    (void)::nanosleep(&WRITERS_PAUSE, nullptr);
    if (chassis_read_file(path, later, READ_BYTES_MAX) && later == content)
        return content;
    content.resize(content.rfind('\n') + 1); // of npos all
    return content;
}

} // namespace

std::vector<flash_line_finding> flash_event_log_faults(unsigned slot, unsigned instance)
{
    constexpr unsigned READ_TRIES = 3;
    const std::string path = flash_file_path(slot, instance, FLASH_FILE_EVENTS);
    const std::string older_path = flash_file_path(slot, instance, FLASH_FILE_OLDER_EVENTS);
    std::vector<flash_line_finding> found;
    for (unsigned attempt = 0; attempt < READ_TRIES; ++attempt) {
        const std::uint64_t file = flash_event_log_state_of(slot, instance).file;
        line_check check(slot, instance);
        check.read(settled_content(older_path), true);
        check.read(settled_content(path), false);
        found = check.all();
        if (found.empty() || flash_event_log_state_of(slot, instance).file == file)
            break; // else it was turned over meanwhile
    }
    return found;
}

lost_events flash_events_lost(unsigned slot, unsigned instance)
{
    const flash_folder folder = open_flash_folder(slot, instance);
    if (!folder.fd)
        return {};
    const auto last = flash_event_last_of(slot, instance);
    return lost_events_of(folder, last ? last->sequence : flash_event_history_of(slot, instance).totals.sequence);
}
