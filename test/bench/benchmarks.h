// The benchmarks, one for each file of this folder with that name.
#pragma once

#include "figure.h"

std::vector<figure> measure_round_trip();
std::vector<figure> measure_self_report();
std::vector<figure> measure_query_while_programming();
std::vector<figure> measure_start();
std::vector<figure> measure_memory();
std::vector<figure> measure_flash_writing();
std::vector<figure> measure_extraction();
std::vector<figure> measure_readers();
std::vector<figure> measure_show();
std::vector<figure> measure_chassis_size();
std::vector<figure> measure_file_delivery();
std::vector<figure> measure_signature_check();
