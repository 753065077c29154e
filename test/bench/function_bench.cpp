// Version readers and image comparison beside memcmp over the same mapped pages. The bench program prepares what it
// needs and runs it:
//
//   function_bench [options of Google Benchmark] FOLDER CHASSIS_DIRECTORY SLOT
//
// FOLDER gets the images. The readers log to the history of the card and to standard output, as in the daemon.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <random>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "bios_flash.h"
#include "chassis_dir.h"
#include "image_comparison.h"
#include "ppc_version.h"
#include "rest_of.h"
#include "unique_fd.h"
#include "x86_version.h"

namespace
{

constexpr char SIGNATURE[] = ">>> KORVA SUP_TELMA_OR BIOS <<<";
constexpr std::size_t COMPARED_BYTES = 16U << 20;
constexpr std::size_t PAGE_BYTES = 4096;

// What a reader is given, and how much of it it maps.
struct subject {
    const char *name;
    std::int32_t (*read)(const char *path, std::uint32_t phys_offset, char *version_out);
    std::size_t mapped_bytes;
    std::uint32_t phys_offset;
    std::size_t signature_at; // in the mapping
    std::size_t header_at;    // in the mapping
};

constexpr subject SUBJECTS[] = {
    // The last place that is looked at: all 512 are.
    {"x86", get_x86_bios_version, 0x80000, 0, 0x7fc00, 0x7fc00},
    {"x86n", get_x86n_bios_version, 128, 0, 18, 0},
    {"x86s", get_x86s_bios_version, 0x200000, 0, 18, 0x10000},
    // In a flash: an image file's digest is made by another program.
    {"ppc", get_ppc_bios_version, 0x80000, PAGE_BYTES, 18, 0},
};

std::string folder;

std::string random_bytes(std::size_t length)
{
    std::string bytes(length, '\0');
    std::mt19937 random(1);
    std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<char>(random()); });
    return bytes;
}

std::string file_of(const std::string &name, const std::string &bytes)
{
    const std::string path = folder + "/" + name;
    std::ofstream file(path, std::ios::binary);
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file << bytes;
    return path;
}

std::string image_of(const subject &read)
{
    std::string bytes = random_bytes(std::max(read.mapped_bytes, PAGE_BYTES) + read.phys_offset);
    bytes.replace(read.phys_offset + read.header_at, 128, std::string(128, '1'));
    bytes.replace(read.phys_offset + read.signature_at, std::strlen(SIGNATURE), SIGNATURE);
    return file_of(read.name, bytes);
}

// A file opened and mapped as the readers do it, for as long as the object lives.
class mapping
{
public:
    mapping(const std::string &path, std::size_t bytes, off_t offset)
        : bytes_(bytes),
          file_(::open(path.c_str(), O_RDWR))
    {
        address_ = ::mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), offset);
        if (address_ == MAP_FAILED)
            std::abort();
    }
    ~mapping() { (void)::munmap(address_, bytes_); }
    mapping(const mapping &) = delete;
    mapping &operator=(const mapping &) = delete;

    const void *address() const { return address_; }

private:
    std::size_t bytes_;
    unique_fd file_;
    void *address_;
};

void read_version(benchmark::State &state, const subject &read, const std::string &path)
{
    char version[BIOS_VERSION_TEXT_BYTES];
    for ([[maybe_unused]] auto turn : state) {
        if (read.read(path.c_str(), read.phys_offset, version) != 0)
            state.SkipWithError("no version was read");
    }
}

void compare_pages(benchmark::State &state, const subject &read, const std::string &path, const std::string &bytes)
{
    const std::size_t mapped_bytes = (read.mapped_bytes + PAGE_BYTES - 1) / PAGE_BYTES * PAGE_BYTES;
    for ([[maybe_unused]] auto turn : state) {
        const mapping image(path, mapped_bytes, static_cast<off_t>(read.phys_offset));
        if (std::memcmp(image.address(), bytes.data() + read.phys_offset, mapped_bytes) != 0)
            state.SkipWithError("the image has changed");
    }
}

void compare_images(benchmark::State &state, const std::string &flash, const std::string &image)
{
    for ([[maybe_unused]] auto turn : state) {
        if (compare_bios_images(flash.c_str(), 0, image.c_str(), 0, COMPARED_BYTES) != 0)
            state.SkipWithError("equal files differ");
    }
}

void compare_memory(benchmark::State &state, const std::string &flash, const std::string &image)
{
    for ([[maybe_unused]] auto turn : state) {
        const mapping first(flash, COMPARED_BYTES, 0);
        const mapping second(image, COMPARED_BYTES, 0);
        if (std::memcmp(first.address(), second.address(), COMPARED_BYTES) != 0)
            state.SkipWithError("equal files differ");
    }
}

std::string content_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return rest_of(file);
}

void register_all()
{
    for (const subject &read : SUBJECTS) {
        const std::string path = image_of(read);
        const std::string name = read.name;
        benchmark::RegisterBenchmark((name + "/ours").c_str(), read_version, read, path);
        benchmark::RegisterBenchmark((name + "/reference").c_str(), compare_pages, read, path, content_of(path));
    }
    const std::string bytes = random_bytes(COMPARED_BYTES);
    const std::string flash = file_of("flash", bytes);
    const std::string image = file_of("image", bytes);
    benchmark::RegisterBenchmark("compare_bios_images/ours", compare_images, flash, image);
    benchmark::RegisterBenchmark("compare_bios_images/reference", compare_memory, flash, image);
}

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (argc != 4 || chassis_attach(argv[2], static_cast<unsigned>(std::atoi(argv[3]))) != 0) {
        std::fprintf(stderr, "usage: function_bench [options] FOLDER CHASSIS_DIRECTORY SLOT\n");
        return EXIT_FAILURE;
    }
    folder = argv[1];
    register_all();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return EXIT_SUCCESS;
}
