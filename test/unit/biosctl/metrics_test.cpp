// biosctl metrics: the text format, what the facts become, and the built program in a chassis of files. A parser of
// the format reads the program's output in test/docs/check_metrics.py.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "biosctl_chassis.h"
#include "metrics.h"

namespace
{

flash_facts used_flash()
{
    flash_facts flash{
        .slot = 5, .instance = 1, .erases = 512, .sectors = 128, .marked = true, .version = "unknown"};
    flash.totals.begun = 4;
    flash.totals.ended = {{0, 2}, {0x40710021, 1}};
    flash.totals.took[0] = 1;
    flash.totals.took[3] = 2;
    flash.totals.duration_ms = 45'007;
    flash.totals.bytes_written = 12'345'678'901;
    return flash;
}

std::string text_of(const std::vector<card_facts> &cards, const std::vector<flash_facts> &flashes)
{
    return text_of(metrics_text(metric_families(cards, flashes)), {});
}

bool has_line(const std::string &text, const std::string &line)
{
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

} // namespace

TEST(MetricsText, IsHelpTypeAndSamples)
{
    const std::vector<metric_family> families{
        {"a_total", "counter", "Of a.", {{{{"slot", "5"}, {"flash", "primary"}}, "3"}, {{}, "0"}}},
        {"left_out", "gauge", "Has no samples."},
        {"b", "gauge", "Of b.", {{{}, "1"}}}};
    EXPECT_EQ(text_of(metrics_text(families), {}), "# HELP a_total Of a.\n# TYPE a_total counter\n"
                                                   "a_total{slot=\"5\",flash=\"primary\"} 3\na_total 0\n"
                                                   "# HELP b Of b.\n# TYPE b gauge\nb 1\n");
}

TEST(MetricsText, EscapesWhatWouldEndALabelOrALine)
{
    const std::vector<metric_family> families{
        {"a", "gauge", "A \\ and\na \"line\".", {{{{"text", "back\\slash \"quote\"\nline"}}, "1"}}}};
    EXPECT_EQ(text_of(metrics_text(families), {}), "# HELP a A \\\\ and\\na \"line\".\n# TYPE a gauge\n"
                                                   "a{text=\"back\\\\slash \\\"quote\\\"\\nline\"} 1\n");
}

TEST(Metrics, CountProgrammingsByResult)
{
    const std::string text = text_of({}, {used_flash()});
    EXPECT_TRUE(has_line(text, R"(bios_programmings_begun_total{slot="5",flash="alternate"} 4)")) << text;
    EXPECT_TRUE(has_line(
        text, R"(bios_programmings_ended_total{slot="5",flash="alternate",code="0x00000000",name="ok"} 2)"))
        << text;
    EXPECT_TRUE(has_line(
        text, R"(bios_programmings_ended_total{slot="5",flash="alternate",code="0x40710021",name="write_pr)"
              R"(otected"} 1)"))
        << text;
    EXPECT_TRUE(has_line(text, R"(bios_flash_bytes_written_total{slot="5",flash="alternate"} 12345678901)"))
        << text;
    EXPECT_TRUE(has_line(text, R"(bios_flash_wear_erases_total{slot="5",flash="alternate"} 512)")) << text;
    EXPECT_TRUE(has_line(text, R"(bios_flash_marked{slot="5",flash="alternate"} 1)")) << text;
}

TEST(Metrics, DurationsAreAHistogramThatAddsUp)
{
    const std::string text = text_of({}, {used_flash()});
    const std::string name = "bios_programming_duration_seconds";
    const std::string flash = R"({slot="5",flash="alternate")";
    for (const char *low : {"1", "5", "10"})
        EXPECT_TRUE(has_line(text, name + "_bucket" + flash + ",le=\"" + low + "\"} 1")) << low << text;
    for (const char *high : {"30", "60", "120", "300", "600", "1800", "+Inf"})
        EXPECT_TRUE(has_line(text, name + "_bucket" + flash + ",le=\"" + high + "\"} 3")) << high << text;
    EXPECT_TRUE(has_line(text, name + "_sum" + flash + "} 45.007")) << text;
    EXPECT_TRUE(has_line(text, name + "_count" + flash + "} 3")) << text;
}

TEST(Metrics, TellOfCards)
{
    const std::string text =
        text_of({{.slot = 27, .card_id = 206, .role = "active", .serves = true, .locked = false},
                 {.slot = 28, .card_id = 206, .role = "standby", .serves = false, .locked = std::nullopt}},
                {});
    EXPECT_TRUE(has_line(text, R"(bios_card_up{slot="27"} 1)")) << text;
    EXPECT_TRUE(has_line(text, R"(bios_card_up{slot="28"} 0)")) << text;
    EXPECT_TRUE(has_line(text, R"(bios_card_info{slot="28",card_id="206",role="standby"} 1)")) << text;
    EXPECT_TRUE(has_line(text, R"(bios_module_locked{slot="27"} 0)")) << text;
    EXPECT_EQ(text.find(R"(bios_module_locked{slot="28")"), std::string::npos) << "nothing is known of it";
}

TEST(Metrics, OfTheBuiltProgram)
{
    const test_chassis chassis;
    scripted_daemon daemon(chassis, 27, [](daemon_side &) {});
    const std::string folder = chassis.flash_folder(5, "primary");
    std::ofstream(folder + "/wear") << "erases 77\nprograms 1\nreads 2\n";
    std::ofstream(folder + "/event_totals") << "sequence 10\nbegun 5\nended 0x00000000 5\n";
    std::ofstream(folder + "/events")
        << R"({"time":"2026-01-31T12:00:00.000Z","slot":5,"flash":"primary","sequence":10,"pid":9,"event":"begun"})"
        << "\n"
        << R"({"time":"2026-01-31T12:00:00.000Z","slot":5,"flash":"primary","sequence":11,"pid":9,"event":"begun"})"
        << "\n";
    biosctl_run run({"--dir", chassis.path(), "metrics"});
    EXPECT_EQ(run.exit_code(), 0) << run.err();
    EXPECT_TRUE(has_line(run.out(), R"(bios_programmings_begun_total{slot="5",flash="primary"} 6)")) << run.out();
    EXPECT_TRUE(has_line(run.out(), R"(bios_flash_wear_erases_total{slot="5",flash="primary"} 77)")) << run.out();
    EXPECT_TRUE(has_line(run.out(), R"(bios_flash_sectors{slot="5",flash="primary"} 16)")) << run.out();
    EXPECT_TRUE(has_line(run.out(), R"(bios_flash_info{slot="5",flash="primary",version="unknown"} 1)"))
        << run.out();
    EXPECT_TRUE(has_line(run.out(), R"(bios_card_up{slot="27"} 1)")) << run.out();
    EXPECT_TRUE(has_line(run.out(), R"(bios_card_up{slot="5"} 0)")) << run.out();

    biosctl_run json({"--dir", chassis.path(), "metrics", "--json", "5"});
    EXPECT_EQ(json.exit_code(), 0);
    const auto told = nlohmann::json::parse(json.out());
    EXPECT_EQ(told["metrics"][0]["samples"].dump(),
              R"([{"labels":{"flash":"primary","slot":"5"},"name":"bios_programmings_begun_total","value":"6"}])");
    biosctl_run missing({"--dir", chassis.path(), "metrics", "7"});
    EXPECT_EQ(missing.exit_code(), 3);
}
