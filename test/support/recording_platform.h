// The recording platform: an implementation of every interface in platform/ for the unit tests of the daemon.
//
// Each call becomes one line of the record, name and arguments in call order, and returns a scripted result
// (success when nothing is scripted). Log messages are lines of the same record, so a test can state in which
// order a function logs and acts:
//
//     platform().next_result("modlock_module_lock", {-1, EBUSY});
//     EXPECT_EQ(platform().story({"log", "modlock_module_lock"}), (lines{"log(locking module here ...)", ...}));
//
// Calls of the C library whose effects matter are redirected here by the linker's --wrap (wrapped_libc.cpp,
// wrapped_files.cpp). The record lies in shared memory of the process tree: what a forked daemon and its children
// do is in it too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "mts.h"
#include "pfm.h"
#include "unique_fd.h"

using bytes = std::vector<std::uint8_t>;
using lines = std::vector<std::string>;

struct mts_message {
    std::uint32_t number; // 1 for the first message made by the test; in the record "#1"
    std::uint32_t opcode;
    mts_address_t source;
    bytes payload; // zero beyond the message's own bytes, as the transport promises
};

// What a call returns; error is left in errno when it is not 0.
struct scripted_result {
    std::int64_t value = 0;
    int error = 0;
};

// A process that waitpid reports.
struct ended_process {
    pid_t pid;
    int status; // raw status word
};

class recording_platform
{
public:
    recording_platform();
    ~recording_platform();

    // Results: the next call of a name takes the oldest queued result, then the standing one, then success.
    void next_result(const std::string &call, scripted_result result) { queued_[call].push_back(result); }
    void every_result(const std::string &call, scripted_result result) { standing_[call] = result; }
    bool has_result(const std::string &call) const;

    // Runs an effect at every later call whose line begins with the text, before the call returns.
    void when(const std::string &line_start, std::function<void()> effect);

    // Lets the next allocation (malloc or calloc) of exactly this many bytes fail.
    void fail_allocation_of(std::size_t byte_count) { failing_allocations_.insert(byte_count); }
    bool allocation_fails(std::size_t byte_count);

    // What the calls find.
    std::uint8_t module_number = 5;                      // get_platform_info
    std::uint16_t module_info_card_id = 0;               // get_card_module_info
    std::uint32_t hw_change_bit = 0;                     // word at byte 174 of SPROM device 3
    pfm_module_record_t modules[PFM_MODULE_COUNT]{};     // module m at index m - 1
    std::map<std::string, std::string> mapped_uris;      // URI to local path; any other cannot be mapped
    std::map<std::string, std::string> version_texts;    // "call, flash or path" to the text it finds
    std::deque<bytes> responses;                         // answers to cmi_remote_req_resp, oldest first
    std::deque<std::string> command_outputs;             // what the commands given to popen print
    std::vector<std::optional<std::string>> frame_texts; // when not empty: what backtrace_symbols makes
    void insert_module(std::uint32_t module, std::uint8_t kind, std::uint16_t card_id);

    // Messages. The script says what each mts_recv finds, in order; at its end end_of_script is called, which
    // must not return. A message that was not received belongs to the platform for the test's whole length.
    mts_message_t *message(std::uint32_t opcode, const bytes &payload = {}, mts_address_t source = {0x201, 93});
    void deliver(std::uint32_t opcode, const bytes &payload = {}, mts_address_t source = {0x201, 93});
    void receive_fails(int error, int times = 1);
    void receive_times_out(int times = 1) { receive_fails(MTS_ERRNO_TIMED_OUT, times); }
    void child_ends(pid_t pid, int status); // reported by the waitpid that follows the last scripted receive
    std::function<void()> end_of_script;

    // The record.
    lines record() const;
    lines story(std::initializer_list<std::string_view> names) const; // only the lines of these calls
    lines calls(std::string_view name) const { return story({name}); }
    lines logs() const; // the messages alone
    bool logged(const std::string &message) const;
    void note(const std::string &line);

    // Every received message dropped once and every dropped message received: "" when so, else what is wrong.
    std::string message_balance() const;

    // Folder that stands for the root of the file system; its subfolders take the daemon's absolute paths.
    const std::string &root() const { return root_; }
    std::string path(const std::string &absolute) const { return root_ + absolute; }
    void write_file(const std::string &absolute, std::string_view content) const;
    std::optional<std::string> read_file(const std::string &absolute) const; // none: there is no such file
    bool file_exists(const std::string &absolute) const { return read_file(absolute).has_value(); }

    // For the implementations of the calls.
    scripted_result called(const std::string &name, const std::string &arguments, scripted_result otherwise = {});
    bool receive(mts_message_t **message_out);
    void dropped(mts_message_t *message);
    std::optional<ended_process> take_ended_process() { return std::exchange(ended_process_, std::nullopt); }
    int progress_area_use(void *area) const; // how often the flash service has seen this zeroed area before
    bool record_writes = false;              // every write of the daemon, with its length
    bool in_programming_child = false;       // marks this process's lines with "child: "
    std::vector<std::pair<void (*)(int, void *), void *>> exit_handlers;

private:
    struct receive_step {
        mts_message_t *message = nullptr; // none: the receive fails with error
        int error = 0;
        std::optional<ended_process> ended;
    };

    unique_fd record_fd_;
    std::string root_;
    std::map<std::string, std::deque<scripted_result>> queued_;
    std::map<std::string, scripted_result> standing_;
    std::vector<std::pair<std::string, std::function<void()>>> effects_;
    std::multiset<std::size_t> failing_allocations_;
    std::vector<std::unique_ptr<mts_message_t>> messages_; // made and not dropped
    std::uint32_t message_count_ = 0;
    std::deque<receive_step> receive_steps_;
    std::optional<ended_process> ended_process_;
};

// The platform of the running test; null between tests.
extern recording_platform *current_platform;
inline recording_platform &platform()
{
    return *current_platform;
}

// Arguments as they stand in the record.
std::string quoted(const char *text);                     // "text", or null
std::string hexed(std::uint32_t number);                  // 0x1f
std::string dumped(const void *data, std::size_t length); // [00000002 ff]; only the start of more than 16 KiB
std::string escaped(std::string_view text);               // line breaks as \n
std::string joined(std::initializer_list<std::string> arguments);
