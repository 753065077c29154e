// SPROM of this card: device 3, whose 512 bytes are those of the file slots/SLOT/sprom, padded with zeros. The
// hw.change.bit word in it is laid over from the inventory, so that a test changes it with one write.
#include "sprom.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string>

#include "chassis_dir.h"
#include "inventory_value.h"

namespace
{

constexpr uint32_t SPROM_DEVICE = 3;
constexpr uint32_t SPROM_BYTES = 512;
constexpr std::size_t HW_CHANGE_BIT_OFFSET = 174; // little-endian 32-bit word, unaligned
constexpr const char *HW_CHANGE_BIT_FILE = "hw_change_bit";

using sprom_image = std::array<unsigned char, SPROM_BYTES>;

static_assert(sizeof(void *) != 4 || sizeof(sse_sprom_read_request_t) == 20, "layout of the 32-bit target");

// Stretch that sprom_init_dev made readable; reads beyond it are refused.
struct readable_stretch {
    bool ready = false;
    uint32_t offset = 0;
    uint32_t length = 0;
};

readable_stretch stretch;

int32_t failure(int error)
{
    errno = error;
    return -error;
}

bool on_device(uint32_t offset, uint32_t length)
{
    return offset <= SPROM_BYTES && length <= SPROM_BYTES - offset;
}

bool in_stretch(uint32_t offset, uint32_t length)
{
    return stretch.ready && offset >= stretch.offset && length <= stretch.length &&
           offset - stretch.offset <= stretch.length - length;
}

sprom_image device_content(unsigned slot)
{
    sprom_image image{};
    std::string file;
    if (chassis_read_file(chassis_slot_path(slot, "sprom"), file, SPROM_BYTES))
        std::memcpy(image.data(), file.data(), file.size());
    const uint32_t word = inventory_value(slot, HW_CHANGE_BIT_FILE);
    for (unsigned byte = 0; byte < sizeof word; ++byte)
        image[HW_CHANGE_BIT_OFFSET + byte] = static_cast<unsigned char>(word >> 8 * byte);
    return image;
}

int32_t read_sprom(const sse_sprom_read_request_t &request)
{
    if (request.device != SPROM_DEVICE)
        return failure(ENODEV);
    if (!in_stretch(request.offset, request.length) || request.destination == nullptr)
        return failure(EINVAL);
    const unsigned slot = chassis_own_slot();
    if (!inventory_has(slot, HW_CHANGE_BIT_FILE)) // a card without the value has no device that answers
        return failure(EIO);
    const sprom_image image = device_content(slot);
    std::memcpy(request.destination, image.data() + request.offset, request.length);
    return 0;
}

} // namespace

int32_t sprom_init_dev(uint32_t device, uint32_t offset, uint32_t length, uint32_t)
{
    if (device != SPROM_DEVICE)
        return failure(ENODEV);
    if (!on_device(offset, length))
        return failure(EINVAL);
    stretch = {true, offset, length};
    return 0;
}

int32_t sprom_cleanup_dev(uint32_t device, uint32_t, uint32_t, uint32_t)
{
    if (device != SPROM_DEVICE)
        return failure(ENODEV);
    stretch = {}; // also when it was not initialised: users reset the device before they use it
    return 0;
}

int32_t sse_call(uint32_t call, void *request)
try {
    if (call != SSE_CALL_SPROM_READ || request == nullptr)
        return failure(EINVAL);
    sse_sprom_read_request_t read{};
    std::memcpy(&read, request, sizeof read);
    return read_sprom(read);
} catch (const std::exception &) {
    return failure(ENOMEM);
}
