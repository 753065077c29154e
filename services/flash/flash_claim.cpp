#include "flash_claim.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "bios_flash.h"
#include "bios_refusals.h"
#include "bios_results.h"
#include "c_boundary.h"
#include "card_demands.h"
#include "chassis_dir.h"
#include "flash_event.h"
#include "flash_geometry.h"
#include "flash_syslog.h"
#include "image_verification.h"
#include "monotonic_clock.h"
#include "security_floor.h"
#include "utc_time.h"

const char *flash_temporary_image = "/bootflash/.tmpbios.bin";

namespace
{

constexpr const char *OWN_NAME = ".bios_order."; // and the instance

// Never freed by the runtime: the exit handler does it, as long as all else is there.
std::array<std::unique_ptr<flash_claim>, FLASH_INSTANCE_COUNT> &claims()
{
    static auto *const all = new std::array<std::unique_ptr<flash_claim>, FLASH_INSTANCE_COUNT>;
    return *all;
}

void end_claims()
{
    for (auto &claim : claims())
        claim.reset();
}

// The image under a name of this process's own, beside its first one, for the agent that checks it: whoever gives
// the first name to another file meanwhile does not have that one checked.
class own_name
{
public:
    own_name(const std::string &path, const flash_image &image, std::uint32_t instance)
        : name_(path.substr(0, path.rfind('/') + 1) + OWN_NAME + std::to_string(instance))
    {
        const std::string opened = "/proc/self/fd/" + std::to_string(image.descriptor());
        (void)::unlink(name_.c_str()); // of a process that was killed
        if (::linkat(AT_FDCWD, opened.c_str(), AT_FDCWD, name_.c_str(), AT_SYMLINK_FOLLOW) != 0)
            name_.clear(); // the file system has no second names
    }
    ~own_name()
    {
        if (!name_.empty())
            (void)::unlink(name_.c_str());
    }
    own_name(const own_name &) = delete;
    own_name &operator=(const own_name &) = delete;

    const std::string &or_else(const std::string &path) const { return name_.empty() ? path : name_; }

private:
    std::string name_;
};

// A client that orders nothing: what it programs is recorded all the same.
flash_order order_without_client(const image_facts &image, const sha256_digest &digest)
{
    flash_order order;
    order.id = static_cast<std::uint64_t>(microseconds_of(CLOCK_REALTIME));
    order.sha256 = digest;
    order.size_bytes = image.size_bytes;
    order.version = image.version;
    order.ordered_at = utc_now();
    return order;
}

} // namespace

flash_claim *flash_claim::of(std::uint32_t instance, const char *path, std::uint32_t attempt)
{
    if (instance >= FLASH_INSTANCE_COUNT)
        return nullptr;
    flash_claim *claim = claims()[instance].get();
    if (claim == nullptr || claim->process_ != ::getpid())
        return nullptr;
    const bool goes_on = claim->path_ == path && !(claim->attempted_ && attempt <= 1);
    return goes_on ? claim : nullptr;
}

flash_claim *flash_claim::make(std::uint32_t instance, const char *path, flash_image &&image, flash_device &flash,
                               std::int32_t &failure_out)
{
    static pid_t exit_handler_of = 0;
    claims()[instance].reset(); // a programming that has failed
    std::unique_ptr<flash_claim> claim(new flash_claim(instance, path, std::move(image)));
    if (const std::uint32_t refusal = claim->take_order(flash); refusal != 0) {
        failure_out = bios_signed(refusal);
        return nullptr;
    }
    if (exit_handler_of != ::getpid() && std::atexit(end_claims) == 0)
        exit_handler_of = ::getpid();
    claims()[instance] = std::move(claim);
    return claims()[instance].get();
}

flash_claim::flash_claim(std::uint32_t instance, const char *path, flash_image &&image)
    : instance_(instance),
      path_(path),
      image_(std::move(image)),
      process_(::getpid())
{
}

// A programming that has not succeeded has failed when its claim goes. What a forked child has copied is not its
// own.
flash_claim::~flash_claim()
{
    if (process_ != ::getpid())
        return;
    if (writer_ && order_.state == flash_order_state::writing)
        best_effort([this] { record_end(flash_order_state::failed); });
}

