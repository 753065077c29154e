#include "card_boot.h"

#include <cstdint>
#include <ctime>

#include "chassis_dir.h"
#include "utc_time.h"

namespace
{

constexpr std::size_t LINE_BYTES_MAX = 128;
constexpr const char *KERNEL_BOOT_ID = "/proc/sys/kernel/random/boot_id";

std::string first_line_of(const std::string &path)
{
    std::string text;
    if (!chassis_read_file(path, text, LINE_BYTES_MAX))
        return {};
    return text.substr(0, text.find('\n'));
}

std::uint64_t clock_ns(clockid_t clock)
{
    timespec now{};
    (void)::clock_gettime(clock, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

} // namespace

card_boot card_boot_now()
{
    if (const std::string booted = first_line_of(chassis_slot_path(chassis_own_slot(), CHASSIS_BOOTED));
        !booted.empty())
        return {.id = booted, .time = booted};
    return {.id = first_line_of(KERNEL_BOOT_ID),
            .time = utc_microseconds(clock_ns(CLOCK_REALTIME) - clock_ns(CLOCK_BOOTTIME))};
}
