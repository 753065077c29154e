// How long calls take, one by one.
#pragma once

#include <chrono>
#include <vector>

#include "chassis_fixture.h"
#include "figure.h"

template<class work>
double timed_us(work &&call)
{
    const auto start = std::chrono::steady_clock::now();
    call();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

// The median of the calls that fit into a time, one at least.
template<class work>
double median_us(std::chrono::milliseconds time, work &&call)
{
    samples taken;
    const auto end = std::chrono::steady_clock::now() + time;
    do
        taken.values.push_back(timed_us(call));
    while (std::chrono::steady_clock::now() < end);
    return taken.median();
}

// Asks a card's daemon for the versions of its own module.
request_reply ask_self_report(requester &client, unsigned slot);
