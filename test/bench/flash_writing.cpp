// Writing a flash with an image that differs in every sector, and with one that it has already, beside a flash
// programmer with an emulated chip, and beside copying the bytes.
#include <stdexcept>
#include <utility>

#include "bench_flash.h"
#include "benchmarks.h"
#include "in_turn.h"

namespace
{

// A chip that the peer emulates.
struct chip {
    unsigned mib;
    const char *emulated;   // for its programmer
    const char *definition; // that it is to take of those that match
};
constexpr chip CHIPS[] = {
    {8, "MX25L6436", "MX25L6436E/MX25L6445E/MX25L6465E/MX25L6473E/MX25L6473F"},
    {16, "W25Q128FV", "W25Q128.V"},
};

// What flashrom waits, computing, whatever the chip: for the chip to settle after it was found, and again before
// what was written is verified.
constexpr double SETTLING_MS = 100;
constexpr double CALMING_MS = 1000;

constexpr double WRITING_GOAL = 0.125;
constexpr double COPY_GOAL = 3;
constexpr double EQUAL_GOAL = 0.05;

// Two images that differ everywhere, by turns: what was written before is overwritten wholly.
class image_pair
{
public:
    explicit image_pair(unsigned mib) : first_(&image("1.1", mib << 10)), second_(&image("2.2", mib << 10)) {}

    const test_image &first() const { return *first_; }
    const test_image &next()
    {
        std::swap(first_, second_);
        return *first_;
    }

private:
    const test_image *first_;
    const test_image *second_;
};

class emulated_chip
{
public:
    emulated_chip(const chip &made, const test_image &contents) : chip_(made)
    {
        write_file(file(), contents.bytes);
    }

    // Without what it only waits.
    double write_ms(const test_image &written, double waits_ms) const
    {
        settle_disk(file());
        const std::string programmer = std::string("dummy:emulate=") + chip_.emulated + ",image=" + file();
        const double took =
            run_timed_ms({"flashrom", "-p", programmer, "-c", chip_.definition, "-w", written.path});
        expect_content(file(), written);
        return took - waits_ms;
    }

private:
    std::string file() const { return folder_.file("chip"); }

    chip chip_;
    bench_folder folder_;
};

std::string size_text(const chip &sized)
{
    return std::to_string(sized.mib) + " MiB";
}

figure writing(const chip &sized)
{
    figure told{.row = 6,
                .name = "writing and verifying " + size_text(sized),
                .unit = "ms",
                .ours = {"flash service", {}},
                .reference = {"flashrom", {}},
                .goal = WRITING_GOAL};
    told.remark =
        "every sector differs; of flashrom's time the 1100 ms that it only waits are taken off; the flash "
        "service waits for the disk, flashrom does not";
    image_pair ours(sized.mib), theirs(sized.mib);
    const bench_flash flash(ours.first());
    const emulated_chip peer(sized, theirs.first());
    measure_in_turn(
        told.ours, [&] { return flash.program_ms(ours.next()); }, told.reference,
        [&] { return peer.write_ms(theirs.next(), SETTLING_MS + CALMING_MS); }, LEAST_RUNS);
    return told;
}

figure copying(const chip &sized)
{
    figure told{.row = 7,
                .name = "writing and verifying " + size_text(sized),
                .unit = "ms",
                .ours = {"flash service", {}},
                .reference = {"cp + fsync", {}},
                .goal = COPY_GOAL};
    told.remark = "both wait until the bytes are on the same disk; the flash service reads every sector four times "
                  "besides, and waits for its marker before and after";
    constexpr unsigned RUNS = 3 * LEAST_RUNS;
    const bench_folder folder;
    image_pair ours(sized.mib), theirs(sized.mib);
    const bench_flash flash(ours.first());
    const std::string destination = folder.file("copy");
    write_file(destination, theirs.first().bytes);
    measure_in_turn(
        told.ours, [&] { return flash.program_ms(ours.next()); }, told.reference,
        [&] { return copy_ms(theirs.next(), destination); }, RUNS);
    return told;
}

figure count_of(const std::string &what, const chip &sized, std::uint64_t happened)
{
    return {.row = 8,
            .name = what + ", equal flash of " + size_text(sized),
            .unit = "",
            .ours = {"flash service", {static_cast<double>(happened)}},
            .reference = {},
            .compared = comparison::count};
}

std::vector<figure> comparing(const chip &sized)
{
    figure told{.row = 8,
                .name = "equal flash of " + size_text(sized),
                .unit = "ms",
                .ours = {"flash service", {}},
                .reference = {"flashrom", {}},
                .goal = EQUAL_GOAL};
    told.remark = "nothing is to be written; of flashrom's time the 100 ms that it only waits are taken off";
    constexpr unsigned RUNS = 3 * LEAST_RUNS;
    const test_image &same = image_pair(sized.mib).first();
    const bench_flash flash(same);
    const emulated_chip peer(sized, same);
    measure_in_turn(
        told.ours, [&] { return flash.program_ms(same); }, told.reference,
        [&] { return peer.write_ms(same, SETTLING_MS); }, RUNS);
    const flash_wear done = flash.wear();
    if (done.reads == 0)
        throw std::runtime_error("the flash has counted nothing");
    return {told, count_of("erases", sized, done.erases), count_of("programs", sized, done.programs)};
}

} // namespace

std::vector<figure> measure_flash_writing()
{
    std::vector<figure> figures;
    for (const chip &sized : CHIPS) {
        figures.push_back(writing(sized));
        figures.push_back(copying(sized));
        const std::vector<figure> equal = comparing(sized);
        figures.insert(figures.end(), equal.begin(), equal.end());
    }
    return figures;
}
