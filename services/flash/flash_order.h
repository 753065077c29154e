// The order of a flash: what is to be written into it, or was written last, and who wanted it. One record a flash,
// the file orders/primary or orders/alternate of the card's slot: lines "key value". It stays when the programming
// has ended, and is replaced by the next one.
//
// Whoever wants a programming orders it from the card's agent, and renews the order until a writer has claimed it.
// A process that is about to change the flash claims the order, and keeps it until the process ends. What is read
// here takes into account who has ended meanwhile: nobody has to tidy up.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sha256.h"
#include "unique_fd.h"

constexpr const char *FLASH_ORDERS_FOLDER = "orders"; // of a slot
constexpr const char *FLASH_ORDERS_FAMILY =
    "orders/family";                              // the card's, as its agent knows it from the daemon's table
constexpr unsigned FLASH_ORDER_RENEWAL_S = 5;     // how often whoever has ordered says that he is still there
constexpr unsigned FLASH_ORDER_SILENCE_S = 15;    // without that an order that nobody has claimed ends
constexpr unsigned FLASH_ORDER_CANCELLED_S = 120; // without that a cancelled one does not hold off any more

enum class flash_order_state : std::uint8_t {
    ordered,   // nobody has begun
    writing,   // a process has claimed it, and lives
    verified,  // the flash was read back and equals the image
    failed,    // result says why; 0: the writer ended without a result, or nobody has begun in time
    cancelled, // before anybody had begun
};
const char *flash_order_state_name(flash_order_state state);

struct flash_order {
    std::uint64_t id = 0; // unlike that of any other order of the card
    flash_order_state state = flash_order_state::ordered;
    sha256_digest sha256 = {}; // of the image
    std::uint64_t size_bytes = 0;
    std::uint32_t family = 0;   // of the daemon's table of BIOS flashes; 0: not known
    std::uint32_t forced = 0;   // bits of bios_force
    std::uint32_t result = 0;   // of one that has ended
    std::uint32_t writer = 0;   // process id, as the card sees it
    std::int64_t renewed_s = 0; // since the card's start
    std::string version;        // of the image; empty: none
    std::string old_version;    // of the flash when it was claimed; empty: none
    std::string image;          // where the image came from, for people
    std::string user;           // who has ordered; empty: a client that orders nothing
    std::string host;
    std::string ordered_at; // UTC, "2026-01-31T23:59:59Z"
    std::string changed_at; // when the state last changed

    bool is_live() const { return state == flash_order_state::ordered || state == flash_order_state::writing; }
    bool operator==(const flash_order &) const = default;
};

// The text of the file, and back; none for anything that the first does not give. Texts become printable and are
// cut at FLASH_ORDER_TEXT_BYTES.
constexpr std::size_t FLASH_ORDER_TEXT_BYTES = 256;
std::string flash_order_format(const flash_order &order);
std::optional<flash_order> flash_order_parse(std::string_view text);

// The record of a flash; none when there is none that can be read. Takes no lock.
std::optional<flash_order> flash_order_read(unsigned slot, unsigned instance);

// Whether a cancelled order still holds off the programming that it was made for: whoever has ordered renews it
// until he has heard that this programming has ended. When he has gone, nobody says so: then for longer than a
// request takes to get to the flash.
bool flash_order_holds_off(const flash_order &order);

// Whether one of the card's flashes has an order that has not ended.
bool flash_orders_are_live(unsigned slot);

// Seconds since the card's start, as renewed_s counts them.
std::int64_t flash_order_clock_s();

// Held while an order is looked at and changed. Waits for the holder of the moment, who never waits for anything.
class flash_orders_lock
{
public:
    explicit flash_orders_lock(unsigned slot);
    bool is_held() const { return static_cast<bool>(folder_); }

private:
    unique_fd folder_;
};

// Replaces the record. REQUIRES: flash_orders_lock. false with errno.
[[nodiscard]] bool flash_order_write(unsigned slot, unsigned instance, const flash_order &order);

// Room for one more record, taken while there is some: how a writing has ended must not find the disk full. It
// stays until it is used. REQUIRES: this process is the writer. Empty with errno.
unique_fd flash_order_reserve(unsigned slot, unsigned instance);

// Replaces the record as flash_order_write does, in the room that was reserved for it.
[[nodiscard]] bool flash_order_write_reserved(unsigned slot, unsigned instance, unique_fd room,
                                              const flash_order &order);

// What a writer keeps until it ends. REQUIRES: flash_orders_lock. Empty with errno: EBUSY when another process has
// it.
unique_fd flash_order_take_writer(unsigned slot, unsigned instance);
