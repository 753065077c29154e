#include "flash_order.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "chassis_dir.h"
#include "flash_geometry.h"
#include "hex_text.h"
#include "line_file.h"
#include "monotonic_clock.h"
#include "printable_text.h"
#include "utc_time.h"
#include "write_all.h"

namespace
{

constexpr std::size_t FILE_BYTES_MAX = 4096;
constexpr const char *STATE_NAMES[] = {"ordered", "writing", "verified", "failed", "cancelled"};

// How a field of the record stands in its line.
struct field_row {
    const char *key;
    std::string (*text)(const flash_order &order);
    bool (*take)(flash_order &order, std::string_view text);
};

template<class Number>
bool take_number(Number &number, std::string_view text)
{
    const std::errc error = std::from_chars(text.data(), text.data() + text.size(), number).ec;
    return error == std::errc() && std::to_string(number) == text; // no leading zeros either
}

template<auto MEMBER>
constexpr field_row number_row(const char *key)
{
    return {key, [](const flash_order &order) { return std::to_string(order.*MEMBER); },
            [](flash_order &order, std::string_view text) { return take_number(order.*MEMBER, text); }};
}

std::string printable(const std::string &text)
{
    return printable_text(std::string_view(text).substr(0, FLASH_ORDER_TEXT_BYTES));
}

template<auto MEMBER>
constexpr field_row text_row(const char *key)
{
    return {key, [](const flash_order &order) { return printable(order.*MEMBER); },
            [](flash_order &order, std::string_view text) {
                order.*MEMBER = text;
                return text.size() <= FLASH_ORDER_TEXT_BYTES && printable(order.*MEMBER) == text;
            }};
}

bool take_state(flash_order &order, std::string_view text)
{
    const auto *name = std::find(std::begin(STATE_NAMES), std::end(STATE_NAMES), text);
    order.state = static_cast<flash_order_state>(name - std::begin(STATE_NAMES));
    return name != std::end(STATE_NAMES);
}

constexpr field_row FIELDS[] = {
    number_row<&flash_order::id>("id"),
    {"state", [](const flash_order &order) { return std::string(flash_order_state_name(order.state)); },
     take_state},
    {"sha256", [](const flash_order &order) { return sha256_text(order.sha256); },
     [](flash_order &order, std::string_view text) { return parse_hex_text(text, order.sha256); }},
    number_row<&flash_order::size_bytes>("size_bytes"),
    text_row<&flash_order::version>("version"),
    number_row<&flash_order::family>("family"),
    number_row<&flash_order::forced>("forced"),
    text_row<&flash_order::image>("image"),
    text_row<&flash_order::user>("user"),
    text_row<&flash_order::host>("host"),
    text_row<&flash_order::ordered_at>("ordered_at"),
    text_row<&flash_order::changed_at>("changed_at"),
    text_row<&flash_order::old_version>("old_version"),
    number_row<&flash_order::result>("result"),
    number_row<&flash_order::writer>("writer"),
    number_row<&flash_order::renewed_s>("renewed_s"),
};

std::string order_path(unsigned slot, unsigned instance)
{
    return chassis_slot_path(slot, std::string(FLASH_ORDERS_FOLDER) + (instance == 0 ? "/primary" : "/alternate"));
}

std::string writer_path(unsigned slot, unsigned instance)
{
    return order_path(slot, instance) + ".writer";
}

std::string reserved_path(unsigned slot, unsigned instance)
{
    return order_path(slot, instance) + ".reserved";
}

bool has_writer(unsigned slot, unsigned instance)
{
    const unique_fd file(::openat(chassis_dir_fd(), writer_path(slot, instance).c_str(),
                                  O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return file && ::flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

bool is_renewed(const flash_order &order, unsigned silence_max_s)
{
    const std::int64_t silence_s = flash_order_clock_s() - order.renewed_s;
    return silence_s >= 0 && silence_s <= silence_max_s; // below 0: it is from before the card's start
}

// When an order ended that nobody has renewed or claimed. Of one from before the card's start only its last change
// is known.
std::string time_given_up(const flash_order &order)
{
    const std::int64_t since_s = flash_order_clock_s() - order.renewed_s - FLASH_ORDER_SILENCE_S;
    return since_s >= 0 ? utc_seconds(std::time(nullptr) - since_s) : order.changed_at;
}

} // namespace

const char *flash_order_state_name(flash_order_state state)
{
    return STATE_NAMES[static_cast<std::size_t>(state)];
}

std::string flash_order_format(const flash_order &order)
{
    std::string text;
    for (const field_row &field : FIELDS)
        text.append(field.key).append(" ").append(field.text(order)).append("\n");
    return text;
}

std::optional<flash_order> flash_order_parse(std::string_view text)
{
    flash_order order;
    for (const field_row &field : FIELDS) {
        const std::string begin = std::string(field.key) + " ";
        const std::size_t end = text.find('\n');
        if (end == std::string_view::npos || !text.starts_with(begin) ||
            !field.take(order, text.substr(begin.size(), end - begin.size())))
            return std::nullopt;
        text.remove_prefix(end + 1);
    }
    return text.empty() ? std::optional(order) : std::nullopt;
}

std::optional<flash_order> flash_order_read(unsigned slot, unsigned instance)
{
    std::string text;
    if (instance >= FLASH_INSTANCE_COUNT || !chassis_read_file(order_path(slot, instance), text, FILE_BYTES_MAX))
        return std::nullopt;
    auto order = flash_order_parse(text);
    if (!order)
        return std::nullopt;
    const bool is_given_up =
        order->state == flash_order_state::ordered && !is_renewed(*order, FLASH_ORDER_SILENCE_S);
    if (is_given_up)
        order->changed_at = time_given_up(*order);
    if (is_given_up || (order->state == flash_order_state::writing && !has_writer(slot, instance)))
        order->state = flash_order_state::failed;
    return order;
}

bool flash_order_holds_off(const flash_order &order)
{
    return order.state == flash_order_state::cancelled && is_renewed(order, FLASH_ORDER_CANCELLED_S);
}

bool flash_orders_are_live(unsigned slot)
{
    for (unsigned instance = 0; instance < FLASH_INSTANCE_COUNT; ++instance) {
        if (const auto order = flash_order_read(slot, instance); order && order->is_live())
            return true;
    }
    return false;
}

std::int64_t flash_order_clock_s()
{
    return microseconds_of(CLOCK_BOOTTIME) / MICROSECONDS;
}

flash_orders_lock::flash_orders_lock(unsigned slot)
{
    if (!make_slot_folder(slot, FLASH_ORDERS_FOLDER))
        return;
    folder_.reset(::openat(chassis_dir_fd(), chassis_slot_path(slot, FLASH_ORDERS_FOLDER).c_str(),
                           O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    while (folder_ && ::flock(folder_.get(), LOCK_EX) != 0) {
        if (errno != EINTR)
            folder_.reset();
    }
}

bool flash_order_write(unsigned slot, unsigned instance, const flash_order &order)
{
    return chassis_write_file(order_path(slot, instance), flash_order_format(order));
}

unique_fd flash_order_reserve(unsigned slot, unsigned instance)
{
    const std::string path = reserved_path(slot, instance);
    unique_fd file(::openat(chassis_dir_fd(), path.c_str(),
                            O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644));
    struct stat status {
    };
    if (file && ::fstat(file.get(), &status) == 0 && status.st_size == static_cast<off_t>(FILE_BYTES_MAX))
        return file; // of a writer that did not use it
    const std::array<char, FILE_BYTES_MAX> room{};
    if (file && (::ftruncate(file.get(), 0) != 0 || !write_all(file.get(), room.data(), room.size()))) {
        const int failure = errno;
        (void)::unlinkat(chassis_dir_fd(), path.c_str(), 0);
        file.reset();
        errno = failure;
    }
    return file;
}

bool flash_order_write_reserved(unsigned slot, unsigned instance, unique_fd room, const flash_order &order)
{
    const std::string text = flash_order_format(order);
    const auto length = static_cast<ssize_t>(text.size());
    return ::pwrite(room.get(), text.data(), text.size(), 0) == length && ::ftruncate(room.get(), length) == 0 &&
           ::renameat(chassis_dir_fd(), reserved_path(slot, instance).c_str(), chassis_dir_fd(),
                      order_path(slot, instance).c_str()) == 0;
}

unique_fd flash_order_take_writer(unsigned slot, unsigned instance)
{
    unique_fd file(::openat(chassis_dir_fd(), writer_path(slot, instance).c_str(),
                            O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600));
    if (file && ::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        file.reset();
        if (errno == EWOULDBLOCK)
            errno = EBUSY;
    }
    return file;
}
