// The two flashes of a card in a chassis directory of its own, and the daemon's program operation, which each time
// runs in a process of its own, as in the programming child. Its pauses are left out, and its progress messages go
// to the test and not into the transport.
#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>

// The ways to the flash: programmed sector by sector, or erased whole and then written.
enum class flash_way : std::uint8_t { plain, chipset };
const char *name_of(flash_way way);

// How a run of the operation ended.
struct programming_end {
    bool was_killed = false;
    std::uint32_t result = 0;  // of the operation, when it was not killed
    std::uint32_t percent = 0; // told last
    unsigned pauses = 0;       // between attempts
    std::uint64_t erases = 0;
};
std::ostream &operator<<(std::ostream &out, const programming_end &end);

class programmed_flash
{
public:
    explicit programmed_flash(flash_way way);
    ~programmed_flash();
    programmed_flash(const programmed_flash &) = delete;
    programmed_flash &operator=(const programmed_flash &) = delete;

    // Both flashes as they were, without marker, faults and violations.
    void reset() const;

    // Has the new image programmed. faults: lines of flash_faults.h; empty: none
    programming_end program(const std::string &faults = {}) const;

    bool is_old() const { return contents(0) == old_image_; }
    bool is_new() const { return contents(0) == new_image_; }
    bool is_marked() const;
    bool is_alternate_untouched() const { return contents(1) == alternate_image_; }
    bool is_free() const;        // nobody has it open for writing
    std::string version() const; // as the daemon reads it; empty: it is not told
    std::string violations() const;
    std::string faults_left() const; // rules that have not happened
    void remove_faults() const;
    void make_new() const; // the flash has the new image already

    const std::string old_version;
    const std::string new_version;

    // The operations of one undisturbed programming, by their names in the rules.
    std::map<std::string, unsigned> count_operations() const;

private:
    std::string contents(unsigned instance) const;
    void write_contents(unsigned instance, const std::string &bytes) const;
    std::string file(const char *name, unsigned instance = 0) const;
    void run_operation() const;

    flash_way way_;
    std::string directory_;
    std::string old_image_;
    std::string new_image_;
    std::string alternate_image_;
};
