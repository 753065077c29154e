// compare_bios_images over two equal 16 MiB files, against cmp on the same files; each in a process of its own.
//
//   image_comparison_bench                 measures
//   image_comparison_bench --compare A B   is what is measured
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "image_comparison.h"
#include "process_pair.h"

namespace
{

constexpr std::uint32_t IMAGE_BYTES = 16U << 20;
constexpr unsigned RUNS = 31;
constexpr double GOAL = 1.5;

void write_image(const std::filesystem::path &path)
{
    std::vector<char> content(IMAGE_BYTES);
    std::mt19937 random(1);
    for (char &byte : content)
        byte = static_cast<char>(random());
    std::ofstream file(path, std::ios::binary);
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
}

void measure(const std::string &own_program)
{
    std::string folder = std::filesystem::temp_directory_path() / "image_comparison_bench.XXXXXX";
    if (::mkdtemp(folder.data()) == nullptr)
        throw std::runtime_error("cannot make " + folder);
    const std::string flash = folder + "/flash";
    const std::string image = folder + "/image";
    write_image(flash);
    write_image(image);
    const pair_timing timing = time_in_turn({own_program, "--compare", flash, image}, {"cmp", flash, image}, RUNS);
    print_pair("compare_bios_images, 16 MiB", "cmp", timing, GOAL);
    std::filesystem::remove_all(folder);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 4 && std::strcmp(argv[1], "--compare") == 0)
        return compare_bios_images(argv[2], 0, argv[3], 0, IMAGE_BYTES) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    try {
        measure(std::filesystem::read_symlink("/proc/self/exe"));
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "image_comparison_bench: %s\n", failure.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
