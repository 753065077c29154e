// Measures two things alternately, so that what changes on the machine meanwhile changes for both.
#pragma once

#include <vector>

#include "figure.h"

constexpr unsigned LEAST_RUNS = 7; // that a median is made of

// Calls both runs times each, after one call of each that is not counted; each call returns one value.
template<class first, class second>
void measure_in_turn(samples &ours, first &&measure_ours, samples &reference, second &&measure_reference,
                     unsigned runs)
{
    (void)measure_ours();
    (void)measure_reference();
    for (unsigned run = 0; run < runs; ++run) {
        ours.values.push_back(measure_ours());
        reference.values.push_back(measure_reference());
    }
}
