// Progress of a programming as text: a bar that is drawn over itself on a terminal, one line per ten percent
// elsewhere.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

// What the progress messages have told so far.
struct progress_state {
    bool seen = false; // a progress message came; the rest means nothing before
    std::uint32_t phase = 0;
    std::uint32_t percent = 0; // 0..100, the highest that came
    std::uint32_t attempt = 0; // 0: not worth telling

    // The only proof that a flash holds the image: it was read back, compared and found equal.
    bool verified() const { return seen && percent == 100; }
};

// "erasing", "writing", "verifying"; "working" for a phase that is not known.
const char *phase_text(std::uint32_t phase);

// Likewise, but "verified" when that has ended well.
const char *work_text(std::uint32_t phase, std::uint32_t percent);

// "00:07", "12:34", "1:02:03".
std::string elapsed_text(unsigned seconds);

// "module 5: [#####.....]  50% writing, attempt 1, 00:07". Shorter than columns, so that it stays on one line also
// with "^C": the bar gives way first, then words do ("module 5:  50% writing #1 00:07"), and the end is cut last.
std::string progress_bar_text(const std::string &subject, const progress_state &state, unsigned elapsed_s,
                              unsigned columns);

// "module 5: 50% writing, attempt 1, 00:07".
std::string progress_line_text(const std::string &subject, const progress_state &state, unsigned elapsed_s);

// Chooses what is worth a line: the first message, a new ten percent, a new attempt.
class progress_lines
{
public:
    explicit progress_lines(std::string subject) : subject_(std::move(subject)) {}

    // The line to print, without newline; none when nothing changed enough.
    std::optional<std::string> next(const progress_state &state, unsigned elapsed_s);

private:
    std::string subject_;
    bool started_ = false;
    std::uint32_t tens_ = 0;
    std::uint32_t attempt_ = 0;
};

// Shows progress on a descriptor, as a bar where lines can be drawn over.
class progress_view
{
public:
    progress_view(int fd, std::string subject);
    ~progress_view() { finish(); }
    progress_view(const progress_view &) = delete;
    progress_view &operator=(const progress_view &) = delete;

    void show(const progress_state &state, unsigned elapsed_s);
    void finish(); // ends the line of the bar; what is printed next begins on a line of its own

private:
    void put(const std::string &text) const;

    int fd_;
    bool terminal_;
    bool drawn_ = false;
    std::string subject_;
    progress_lines lines_;
};
