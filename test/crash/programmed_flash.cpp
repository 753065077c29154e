#include "programmed_flash.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bios_flash.h"
#include "bios_header.h"
#include "bios_messages.h"
#include "bios_results.h"
#include "chassis_dir.h"
#include "flash_claim.h"
#include "flash_wear.h"
#include "mts.h"
#include "nor_file.h"
#include "rest_of.h"
#include "sup_map_tbl_func/flash_programming.h"

namespace
{

namespace files = std::filesystem;

constexpr unsigned SLOT = 1;
constexpr std::uint8_t PRIMARY = 0;
constexpr flash_geometry GEOMETRY = {.size_bytes = 64 << 10, .sector_bytes = 4 << 10, .page_bytes = 256};
constexpr const char *OPERATIONS[] = {"erase", "program", "read", "marker"};
constexpr unsigned NEVER = 1'000'000; // more operations than a programming has

// What the process of the operation tells the test, in memory that they share.
struct told_values {
    bool has_returned;
    std::int32_t result;
    std::uint32_t percent;
    unsigned pauses;
};
told_values *told = nullptr;

void share_memory()
{
    void *memory = ::mmap(nullptr, sizeof(told_values), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::runtime_error("mmap");
    told = static_cast<told_values *>(memory);
}

std::string firmware(int major, unsigned seed)
{
    std::mt19937 random(seed);
    std::string bytes(GEOMETRY.size_bytes, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(random() & 0xff);
    const bios_header header = {.major = major, .minor = 1, .month = 9, .day = 17, .year = 12};
    if (!bios_header_write(header, reinterpret_cast<std::uint8_t *>(bytes.data())))
        throw std::runtime_error("header of an image");
    return bytes;
}

// Waiting for the disk at each of some thousand programmings would show nothing more.
std::string make_directory()
{
    std::string path = files::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
    path += "/programmed_flash.XXXXXX";
    if (::mkdtemp(path.data()) == nullptr)
        throw std::runtime_error("mkdtemp");
    return path;
}

std::string content_of(const std::string &path)
{
    std::ifstream input(path, std::ios::binary);
    return rest_of(input);
}

void write_content(const std::string &path, const std::string &content)
{
    std::ofstream output(path, std::ios::binary | std::ios::trunc);
    if (!(output << content).flush())
        throw std::runtime_error(path);
}

} // namespace

extern "C" {

unsigned __wrap_sleep(unsigned)
{
    ++told->pauses;
    return 0;
}

std::int32_t __wrap_mts_send(std::int32_t, std::uint32_t, std::uint32_t, std::uint32_t, const void *payload,
                             std::uint32_t length, std::uint32_t, std::uint32_t, std::uint32_t)
{
    bios_programming_progress_t progress;
    if (length != sizeof progress)
        std::abort();
    std::memcpy(&progress, payload, sizeof progress);
    told->percent = progress.percent.load();
    return 0;
}
}

const char *name_of(flash_way way)
{
    return way == flash_way::plain ? "plain" : "chipset";
}

std::ostream &operator<<(std::ostream &out, const programming_end &end)
{
    if (end.was_killed)
        return out << "killed at " << end.percent << "%";
    return out << "result 0x" << std::hex << end.result << std::dec << " at " << end.percent << "%, " << end.pauses
               << " pauses, " << end.erases << " erases";
}

programmed_flash::programmed_flash(flash_way way)
    : old_version("  v1.1.0(09/17/12)"),
      new_version("  v2.1.0(09/17/12)"),
      way_(way),
      directory_(make_directory()),
      old_image_(firmware(1, 11)),
      new_image_(firmware(2, 22)),
      alternate_image_(firmware(3, 33))
{
    if (told == nullptr)
        share_memory();
    if (chassis_attach(directory_, SLOT) != 0 || nor_file_create(SLOT, 0, GEOMETRY) != 0 ||
        nor_file_create(SLOT, 1, GEOMETRY) != 0)
        throw std::runtime_error(directory_ + ": " + std::strerror(errno));
    reset();
}

programmed_flash::~programmed_flash()
{
    std::error_code ignored;
    files::remove_all(directory_, ignored);
}

std::string programmed_flash::file(const char *name, unsigned instance) const
{
    return directory_ + "/" + flash_file_path(SLOT, instance, name);
}

std::string programmed_flash::contents(unsigned instance) const
{
    return content_of(file(FLASH_FILE_DATA, instance));
}

void programmed_flash::write_contents(unsigned instance, const std::string &bytes) const
{
    write_content(file(FLASH_FILE_DATA, instance), bytes);
}

void programmed_flash::reset() const
{
    write_contents(0, old_image_);
    write_contents(1, alternate_image_);
    for (const char *name : {FLASH_FILE_FAULTS, FLASH_FILE_PROGRAMMING, FLASH_FILE_VIOLATIONS, FLASH_FILE_WEAR})
        files::remove(file(name));
}

void programmed_flash::make_new() const
{
    write_contents(0, new_image_);
}

bool programmed_flash::is_marked() const
{
    return files::exists(file(FLASH_FILE_PROGRAMMING));
}

bool programmed_flash::is_free() const
{
    return nor_file::open(SLOT, 0, flash_access::write) != nullptr;
}

std::string programmed_flash::version() const
{
    char text[BIOS_VERSION_TEXT_BYTES];
    return get_bios_flash_version(text, BIOS_FLASH_PRIMARY) == 0 ? text : "";
}

std::string programmed_flash::violations() const
{
    return content_of(file(FLASH_FILE_VIOLATIONS));
}

std::string programmed_flash::faults_left() const
{
    return content_of(file(FLASH_FILE_FAULTS));
}

void programmed_flash::remove_faults() const
{
    files::remove(file(FLASH_FILE_FAULTS));
}

// In the forked process.
void programmed_flash::run_operation() const
{
    const int null = ::open("/dev/null", O_WRONLY);
    (void)::dup2(null, STDOUT_FILENO);
    const std::string image = directory_ + "/image";
    flash_temporary_image = image.c_str(); // as on a card, where it has one name only
    const auto operation = way_ == flash_way::plain ? std_bios_program : std_ibexpeak_bios_program;
    bios_flash_progress_area_t area = {};
    told->result = operation(0, 0, image.c_str(), SLOT, 0, 0, &area, PRIMARY);
    told->has_returned = true;
}

programming_end programmed_flash::program(const std::string &faults) const
{
    write_content(directory_ + "/image", new_image_);
    if (!faults.empty())
        write_content(file(FLASH_FILE_FAULTS), faults + "\n");
    const std::uint64_t erases_before = flash_wear_load(flash_folder_path(SLOT, 0).c_str()).erases;
    *told = {};
    const pid_t child = ::fork();
    if (child == 0) {
        run_operation();
        ::_exit(EXIT_SUCCESS);
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child)
        throw std::runtime_error("waitpid");
    const bool was_killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    if (!was_killed && !(WIFEXITED(status) && told->has_returned))
        throw std::runtime_error("the program operation ended with wait status " + std::to_string(status));
    const std::uint64_t erases_after = flash_wear_load(flash_folder_path(SLOT, 0).c_str()).erases;
    return {was_killed, static_cast<std::uint32_t>(told->result), told->percent, told->pauses,
            erases_after - erases_before};
}

std::map<std::string, unsigned> programmed_flash::count_operations() const
{
    reset();
    std::string rules;
    for (const char *operation : OPERATIONS)
        rules += "stop " + std::string(operation) + " " + std::to_string(NEVER) + "\n";
    const programming_end end = program(rules);
    if (end.was_killed || end.result != BIOS_OK)
        throw std::runtime_error("an undisturbed programming failed");
    std::map<std::string, unsigned> count;
    std::ifstream left(file(FLASH_FILE_FAULTS));
    std::string fault, operation;
    for (unsigned rest = 0; left >> fault >> operation >> rest;)
        count[operation] = NEVER - rest;
    return count;
}
