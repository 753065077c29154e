// Clients that ask at the same time, each a process of its own, and what they share with the test that started
// them.
#pragma once

#include <chrono>
#include <functional>
#include <new>
#include <sys/mman.h>
#include <sys/types.h>
#include <system_error>
#include <vector>

// A record in memory that processes forked later see and change, too; zero at first. Its members are atomic where
// several write them.
template<class record>
class shared_record
{
public:
    shared_record() : record_(static_cast<record *>(map())) { new (record_) record{}; }
    ~shared_record() { (void)::munmap(record_, sizeof(record)); }
    shared_record(const shared_record &) = delete;
    shared_record &operator=(const shared_record &) = delete;

    record *operator->() const { return record_; }
    record &operator*() const { return *record_; }

private:
    static void *map()
    {
        void *const place =
            ::mmap(nullptr, sizeof(record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (place == MAP_FAILED)
            throw std::system_error(errno, std::generic_category(), "mmap");
        return place;
    }
    record *record_;
};

class client_processes
{
public:
    // Starts count processes; each does its work, called with its number from 0 on, and ends. They end with the
    // test.
    client_processes(unsigned count, const std::function<void(unsigned)> &work);
    ~client_processes(); // kills those that still run
    client_processes(const client_processes &) = delete;
    client_processes &operator=(const client_processes &) = delete;

    // How many still run.
    unsigned running();

    // How many did not end by themselves when their work was done: killed, or an exception was thrown.
    unsigned failed() const { return failed_; }

private:
    std::vector<pid_t> pids_; // of those that run
    unsigned failed_ = 0;
};
