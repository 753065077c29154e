#include "process_holdings.h"

#include <algorithm>
#include <filesystem>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "test_images.h"

namespace
{

// The mark in smaps_rollup counts every page; the one in status is allowed to lag behind.
unsigned resident_kib(const std::string &process)
{
    std::istringstream text(file_content(process + "/smaps_rollup"));
    for (std::string word; text >> word;) {
        unsigned kib = 0;
        if (word == "Rss:" && text >> kib)
            return kib;
    }
    throw std::runtime_error("no resident size");
}

double processor_s(const std::string &process)
{
    const std::string text = file_content(process + "/stat");
    std::istringstream rest(text.substr(text.rfind(')') + 1));
    std::string skipped;
    for (unsigned field = 3; field < 14; ++field)
        rest >> skipped;
    unsigned long ticks = 0;
    for (unsigned field = 14; field < 18; ++field) { // own and children's, user and system
        unsigned long some = 0;
        rest >> some;
        ticks += some;
    }
    return static_cast<double>(ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

} // namespace

process_holdings holdings_of(pid_t process_id)
{
    const std::string process = "/proc/" + std::to_string(process_id);
    std::size_t descriptors = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(process + "/fd"))
        ++descriptors;
    const std::string maps = file_content(process + "/maps");
    return {descriptors, static_cast<std::size_t>(std::count(maps.begin(), maps.end(), '\n')),
            resident_kib(process), processor_s(process)};
}

std::ostream &operator<<(std::ostream &out, const process_holdings &held)
{
    return out << held.descriptors << " descriptors, " << held.mappings << " mappings, " << held.resident_kib
               << " KiB resident";
}
