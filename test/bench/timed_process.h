// Processes, timed from their start to their end.
#pragma once

#include <string>
#include <vector>

// Runs a program whose output is thrown away; milliseconds until it ended.
// Throws std::runtime_error when it does not end with exit status 0.
double run_timed_ms(const std::vector<std::string> &command);

// Of a thing that is called.
template<class work>
double timed_ms(work &&call);

// A folder for a benchmark's files, on a real file system; it goes with the object.
class bench_folder
{
public:
    bench_folder();
    ~bench_folder();
    bench_folder(const bench_folder &) = delete;
    bench_folder &operator=(const bench_folder &) = delete;

    std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

#include <chrono>

template<class work>
double timed_ms(work &&call)
{
    const auto start = std::chrono::steady_clock::now();
    call();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}
