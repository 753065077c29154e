#include "card_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "chassis_dir.h"
#include "daemon_node.h"
#include "launcher_error.h"
#include "pfm.h"
#include "printable_text.h"
#include "unique_fd.h"

namespace
{

constexpr off_t LOG_TAIL_BYTES = off_t{16} * 1024;

bool exists(const std::string &path)
{
    return ::faccessat(chassis_dir_fd(), path.c_str(), F_OK, 0) == 0;
}

} // namespace

void open_chassis(const std::string &path)
{
    if (chassis_attach(path, 0) != 0) {
        if (errno == EACCES)
            throw launcher_error(path + ": is closed to this user");
        throw launcher_error(path + ": no chassis there (" + std::strerror(errno) +
                             "); make one with: chassis --dir " + path + " init DESCRIPTION.toml");
    }
    if (!exists("inventory") || !exists("slots"))
        throw launcher_error(path + ": is not the directory of a chassis");
    if (const std::string problem = chassis_folder_problem("."); !problem.empty())
        throw launcher_error(path + ": " + problem);
}

std::vector<unsigned> card_slots()
{
    std::vector<unsigned> slots;
    for (unsigned slot = 1; slot <= PFM_MODULE_COUNT; ++slot) {
        if (exists("inventory/" + std::to_string(slot)))
            slots.push_back(slot);
    }
    return slots;
}

std::vector<unsigned> serving_slots()
{
    std::vector<unsigned> slots;
    for (const unsigned slot : card_slots()) {
        if (chassis_read_value(chassis_slot_path(slot, "serves"), 0) != 0)
            slots.push_back(slot);
    }
    return slots;
}

void require_serving_slot(unsigned slot)
{
    if (!exists("inventory/" + std::to_string(slot)))
        throw launcher_error("slot " + std::to_string(slot) + ": has no card");
    if (chassis_read_value(chassis_slot_path(slot, "serves"), 0) == 0)
        throw launcher_error("slot " + std::to_string(slot) + ": its card does not run the daemon");
}

std::string read_line(const std::string &path)
{
    std::string text;
    if (!chassis_read_file(path, text, 4096))
        return {};
    return text.substr(0, text.find('\n'));
}

void write_line(const std::string &path, const std::string &line)
{
    if (!chassis_write_file(path, line + "\n"))
        throw system_error_of(path);
}

std::string card_state(unsigned slot)
{
    const std::string line = read_line(chassis_slot_path(slot, "state"));
    return line.empty() ? STATE_DOWN : line.substr(0, line.find(' '));
}

std::uint32_t node_of_slot(unsigned slot)
{
    const std::uint32_t kind = chassis_read_value(chassis_inventory_path(slot, "kind"), 0);
    return daemon_node(slot, is_supervisor_kind(kind));
}

std::string log_tail(unsigned slot, unsigned lines)
{
    const std::string path = chassis_slot_path(slot, "log");
    const unique_fd log(::openat(chassis_dir_fd(), path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status = {};
    if (!log || ::fstat(log.get(), &status) != 0)
        return {};
    const off_t begin = status.st_size > LOG_TAIL_BYTES ? status.st_size - LOG_TAIL_BYTES : 0;
    std::string text(static_cast<std::size_t>(status.st_size - begin), '\0');
    const ssize_t got = ::pread(log.get(), text.data(), text.size(), begin);
    text.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    make_lines_printable(text.data(), text.size());

    std::size_t start = text.size();
    for (unsigned found = 0; start > 0; --start) {
        if (text[start - 1] == '\n' && start != text.size() && ++found == lines)
            break;
    }
    return text.substr(start);
}
