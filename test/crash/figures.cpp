#include "figures.h"

#include <cstdio>
#include <exception>

#include <gtest/gtest.h>

namespace
{

constexpr unsigned MAX_FAILURES = 20;

int failed_checks()
{
    return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

} // namespace

void point_figures::try_point(const std::string &point, const std::function<void()> &attempt)
{
    ++points_;
    if (failures_ >= MAX_FAILURES) {
        ++failures_;
        return;
    }
    SCOPED_TRACE(point);
    const int before = failed_checks();
    try {
        attempt();
    } catch (const std::exception &failure) {
        ADD_FAILURE() << failure.what();
    }
    if (failed_checks() != before)
        ++failures_;
}

point_figures::~point_figures()
{
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin_;
    std::printf("%s: %u points, %u failures, %.1f s%s\n", name_.c_str(), points_, failures_, taken.count(),
                remark_.c_str());
    const char *path = std::getenv("CRASH_FIGURES");
    if (path == nullptr)
        return;
    std::FILE *file = std::fopen(path, "ae");
    if (file == nullptr) {
        ADD_FAILURE() << path << ": cannot be written";
        return;
    }
    (void)std::fprintf(file, "%u %u %s\n", points_, failures_, name_.c_str());
    (void)std::fclose(file);
}
