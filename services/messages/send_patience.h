// How long a port waits for room in the queues of its receivers, as datagram_driver's send promises it: one who
// sends a request waits for himself; whoever serves many must not stand still for those who do not read.
#pragma once

#include <algorithm>

#include "monotonic_clock.h"
#include "mts_frame.h"

class send_patience
{
public:
    // How long a frame may wait now.
    std::int64_t wait_us(const mts_frame_header &header)
    {
        if (header.kind == mts_frame_kind::request)
            return REQUEST_WAIT_US;
        const std::int64_t now = monotonic_us();
        spent_us_ = std::max<std::int64_t>(spent_us_ - (now - as_of_us_) / REGAINED_PER_TIME, 0);
        as_of_us_ = now;
        const std::int64_t left_us = ALL_WAITS_US - spent_us_;
        return mts_is_answer(header) ? std::min(left_us, ANSWER_WAIT_US) : left_us;
    }
    // A frame has waited, and has not been sent.
    void waited_in_vain(const mts_frame_header &header, std::int64_t waited_us)
    {
        if (header.kind != mts_frame_kind::request)
            spent_us_ += waited_us;
    }

private:
    static constexpr std::int64_t REQUEST_WAIT_US = 2'000'000;
    static constexpr std::int64_t ANSWER_WAIT_US = 100'000;
    static constexpr std::int64_t ALL_WAITS_US = 900'000; // of a port for all receivers in sum, but for requests
    static constexpr std::int64_t REGAINED_PER_TIME = 10; // a tenth of the time that passes is given back

    std::int64_t spent_us_ = 0;
    std::int64_t as_of_us_ = 0; // of monotonic_us
};
