#include "bench_flash.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <stdexcept>
#include <unistd.h>

#include "chassis_dir.h"
#include "flash_folder.h"
#include "flash_geometry.h"
#include "nor_file_layout.h"
#include "unique_fd.h"

namespace
{

constexpr unsigned SLOT = 1;
constexpr unsigned PRIMARY = 0;

} // namespace

void settle_disk(const std::string &path)
{
    const unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file || ::syncfs(file.get()) != 0)
        throw std::runtime_error(path + ": " + std::strerror(errno));
}

void expect_content(const std::string &path, const test_image &wanted)
{
    std::string content(wanted.bytes.size() + 1, '\0'); // one more than there should be
    std::ifstream file(path, std::ios::binary);
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<std::size_t>(file.gcount()));
    if (content != wanted.bytes)
        throw std::runtime_error(path + " does not hold what was written");
}

double copy_ms(const test_image &copied, const std::string &destination)
{
    settle_disk(destination);
    const double took = run_timed_ms({"cp", copied.path, destination}) + timed_ms([&] {
                            const unique_fd file(::open(destination.c_str(), O_RDWR | O_CLOEXEC));
                            if (!file || ::fsync(file.get()) != 0)
                                throw std::runtime_error("cannot sync " + destination);
                        });
    expect_content(destination, copied);
    return took;
}

bench_flash::bench_flash(const test_image &contents)
{
    flash_geometry geometry;
    geometry.size_bytes = static_cast<std::uint32_t>(contents.bytes.size());
    if (chassis_attach(folder_.file("."), SLOT) != 0 ||
        nor_file_create(SLOT, PRIMARY, geometry, contents.path) != 0)
        throw std::runtime_error(std::string("making a flash: ") + std::strerror(errno));
}

double bench_flash::program_ms(const test_image &image) const
{
    const std::string data = folder_.file(flash_file_path(SLOT, PRIMARY, FLASH_FILE_DATA));
    settle_disk(data);
    const double took = run_timed_ms({FLASH_WRITING_PROGRAM, folder_.file("."), std::to_string(SLOT), image.path});
    expect_content(data, image);
    return took;
}

flash_wear bench_flash::wear() const
{
    return flash_wear_load(flash_folder_path(SLOT, PRIMARY).c_str());
}
