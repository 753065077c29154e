// What a process that programs a flash holds, from its first call of a programming to its last: the flash's order,
// and the image, which stays open: all attempts are written from its bytes, whatever becomes of its name.
//
// A claim is made before anything is erased, and only for an image that was ordered, or, without an order, for one
// that the card's policy lets any client write. It ends with success, with the next programming of the process, or
// with the process.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>

#include "flash_device.h"
#include "flash_image.h"
#include "flash_order.h"
#include "image_judgement.h"
#include "unique_fd.h"

// The file that a card programs which does not unpack, and whose image is meant when a flash is erased before an
// image was named. Tests that have no root of their own name another one.
extern const char *flash_temporary_image;

class flash_claim
{
public:
    // The claim of this process that a call belongs to; null when it begins another programming.
    //   path     image that the call names
    //   attempt  as of bios_flash.h; 0: an erase
    static flash_claim *of(std::uint32_t instance, const char *path, std::uint32_t attempt);

    // Claims the flash for an image. Null with failure_out: a code of bios_flash.h or bios_refusals.h.
    //   image  what was opened at path
    //   flash  open for writing
    static flash_claim *make(std::uint32_t instance, const char *path, flash_image &&image, flash_device &flash,
                             std::int32_t &failure_out);

    const flash_image &image() const { return image_; }

    // Whether the image still has the bytes that were claimed. Reads them only when they may have changed.
    bool has_its_image();

    // Notes how a call has ended, and gives the result back. The flash is verified when an attempt has returned 0:
    // then the claim has ended, and the object is gone.
    std::int32_t ended(std::uint32_t attempt, std::int32_t result);

    ~flash_claim();
    flash_claim(const flash_claim &) = delete;
    flash_claim &operator=(const flash_claim &) = delete;

private:
    flash_claim(std::uint32_t instance, const char *path, flash_image &&image);
    std::uint32_t examine(image_facts &facts_out);
    std::uint32_t take_order(flash_device &flash);
    bool record_begin();
    void record_end(flash_order_state state);

    std::uint32_t instance_;
    std::string path_;
    flash_image image_;
    unique_fd writer_;
    unique_fd room_for_end_; // of the order's record
    flash_order order_;
    sha256_digest sha256_ = {};        // of the image
    std::uint32_t signed_version_ = 0; // security version of an image whose signature is good
    pid_t process_;
    bool attempted_ = false; // more than erased
};
