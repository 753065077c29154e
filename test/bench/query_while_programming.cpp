// Reports of a card's own versions while its flash is written, against the same reports before.
#include <stdexcept>

#include "bench_chassis.h"
#include "benchmarks.h"
#include "bios_results.h"
#include "latency.h"
#include "version_messages.h"

namespace
{

constexpr unsigned SLOT = 1;
constexpr unsigned CARD_ID = 90;
constexpr unsigned FLASH_KIB = 8192;
constexpr double GOAL = 1.5;
constexpr double PERCENTILE = 99;
constexpr unsigned PROGRAMMINGS = 3;
constexpr unsigned IDLE_REPORTS = 1500; // before each programming

// At the speed of a file the flash would be written before ten reports were asked for. A part of large sectors and
// pages, with the times of the real one, gives some seconds for them.
constexpr unsigned SECTOR_KIB = 256;
constexpr const char *PAGE_BYTES = "512\n";
constexpr const char *AS_A_REAL_PART = "1\n";
constexpr const char *AS_A_FILE = "0\n";

struct measured_reports {
    std::vector<double> idle_us;
    std::vector<double> writing_us;
    unsigned refused = 0; // reports that were not what the card has to tell
};

class reports_of_a_card
{
public:
    reports_of_a_card()
    {
        chassis_.insert({.slot = SLOT,
                         .card_id = CARD_ID,
                         .in_flash = &image("1.2", FLASH_KIB),
                         .in_tree = &image("2.5", FLASH_KIB),
                         .flash_kib = FLASH_KIB,
                         .sector_kib = SECTOR_KIB});
        chassis_.up();
        write_file(chassis_.flash_file(SLOT, "page_bytes"), PAGE_BYTES);
        client_.emplace();
        programmer_.emplace();
        running_ = image("1.2", FLASH_KIB).version;
        in_flash_ = running_;
        next_ = "2.5";
    }

    void measure_idle(measured_reports &seen)
    {
        for (unsigned report = 0; report < IDLE_REPORTS; ++report)
            seen.idle_us.push_back(report_us({in_flash_, running_}, seen));
    }

    // Only what was asked and answered between the first erase and the end of the verification counts.
    void measure_writing(measured_reports &seen)
    {
        make_image_tree(chassis_.card_file(SLOT, ""), CARD_ID, image(next_, FLASH_KIB));
        write_file(chassis_.flash_file(SLOT, "timing"), AS_A_REAL_PART);
        programming writing = programmer_->start(SLOT);
        if (writing.error != 0 || writing.answer != 0)
            throw std::runtime_error("a programming was not accepted");
        if (!wait_until([&] { return chassis_.is_marked(SLOT); }))
            throw std::runtime_error("the flash was not written");
        while (chassis_.is_marked(SLOT)) {
            const double took_us = report_us({running_, running_}, seen);
            if (chassis_.is_marked(SLOT))
                seen.writing_us.push_back(took_us);
            programmer_->take_progress(writing);
        }
        programmer_->await_end(writing);
        write_file(chassis_.flash_file(SLOT, "timing"), AS_A_FILE);
        if (writing.result != BIOS_OK || !writing.verified())
            throw std::runtime_error("a programming has failed");
        in_flash_ = image(next_, FLASH_KIB).version;
        next_ = next_ == "2.5" ? "1.2" : "2.5";
    }

private:
    double report_us(const told_versions &expected, measured_reports &seen)
    {
        request_reply report;
        const double took_us = timed_us([&] { report = ask_self_report(*client_, SLOT); });
        // The first word of the answer is not defined.
        const bool is_right = report.error == 0 && report.payload.size() > 4 &&
                              report.payload.substr(4) == module_version_answer(SLOT, OWN_CARD_ID, expected);
        seen.refused += is_right ? 0U : 1U;
        return took_us;
    }

    bench_chassis chassis_;
    std::optional<requester> client_;
    std::optional<requester> programmer_;
    std::string running_;
    std::string in_flash_;
    std::string next_;
};

} // namespace

std::vector<figure> measure_query_while_programming()
{
    reports_of_a_card card;
    measured_reports seen;
    for (unsigned number = 0; number < PROGRAMMINGS; ++number) {
        card.measure_idle(seen);
        card.measure_writing(seen);
    }
    const std::string remark = std::to_string(PROGRAMMINGS) +
                               " programmings of 8 MiB with the times of a real part, " +
                               std::to_string(seen.writing_us.size()) + " reports while the flash was marked, " +
                               std::to_string(seen.idle_us.size()) + " in between";
    return {{.row = 3,
             .name = "self version report while programming, p99",
             .unit = "us",
             .ours = {"programming", seen.writing_us},
             .reference = {"idle", seen.idle_us},
             .goal = GOAL,
             .remark = remark,
             .of_percentile = PERCENTILE},
            {.row = 3,
             .name = "reports refused or wrong while programming",
             .unit = "",
             .ours = {"bios_daemon", {static_cast<double>(seen.refused)}},
             .reference = {},
             .compared = comparison::count,
             .goal = 0}};
}
