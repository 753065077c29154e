// Delivering a file to a card's agent, beside copying it on the same file system.
#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "agent_messages.h"
#include "bench_flash.h"
#include "benchmarks.h"
#include "chassis_dir.h"
#include "in_turn.h"
#include "mts_tools.h"
#include "started_process.h"

namespace
{

constexpr unsigned SLOT = 1;
constexpr unsigned MIB = 8;
constexpr const char *NAME = "image";
constexpr unsigned RUNS = 3 * LEAST_RUNS;
constexpr double COPY_GOAL = 15;

// A card with an agent and nothing else, in a chassis directory on a real file system.
class agents_card
{
public:
    agents_card() : directory_(made_directory(folder_)), agent_(start_plan{BIOS_AGENT_PROGRAM, environment()})
    {
        if (chassis_attach(directory_, 0) != 0)
            throw std::runtime_error("no chassis in " + directory_);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!mts_is_bound(mts_node_of_slot(SLOT), AGENT_SAP)) {
            if (std::chrono::steady_clock::now() > deadline || agent_.has_ended())
                throw std::runtime_error("the agent did not come up");
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    double delivery_ms(const test_image &file) const
    {
        settle_disk(directory_);
        const double took =
            run_timed_ms({FILE_DELIVERY_PROGRAM, directory_, std::to_string(SLOT), file.path, NAME});
        expect_content(directory_ + "/" + chassis_slot_path(SLOT, "images/") + NAME, file);
        return took;
    }

private:
    static std::string made_directory(const bench_folder &folder)
    {
        const std::string directory = folder.file("chassis");
        const std::filesystem::path inventory = directory + "/" + chassis_inventory_path(SLOT, "kind");
        std::filesystem::create_directories(inventory.parent_path());
        std::filesystem::create_directories(directory + "/" + chassis_slot_path(SLOT, "locks"));
        std::ofstream(inventory) << "1\n";
        return directory;
    }
    std::vector<std::string> environment() const
    {
        return {std::string(CHASSIS_ENV_DIR) + "=" + directory_,
                std::string(CHASSIS_ENV_SLOT) + "=" + std::to_string(SLOT)};
    }

    bench_folder folder_;
    std::string directory_;
    started_process agent_;
};

} // namespace

std::vector<figure> measure_file_delivery()
{
    figure told{.row = 13,
                .name = "delivery of a file of 8 MiB",
                .unit = "ms",
                .ours = {"bios_agent", {}},
                .reference = {"cp + fsync", {}},
                .goal = COPY_GOAL};
    told.remark = "both wait until the bytes are on the same disk; the sender reads the file twice, and both sides "
                  "compute its SHA-256";
    const test_image &file = image("1.1", MIB << 10);
    const agents_card card;
    const bench_folder folder;
    const std::string destination = folder.file("copy");
    std::ofstream(destination) << "";
    measure_in_turn(
        told.ours, [&] { return card.delivery_ms(file); }, told.reference,
        [&] { return copy_ms(file, destination); }, RUNS);
    return {told};
}
