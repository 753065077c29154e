// An image is unpacked through a pipe and never lies anywhere whole. A system image is taken apart in a folder of
// its own, with the command that the daemon uses.
#include "image_facts.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bios_header.h"
#include "card_groups.h"
#include "card_identification.h"
#include "card_table.h"
#include "chassis_dir.h"
#include "exec_cmd.h"
#include "flash_device.h"
#include "harmless_path.h"
#include "image_check.h"
#include "image_files.h"
#include "image_manifest.h"
#include "inventory_value.h"
#include "regular_file.h"
#include "spawn_actions.h"
#include "trusted_keys.h"
#include "unique_fd.h"
#include "unpacking_room.h"

namespace
{

namespace fs = std::filesystem;

constexpr const char *WORK_FOLDER = "/var/tmp";
constexpr const char *WORK_PREFIX = "bios_agent.";
constexpr const char *CORE_PLUGIN = "vesk/plugin_img/core_plugin"; // in a system image, and where it lands
constexpr std::size_t PIECE_BYTES = 64 << 10;
constexpr std::uint64_t SYSTEM_IMAGE_BYTES_MAX = 1 << 30; // unpacked, of one that is searched for damage
constexpr int GUNZIP_WARNED = 2;                          // its exit status: the data is whole

// An image whose bytes come one after the other, and what is said of it.
class unpacked_image
{
public:
    unpacked_image(std::uint64_t bytes_max, bool with_signature)
        : bytes_max_(bytes_max),
          with_signature_(with_signature),
          reader_(with_signature ? signature_.sink() : image_reader::byte_sink())
    {
    }

    // false when there are too many.
    bool add(const std::uint8_t *bytes, std::size_t count)
    {
        const std::size_t missing = std::min(remaining_, count);
        std::copy_n(bytes, missing, header_.begin() + static_cast<std::ptrdiff_t>(BIOS_HEADER_BYTES - remaining_));
        remaining_ -= missing;
        size_ += count;
        reader_.add(bytes, count);
        return size_ <= bytes_max_;
    }
    // A file that lies beside the image while it is unpacked.
    void add_file_beside(int fd)
    {
        struct stat status {
        };
        if (::fstat(fd, &status) == 0)
            files_beside_.push_back(static_cast<std::uint64_t>(status.st_size));
    }
    std::vector<std::uint64_t> files() const
    {
        std::vector<std::uint64_t> all = files_beside_;
        all.push_back(size_);
        return all;
    }
    bool is_empty() const { return size_ == 0; }
    agent_image_t told()
    {
        const image_reading reading = reader_.finish();
        agent_image_t image{};
        image.size_bytes = be64::of(reading.size_bytes);
        std::ranges::copy(reading.sha256, image.sha256);
        if (remaining_ == 0)
            store_text(image.version, bios_version_in(header_.data()).c_str());
        image.manifest_state = be32::of(manifest_state_of(reading));
        image.signature = be32::of(with_signature_ ? signature_status(reading) : AGENT_SIGNATURE_NOT_CHECKED);
        image_manifest_record record;
        static_assert(sizeof record == sizeof image.manifest);
        if (reading.state == image_manifest_state::intact && image_manifest_store(reading.manifest, record))
            std::memcpy(image.manifest, &record, sizeof record);
        return image;
    }

private:
    static agent_manifest_state manifest_state_of(const image_reading &reading)
    {
        switch (reading.state) {
        case image_manifest_state::none:
            return AGENT_MANIFEST_NONE;
        case image_manifest_state::damaged:
            return AGENT_MANIFEST_DAMAGED;
        case image_manifest_state::intact:
            break;
        }
        return AGENT_MANIFEST_INTACT;
    }
    std::uint32_t signature_status(const image_reading &reading)
    {
        trusted_keys keys;
        std::string problem;
        if (!trusted_keys_load(keys, problem))
            return AGENT_ERR_KEYS;
        return signature_status_of(signature_.state(reading, keys));
    }

