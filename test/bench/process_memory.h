// What a process or a chassis holds of this machine's memory, as the kernel tells it.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

// A value of a file of /proc/PROCESS, as "VmRSS" of "status"; KiB, 0 when the process has ended.
unsigned memory_kib(pid_t process, const char *file, const std::string &value);

unsigned resident_kib(pid_t process); // shared pages included

// What would be freed with the process: pages of its own, and those that only it has mapped.
unsigned private_kib(pid_t process);

// Its share: each page divided by the number of those who have it.
unsigned proportional_kib(pid_t process);

// All processes of a chassis directory: of the launcher, and what runs on the cards.
std::vector<pid_t> processes_of_chassis(const std::string &directory, unsigned last_slot);

// Processor time of a process so far, in clock ticks.
unsigned long processor_ticks(pid_t process);
