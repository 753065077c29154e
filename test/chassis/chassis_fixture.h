// A chassis of real programs for one test: cards are put in, the chassis is started, requests are made, and what
// they left behind is looked at. Each test has a chassis directory of its own, which goes with it; a test that
// fails prints the logs of its cards. A guard process takes the chassis down even when the test is killed.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

#include <gtest/gtest.h>

#include "requester.h"
#include "run_program.h"
#include "test_images.h"
#include "unique_fd.h"
#include "wait_until.h"

struct card_plan {
    unsigned slot = 1;
    std::string role = "active";
    unsigned card_id = 90;
    const test_image *in_flash = &old_image(); // first contents of the primary flash; null: erased
    const test_image *in_tree = &new_image();  // what the image tree holds; null: the card has no image tree
    unsigned flash_kib = SMALL_FLASH_KIB;
    unsigned sector_kib = 16;
    unsigned bootflash_mib = 0; // 0: not limited
    bool serves = true;
    std::string kind = "supervisor"; // of another kind: with role "none"
    std::string answers = "daemon";  // another form: a stand-in answers in the daemon's place
    std::optional<unsigned> answer_rows = {};
    std::optional<unsigned> answer_seed = {};
    std::string boot_loader = {}; // file that becomes the card's boot loader; empty: none
    std::string ks_image = {};    // file that becomes /etc/srg-ks.sro; empty: none
};

// Which daemon the cards run: the one that is shipped, or the same objects without their pauses
// (without_pauses.cpp).
enum class daemon_build : std::uint8_t { without_pauses, shipped };

class chassis_test : public testing::Test
{
protected:
    explicit chassis_test(daemon_build daemon = daemon_build::without_pauses);
    ~chassis_test() override;

    // Before up().
    void insert(const card_plan &card) { cards_[card.slot] = card; }
    void run_as_ordinary_user();                                              // all programs; REQUIRES root
    void limit_waits(unsigned wait_limit_s) { wait_limit_s_ = wait_limit_s; } // of the cards

    // Makes the chassis and starts it. Throws with the launcher's words when that fails.
    void up(const std::string &isolation = "auto");
    // The active supervisor in slot 1 and the standby one in slot 2.
    void up_with_standby();
    // With boot flashes that are disks of their own. false where nothing may be mounted; no card has been started
    // then.
    [[nodiscard]] bool up_with_disks();
    // Has a folder of the chassis on a disk of its own, which only this process and what it starts sees. Before
    // up(). false where nothing may be mounted.
    //   folder  below the chassis's directory: "slots/2/root/bootflash"
    //   files   that it can take; 0: not limited
    [[nodiscard]] bool put_on_disk(const std::string &folder, unsigned kib, unsigned files = 0);
    // Starts a chassis whose description there is already; slots: all that it has.
    void up_from(const std::string &description, const std::vector<unsigned> &slots);
    finished_program chassis(const std::vector<std::string> &words) const; // "chassis --dir ... words"
    finished_program biosctl(const std::vector<std::string> &words) const;
    std::vector<std::string> biosctl_words(const std::vector<std::string> &words) const;

    // Has a module programmed and waits for the end.
    programming program(std::uint32_t module, const programming_options &options = {});

    // What a card holds.
    std::string flash_file(unsigned slot, const std::string &name, const std::string &flash = "primary") const;
    std::string flash_of(unsigned slot, const std::string &flash = "primary") const;
    std::int32_t flash_version(unsigned slot, std::string &version) const; // as the daemon would read it
    bool is_marked(unsigned slot) const;                                   // as being programmed
    std::string card_file(unsigned slot, const std::string &path) const;   // where a file of the card lies
    bool card_has(unsigned slot, const std::string &path) const;
    std::string slot_file(unsigned slot, const std::string &name) const;
    std::string log_of(unsigned slot) const;
    unsigned lines_with(unsigned slot, const std::string &text) const; // of the log
    pid_t daemon_pid(unsigned slot) const;                             // 0: there is none now
    pid_t agent_pid(unsigned slot) const;                              // 0: there is none now
    pid_t child_pid(unsigned slot) const;                              // of the programming child; 0: there is none
    bool is_locked(unsigned slot) const;                               // module lock of a supervisor
    std::string isolation(unsigned slot) const;

    // From now on a programming of the card takes the required pauses: there is time to meet it at work.
    void keep_pauses(unsigned slot) const;

    // What goes wrong.
    void set_faults(unsigned slot, const std::string &rules) const; // empty: none any more
    void protect(unsigned slot, const std::string &sectors) const;

    // Place of a file that the test puts on a card's boot flash.
    std::string on_bootflash(unsigned slot, const std::string &name);

    // The end of every story: no lock is held, no child is left, the alternate flash was not touched, and the boot
    // flash has nothing but the daemon's traces and what the test put there. but: further names that may be there.
    void expect_tidy(unsigned slot, const std::vector<std::string> &but = {}) const;
    void expect_programmed(const programming &seen, unsigned slot, const test_image &wanted) const;
    // The next request for the module succeeds, from the image tree of the asking slot.
    void expect_next_succeeds(unsigned slot = 1, const test_image &wanted = new_image());

    const std::string &chassis_directory() const { return directory_; }
    const std::string &workspace() const { return workspace_; }

    void TearDown() override; // takes the chassis down

private:
    void write_description(const std::string &isolation);
    void start(const std::string &description);
    std::string describe(const card_plan &card);
    std::vector<std::string> with_user(std::vector<std::string> words) const;
    void start_guard();
    void mount_disks() const;

    std::string workspace_;
    std::string directory_;
    std::string daemon_program_;
    std::string chassis_program_ = CHASSIS_PROGRAM;
    std::string biosctl_program_ = BIOSCTL_PROGRAM;
    bool ordinary_user_ = false;
    bool made_ = false;
    std::optional<unsigned> wait_limit_s_;
    std::map<unsigned, card_plan> cards_;
    struct small_disk {
        std::string folder;
        unsigned kib;
        unsigned files;
    };
    std::vector<small_disk> disks_;
    std::map<unsigned, std::string> alternate_before_;
    std::set<std::string> own_files_; // names on boot flashes
    unique_fd guard_;                 // the guard acts when this end is closed without a word
    pid_t guard_pid_ = -1;
};
