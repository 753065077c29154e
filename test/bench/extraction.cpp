// Extraction of an image from the image tree by the daemon's operation, without the pauses that it has to make,
// beside plain gunzip of the same file to the same file system.
#include <filesystem>

#include "bench_flash.h"
#include "benchmarks.h"
#include "in_turn.h"

namespace
{

constexpr unsigned PAUSES_S = 2;
constexpr double GOAL = 1.3;
constexpr unsigned RUNS = 3 * LEAST_RUNS;
constexpr const char *PAYLOAD = "/usr/share/OVMF/OVMF_CODE_4M.fd"; // a firmware of which half an image is filled

test_image firmware_image(const bench_folder &folder)
{
    const std::string path = folder.file("plain");
    (void)run_timed_ms({BIOS_IMAGE_PROGRAM, "build", "--output", path, "--size", "8", "--version", "3.5", "--date",
                        "09/17/12", "--payload", PAYLOAD});
    return {path, file_content(path), ""};
}

// Runs a command that makes a file of its own; milliseconds.
double made_ms(const std::vector<std::string> &command, const std::string &made, const test_image &wanted)
{
    std::filesystem::remove(made);
    settle_disk(std::filesystem::path(made).parent_path().parent_path());
    const double took = run_timed_ms(command);
    expect_content(made, wanted);
    return took;
}

} // namespace

std::vector<figure> measure_extraction()
{
    figure told{.row = 9,
                .name = "extraction of an image of 8 MiB",
                .unit = "ms",
                .ours = {"extract operation", {}},
                .reference = {"gunzip", {}},
                .goal = GOAL};
    told.remark =
        "without the pauses that the operation has to make, " + std::to_string(PAUSES_S) + " s in each run";

    const bench_folder folder;
    const test_image plain = firmware_image(folder);
    (void)run_timed_ms({"gzip", "-k", plain.path});
    const std::string compressed = folder.file("tree.gz"), peer_result = folder.file("tree");
    std::filesystem::rename(plain.path + ".gz", compressed);
    const std::string own_result = folder.file("bootflash/.tmpbios.bin");
    measure_in_turn(
        told.ours,
        [&] {
            return made_ms({EXTRACTION_PROGRAM, compressed, own_result, std::to_string(PAUSES_S)}, own_result,
                           plain);
        },
        told.reference,
        [&] {
            return made_ms({"gunzip", "-k", compressed}, peer_result, plain);
        },
        RUNS);
    return {told};
}
