// Progress messages of one programming request (opcode 4795).
//
// Percentages grow over the whole request, also across attempts: the highest one told is kept in the progress area
// that the caller lends (word 0: the percentage plus one, 0 for none), and a later attempt is silent until it gets
// further. 100 is told by report_done() only, when the flash is known to be whole. What each attempt does is left
// in the flash's file `progress` as well, for watchers.
#pragma once

#include <cstdint>

#include "bios_flash.h"
#include "bios_messages.h"

// The stretch of the percentages that a phase of the work covers.
struct flash_progress_span {
    bios_programming_phase phase;
    std::uint32_t first_percent;
    std::uint32_t last_percent;
};

class flash_progress
{
public:
    //   instance           flash of this card that is programmed; it is open for writing when report is called
    //   handle, node, sap  own endpoint, and whom to tell
    //   area               lent by the caller for the whole request; null: the percentages are those of this
    //                      attempt alone
    flash_progress(std::uint32_t instance, std::int32_t handle, std::uint32_t node, std::uint32_t sap,
                   std::uint32_t attempt, bios_flash_progress_area_t *area)
        : instance_(instance),
          handle_(handle),
          node_(node),
          sap_(sap),
          attempt_(attempt),
          area_(area != nullptr ? area : &own_area_)
    {
    }
    flash_progress(const flash_progress &) = delete;
    flash_progress &operator=(const flash_progress &) = delete;

    // Tells that done of total steps of a phase are done, if that is a higher percentage than told so far. A
    // message that cannot be sent is left out: the work matters more.
    void report(const flash_progress_span &span, std::uint32_t done, std::uint32_t total);

    // Tells 100. Blocks for up to about five seconds while the receiver's queue is full.
    void report_done();

private:
    bool is_news(std::uint32_t percent) const { return percent + 1 > area_->word[0]; }
    bool send(bios_programming_phase phase, std::uint32_t percent);

    std::uint32_t instance_;
    std::int32_t handle_;
    std::uint32_t node_;
    std::uint32_t sap_;
    std::uint32_t attempt_;
    bios_flash_progress_area_t own_area_ = {};
    bios_flash_progress_area_t *area_;
};