    std::uint64_t bytes_max_;
    bool with_signature_;
    std::array<std::uint8_t, BIOS_HEADER_BYTES> header_ = {};
    std::size_t remaining_ = BIOS_HEADER_BYTES; // of the header
    std::uint64_t size_ = 0;
    std::vector<std::uint64_t> files_beside_;
    image_signature_check signature_;
    image_reader reader_;
};

// Takes all that a descriptor gives.
agent_status read_all(int fd, unpacked_image &image)
{
    std::vector<std::uint8_t> piece(PIECE_BYTES);
    for (;;) {
        const ssize_t got = ::read(fd, piece.data(), piece.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return AGENT_ERR_UNREADABLE;
        if (got == 0)
            return AGENT_OK;
        if (!image.add(piece.data(), static_cast<std::size_t>(got)))
            return AGENT_ERR_IMAGE_SIZE;
    }
}

bool is_packed(int fd)
{
    std::uint8_t magic[2] = {};
    return ::pread(fd, magic, sizeof magic, 0) == sizeof magic && magic[0] == 0x1f && magic[1] == 0x8b;
}

agent_status read_packed(const char *path, unpacked_image &image)
{
    const unique_fd file = open_regular_file(path);
    if (!file)
        return AGENT_ERR_IMAGE_FILE;
    if (!is_packed(file.get()))
        return AGENT_ERR_IMAGE_PACKED;
    image.add_file_beside(file.get());
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return AGENT_ERR_UNREADABLE;
    unique_fd output(ends[0]);
    unique_fd input(ends[1]);
    spawn_actions actions;
    actions.connect(file.get(), STDIN_FILENO);
    actions.connect(input.get(), STDOUT_FILENO);
    actions.open("/dev/null", O_WRONLY, STDERR_FILENO);
    char name[] = "gunzip";
    char option[] = "-c";
    char *const arguments[] = {name, option, nullptr};
    pid_t gunzip = -1;
    if (actions.result() != 0 ||
        ::posix_spawn(&gunzip, "/bin/gunzip", actions.get(), nullptr, arguments, environ) != 0)
        return AGENT_ERR_UNREADABLE;
    input.reset();
    const agent_status result = read_all(output.get(), image);
    output.reset(); // ends it where it is not wanted any more
    int status = 0;
    (void)::waitpid(gunzip, &status, 0);
    if (result != AGENT_OK)
        return result;
    const bool is_whole = WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == GUNZIP_WARNED);
    return is_whole ? AGENT_OK : AGENT_ERR_IMAGE_CUT;
}

// A folder that is removed again with all that is in it, and is the working directory meanwhile.
class work_folder
{
public:
    work_folder()
    {
        std::string name = std::string(WORK_FOLDER) + "/" + WORK_PREFIX + "XXXXXX";
        if (::mkdtemp(name.data()) != nullptr && ::chdir(name.c_str()) == 0)
            path_ = name;
    }
    ~work_folder()
    {
        if (path_.empty())
            return;
        (void)!::chdir("/");
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    work_folder(const work_folder &) = delete;
    work_folder &operator=(const work_folder &) = delete;

    bool is_there() const { return !path_.empty(); }
    bool is_full() const
    {
        std::error_code failure;
        return fs::space(path_, failure).available < PIECE_BYTES && !failure;
    }

private:
    std::string path_;
};

// Has a command take a member out of an archive; what it needs no shell may take for anything else.
bool take_member(const std::string &archive, const std::string &member)
{
    const std::string command = "/vesk/sbin/veskadd -x " + archive + " . " + member;
    return exec_cmd_with_files_print(command.c_str(), nullptr, "/dev/null", "/dev/null", 0) == 0;
}

// Why nothing could be taken out of an archive, as far as the file itself shows it.
agent_status why_no_member(const char *path)
{
    unpacked_image whole(SYSTEM_IMAGE_BYTES_MAX, false);
    return read_packed(path, whole) == AGENT_ERR_IMAGE_CUT ? AGENT_ERR_IMAGE_CUT : AGENT_ERR_IMAGE_MEMBER;
}

agent_status read_from_system_image(const std::string &path, const std::string &member, unpacked_image &image)
{
    if (!is_harmless_path(path.c_str()))
        return AGENT_ERR_IMAGE_URI;
    if (!open_regular_file(path.c_str()))
        return AGENT_ERR_IMAGE_FILE;
    const work_folder folder;
    if (!folder.is_there())
        return errno == ENOSPC ? AGENT_ERR_IMAGE_SPACE : AGENT_ERR_UNREADABLE;
    const bool has_core = take_member(path, std::string("/") + CORE_PLUGIN);
    if (!has_core || !take_member(CORE_PLUGIN, member))
        return folder.is_full() ? AGENT_ERR_IMAGE_SPACE : why_no_member(has_core ? CORE_PLUGIN : path.c_str());
    image.add_file_beside(open_regular_file(CORE_PLUGIN).get());
    return read_packed(("." + member).c_str(), image);
}

// The row of the flash that is programmed; null when no BIOS is known for the card. Supervisors of one kind take
// their own rows for every card. The table itself is read: the daemon's way to it writes lines into the card's log
// and history.
const bios_flash_entry *row_of(std::uint32_t card_id)
{
    const std::uint32_t own_id = inventory_value(chassis_own_slot(), "card_id");
    const std::uint32_t family = get_sw_card_family(is_tarvik_a_supervisor(own_id) ? own_id : card_id);
    const bios_flash_entry *const end = bios_flash_entry_tbl + max_bios_id_entries;
    const auto *found = std::find_if(bios_flash_entry_tbl, end, [family](const bios_flash_entry &row) {
        return row.sw_card_id == family && row.flash_type != 0;
    });
    return found != end ? found : nullptr;
}

// How large an image may be: an own one fits the own flash, those of other cards any.
std::uint64_t image_bytes_max(const bios_flash_entry &row)
{
    if (row.sw_card_id == get_sw_card_family(inventory_value(chassis_own_slot(), "card_id"))) {
        if (const auto flash = flash_device::open(row.flash_instance, flash_access::read); flash)
            return flash->geometry().size_bytes;
    }
    return AGENT_IMAGE_BYTES_MAX;
}

agent_status read_by_uri(const char *uri, const char *member, unpacked_image &image)
{
    char buffer[URI_MAPPED_PATH_BYTES];
    const char *path = uri_map_targetfs_path_get(uri, buffer);
    return path != nullptr ? read_from_system_image(path, member, image) : AGENT_ERR_IMAGE_URI;
}

agent_status read_plain(const char *path, unpacked_image &image)
{
    const unique_fd file = open_regular_file(path);
    return file ? read_all(file.get(), image) : AGENT_ERR_IMAGE_FILE;
}

agent_status read_image(const agent_image_req_t &request, const bios_flash_entry &row, unpacked_image &image)
{
    switch (request.source.load()) {
    case AGENT_IMAGE_OF_TREE:
        return read_packed(row.src_path, image);
    case AGENT_IMAGE_OF_URI:
        return read_by_uri(field_text(request.uri).text, row.src_path, image);
    case AGENT_IMAGE_READY:
        return read_plain(row.tmp_path, image);
    default:
        return AGENT_ERR_REQUEST;
    }
}

} // namespace

answer image_answer(const agent_image_req_t &request)
{
    const bios_flash_entry *row = row_of(request.card_id.load() & 0xffff);
    if (row == nullptr)
        return AGENT_ERR_IMAGE_CARD;
    unpacked_image unpacked(image_bytes_max(*row), request.with_signature.load() != 0);
    if (const agent_status status = read_image(request, *row, unpacked); status != AGENT_OK)
        return status;
    if (unpacked.is_empty())
        return AGENT_ERR_IMAGE_EMPTY;
    agent_image_t told = unpacked.told();
    if (request.source.load() != AGENT_IMAGE_READY)
        told.missing_bytes = be64::of(missing_room(row->tmp_path, unpacked.files()));
    answer image;
    image.add(told);
    return image;
}

void remove_unpacked_leftovers()
{
    std::error_code ignored;
    for (const fs::directory_entry &entry : fs::directory_iterator(WORK_FOLDER, ignored)) {
        if (entry.path().filename().string().starts_with(WORK_PREFIX))
            fs::remove_all(entry.path(), ignored);
    }
}