// What the image's file says of it. 0, or why that cannot be found out.
std::uint32_t flash_claim::examine(image_facts &facts_out)
{
    image_reading reading;
    if (!image_.examine(reading))
        return errno == EFBIG ? BIOS_REFUSED_TOO_LARGE : std::uint32_t{BIOS_FLASH_ERR_IMAGE_READ};
    sha256_ = reading.sha256;
    facts_out = {.size_bytes = reading.size_bytes,
                 .version = image_.version(),
                 .manifest_state = reading.state,
                 .manifest = reading.manifest};
    if (reading.state == image_manifest_state::intact && reading.manifest.key_id) {
        const own_name name(path_, image_, instance_);
        const image_verification verified = verify_image(name.or_else(path_));
        facts_out.signature = verified.status;
        if (verified.status == AGENT_OK && verified.sha256 != sha256_)
            return BIOS_REFUSED_CHANGED;
        signed_version_ = verified.status == AGENT_OK ? verified.security_version : 0;
    }
    return image_.has_changed() || reading.size_bytes != image_.size_bytes() ? BIOS_REFUSED_CHANGED : 0U;
}

std::uint32_t flash_claim::take_order(flash_device &flash)
{
    const std::uint32_t size_bytes = flash.geometry().size_bytes;
    if (image_.size_bytes() > size_bytes)
        return BIOS_REFUSED_TOO_LARGE; // it is not worth a digest
    image_facts image;
    if (const std::uint32_t failure = examine(image); failure != 0)
        return failure;

    const unsigned slot = chassis_own_slot();
    const flash_orders_lock lock(slot);
    const auto order = flash_order_read(slot, instance_);
    if (order && flash_order_holds_off(*order))
        return BIOS_REFUSED_CANCELLED;
    if (order && order->state == flash_order_state::writing)
        return BIOS_FLASH_ERR_IN_USE;
    const bool is_ordered = order && order->state == flash_order_state::ordered;
    if (is_ordered && (order->sha256 != sha256_ || order->size_bytes != image.size_bytes))
        return BIOS_REFUSED_OTHER_IMAGE; // another client's image; the order stays
    flash_facts facts;
    facts.size_bytes = size_bytes;
    if (!read_card_demands(facts))
        return BIOS_REFUSED_NOT_CHECKED;

    order_ = is_ordered ? *order : order_without_client(image, sha256_);
    if (is_ordered || facts.policy.refuses_older) // else no read of the flash beyond those of the programming
        facts.version = order_.old_version = version_in_flash(flash);
    order_.result = judge_image(image, facts, {.is_ordered = is_ordered, .forced = order_.forced});
    if (order_.result != 0) {
        if (is_ordered)
            record_end(flash_order_state::failed);
        return order_.result;
    }
    writer_ = flash_order_take_writer(slot, instance_);
    if (!writer_ && errno == EBUSY)
        return BIOS_FLASH_ERR_IN_USE;
    order_.writer = static_cast<std::uint32_t>(process_);
    // Of a client that has ordered nothing the record is a note beside the work.
    if ((writer_ && record_begin()) || !is_ordered)
        return 0;
    order_.result = BIOS_REFUSED_NOT_CHECKED;
    return order_.result;
}

bool flash_claim::has_its_image()
{
    image_reading now;
    return !image_.has_changed() || (image_.examine(now) && now.sha256 == sha256_);
}

// With room for the end: what could not be recorded then is not begun.
bool flash_claim::record_begin()
{
    const unsigned slot = chassis_own_slot();
    room_for_end_ = flash_order_reserve(slot, instance_);
    order_.state = flash_order_state::writing;
    order_.changed_at = utc_now();
    return flash_order_write(slot, instance_, order_) && room_for_end_;
}

void flash_claim::record_end(flash_order_state state)
{
    const unsigned slot = chassis_own_slot();
    unique_fd room = std::move(room_for_end_);
    order_.state = state;
    order_.changed_at = utc_now();
    const bool is_recorded = (room && flash_order_write_reserved(slot, instance_, std::move(room), order_)) ||
                             flash_order_write(slot, instance_, order_);
    const int error = errno;
    if (is_recorded) {
        (void)flash_order_reserve(slot,
                                  instance_); // for the next one, which may find the disk full from the beginning
        return;
    }
    tell_syslog("BIOS_ORDER_NOT_RECORDED", flash_instance_name(instance_) + std::string(" flash: ") +
                                               flash_order_state_name(state) +
                                               ", which was not recorded: " + std::strerror(error));
}

std::int32_t flash_claim::ended(std::uint32_t attempt, std::int32_t result)
{
    attempted_ = attempted_ || attempt > 0;
    order_.result = static_cast<std::uint32_t>(result);
    if (attempt == 0 || result != 0)
        return result;
    // The flash is programmed whether the floor rises or not.
    if (std::string problem; signed_version_ != 0 && !security_floor_raise(signed_version_, problem))
        tell_syslog("BIOS_SECURITY_FLOOR", "not raised to " + std::to_string(signed_version_) + ": " + problem);
    if (writer_) {
        const flash_orders_lock lock(chassis_own_slot());
        record_end(flash_order_state::verified);
    }
    claims()[instance_].reset();
    return result;
}
