// The check of a signed image as the agent makes it, beside reading the same bytes once for their SHA-256: who
// takes an image has to do that anyway.
#include <string>
#include <vector>

#include "benchmarks.h"
#include "in_turn.h"
#include "timed_process.h"

namespace
{

constexpr double GOAL = 3.0;
constexpr unsigned RUNS = 3 * LEAST_RUNS;

void run(const std::vector<std::string> &words)
{
    std::vector<std::string> command = {BIOS_IMAGE_PROGRAM};
    command.insert(command.end(), words.begin(), words.end());
    (void)run_timed_ms(command);
}

figure measure_size(unsigned image_mib)
{
    const bench_folder folder;
    const std::string image = folder.file("image");
    const std::string secret = folder.file("secret"), key = folder.file("key");
    const std::string size = std::to_string(image_mib);
    run({"build", "--output", image, "--size", size, "--version", "3.5", "--date", "09/17/12", "--family", "x86n"});
    run({"keygen", "--secret", secret, "--public", key});
    run({"sign", "--key", secret, "--image", image, "--output", image});
    figure told{.row = 14,
                .name = "check of a signed image of " + size + " MiB",
                .unit = "ms",
                .ours = {"signature and digest", {}},
                .reference = {"read + SHA-256", {}},
                .goal = GOAL};
    measure_in_turn(
        told.ours,
        [&] {
            return run_timed_ms({SIGNATURE_CHECK_PROGRAM, "check", image, key});
        },
        told.reference,
        [&] {
            return run_timed_ms({SIGNATURE_CHECK_PROGRAM, "digest", image, key});
        },
        RUNS);
    return told;
}

} // namespace

std::vector<figure> measure_signature_check()
{
    return {measure_size(8), measure_size(16)};
}
