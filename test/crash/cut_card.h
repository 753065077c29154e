// Supervisors in a chassis of real programs, of which one is programmed and cut off at an operation of its flash.
#pragma once

#include <string>

#include "chassis_fixture.h"

// What ends at the cut.
enum class cut_reach : std::uint8_t { child, daemon, card };
const char *name_of(cut_reach reach);

// Whose flash is programmed, and how.
struct cut_path {
    const char *name;
    unsigned card_id;
    unsigned target; // slot; 1 is the active supervisor, which is asked
};

class cut_card_test : public chassis_test
{
protected:
    // The chassis of a path, with flashes of a few pages.
    void start(const cut_path &path);

    // One cut, from the old flash to the one that the next request completes. cut: stop, torn or after
    void cut_at(cut_reach reach, const std::string &cut, const std::string &operation, unsigned place);

    // Operations of one undisturbed programming, by name.
    std::map<std::string, unsigned> count_operations();

private:
    void reset_flash() const;
    std::string violations() const;
    programming program_until_child_dies(const std::string &rule);
    programming program_until_it_stands_still(const std::string &rule, cut_reach reach);
    void end_daemon() const;
    void end_card() const;
    void await_active_child(requester &asking, programming &seen) const;
    void expect_honest(const programming &seen) const;
    void expect_next_succeeds_at_once();
    pid_t standing_child() const;

    cut_path path_{};
    unsigned daemon_ends_ = 0; // since the last restart
};
