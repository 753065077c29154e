// The fuzzing platform: an implementation of platform/ for the daemon that answers from the fuzzer's input and
// checks what it is asked. Calls of the C library that reach beyond the process come here as well, through the
// linker's
// --wrap: nothing is run, removed or forked, and the files that the daemon opens are memory files.
//
// An input begins with decisions, one byte each and their number before them. Each call that could go one way or
// another takes the next one; when there are none left everything succeeds. What follows belongs to the target.
#pragma once

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_input.h"
#include "mts.h"
#include "pfm.h"
#include "unique_fd.h"

struct mts_message {
    std::uint32_t opcode = 0;
    std::vector<std::uint8_t> payload; // as large as the transport promises, zero behind the message's end
    unsigned answers = 0;
    unsigned rejections = 0;
    bool taken_by_debug = false;
};

// Where the code goes on after a fork. As the child it is the child from then on, and the parent is not looked at
// any further.
enum class fork_outcome { parent, child, failure, decided };

class fuzz_platform
{
public:
    explicit fuzz_platform(fuzz_input input);
    ~fuzz_platform();
    fuzz_platform(const fuzz_platform &) = delete;
    fuzz_platform &operator=(const fuzz_platform &) = delete;

    // Runs code of the daemon until it returns, or until it ends its process or has nothing left to receive.
    // No object with a destructor may lie between this call and such an end.
    void run(void (*code)(fuzz_platform &platform));
    [[noreturn]] void leave();

    // The next decision, from 0 to choices - 1.
    unsigned decide(unsigned choices);
    // Whether a call that seldom fails fails now.
    bool fails(int error);

    // The part of the input that belongs to the target.
    fuzz_input input;

    // What the calls find.
    std::uint16_t card_id = 90;
    std::uint8_t module_num = 5;
    std::int32_t sup_state = 1;
    bool records_history = true;
    std::function<bool(mts_message &message)> next_message;            // false when there is none left
    std::function<unique_fd(const char *path, int flags)> opened_file; // no descriptor with errno

    std::function<void(const char *command, const char *output)> command_run; // looks at each command of exec_cmd.h
    std::function<std::string(bool of_flash)> version_text; // what every version call finds; absent: decided

    // Messages. One at a time is between its receive and its drop.
    bool receive(mts_message_t **message_out);
    void drop(mts_message_t *message);
    void expect_current(const mts_message_t *message, const char *promise) const;
    mts_message_t *current() { return has_current_ ? &message_ : nullptr; }
    void lend_message(mts_message message); // becomes the current one without being received

    std::function<void(const void *payload, std::uint32_t length)> response_sent; // looks at each answer

    // Processes.
    fork_outcome forks = fork_outcome::decided;
    bool in_child = false;
    int child_pid = 0; // of a child that has not been reaped
    bool allocation_failed = false;
    bool leaving_for_card_id = false; // the own card id was refused: a request may stay unanswered

    // What the daemon asks a shell to do; only harmless words of commands that are known.
    void expect_command(const char *command) const;

private:
    std::vector<std::uint8_t> decisions_;
    std::size_t next_decision_ = 0;
    mts_message message_;
    bool has_current_ = false;
    std::jmp_buf end_;
};

// The platform of the code that runs; null while the fuzzer itself does.
extern fuzz_platform *current_platform;
inline fuzz_platform &platform()
{
    return *current_platform;
}

// open() and calloc() while the daemon's code runs.
unique_fd real_open(const char *path, int flags);
void *real_zeroed_block(std::size_t length);

// Requires that a block can be read or written whole.
void expect_accessible(const void *block, std::size_t length, const char *promise);

// A memory file with this content. Owned by the caller.
unique_fd memory_file(std::string_view content);
