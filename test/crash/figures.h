// The figures of a test that tries many points: how many there were, at how many something was wrong, and how long
// it took. Printed at the end, and added as a line "POINTS FAILURES NAME" to the file that CRASH_FIGURES names.
#pragma once

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>

class point_figures
{
public:
    explicit point_figures(std::string name) : name_(std::move(name)) {}
    ~point_figures(); // prints
    point_figures(const point_figures &) = delete;
    point_figures &operator=(const point_figures &) = delete;

    // Tries one point; it has failed when a check in it has. After many failures the rest is left out, and counted
    // as failed.
    void try_point(const std::string &point, const std::function<void()> &attempt);

    unsigned points() const { return points_; }
    void remark(const std::string &text) { remark_ = ", " + text; } // printed behind the figures

private:
    std::string name_;
    std::string remark_;
    unsigned points_ = 0;
    unsigned failures_ = 0;
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

// Whether everything is to be tried that there is, which takes minutes (CRASH_TEST_ALL in the environment).
inline bool tries_all()
{
    return std::getenv("CRASH_TEST_ALL") != nullptr;
}
