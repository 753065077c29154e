// Which files biosctl touches: what it knows of a card it is told by messages.
#include <fstream>
#include <regex>
#include <set>

#include "chassis_fixture.h"

namespace
{

class BiosctlFiles : public chassis_test
{
protected:
    void SetUp() override { up_with_standby(); }

    // The paths of all calls that take one, as they were given; none when the system lets nobody look.
    std::optional<std::set<std::string>> touched_by(const std::vector<std::string> &words) const
    {
        const std::string trace = chassis_directory() + ".trace";
        std::vector<std::string> command = {"strace", "-f",  "-qq",           "-e",    "trace=file",
                                            "-o",     trace, BIOSCTL_PROGRAM, "--dir", chassis_directory()};
        command.insert(command.end(), words.begin(), words.end());
        const finished_program done = run_program(command);
        std::ifstream lines(trace);
        std::set<std::string> paths;
        const std::regex first_text("\"([^\"]*)\"");
        for (std::string line; std::getline(lines, line);) {
            std::smatch found;
            if (std::regex_search(line, found, first_text))
                paths.insert(found[1]);
        }
        lines.close();
        std::filesystem::remove(trace);
        return paths.empty() ? std::nullopt : std::optional(paths);
    }

    // The chassis's directory, the transport's folder and what lies in it, and the faults that it is asked for.
    bool is_the_transports(const std::string &path) const
    {
        static const std::regex TRANSPORT(
            R"(|\.|mts|lock|[0-9a-f]{8}\.[0-9a-f]{8}|listen\.[0-9a-f.]+|transport(/faults)?)");
        return path == chassis_directory() || std::regex_match(path, TRANSPORT);
    }

    void expect_transport_alone(const std::vector<std::string> &words) const
    {
        const auto paths = touched_by(words);
        if (!paths)
            GTEST_SKIP() << "strace is not there, or may not look";
        for (const std::string &path : *paths) {
            const bool is_of_chassis = !path.starts_with("/") || path.starts_with(chassis_directory());
            EXPECT_TRUE(!is_of_chassis || is_the_transports(path)) << words.front() << ": " << path;
        }
    }
};

} // namespace

TEST_F(BiosctlFiles, AreTheTransportsAlone)
{
    for (const std::vector<std::string> &words : {std::vector<std::string>{"show"},
                                                  {"audit"},
                                                  {"watch", "--once"},
                                                  {"events"},
                                                  {"metrics"},
                                                  {"source", "1"},
                                                  {"lock", "2"},
                                                  {"unlock", "2"},
                                                  {"program", "1"},
                                                  {"sync"},
                                                  {"events"}})
        expect_transport_alone(words);
}
