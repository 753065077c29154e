// Image and loader files.
//
// An image URI is "bootflash:" and a name on the boot flash ("bootflash:NAME", "bootflash:/NAME",
// "bootflash:///NAME"), or "file://" and an absolute path. Only names in their plain form are mapped: no empty
// component, no "." or "..", no control characters.
#include "image_files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "loader_file.h"
#include "regular_file.h"
#include "unique_fd.h"

namespace
{

constexpr std::string_view BOOTFLASH_SCHEME = "bootflash:";
constexpr std::string_view BOOTFLASH_FOLDER = "/bootflash/";
constexpr std::string_view FILE_SCHEME = "file:///";

bool is_control(char character)
{
    const auto code = static_cast<unsigned char>(character);
    return code < 0x20 || code == 0x7f;
}

// One or more components, parted by single slashes.
bool is_plain_name(std::string_view name)
{
    if (std::any_of(name.begin(), name.end(), is_control))
        return false;
    for (;;) {
        const std::string_view component = name.substr(0, name.find('/'));
        if (component.empty() || component == "." || component == "..")
            return false;
        if (component.size() == name.size())
            return true;
        name.remove_prefix(component.size() + 1);
    }
}

// Path for a URI, empty when it cannot be mapped.
std::string path_of_uri(std::string_view uri)
{
    std::string_view folder = "/";
    if (uri.starts_with(FILE_SCHEME)) {
        uri.remove_prefix(FILE_SCHEME.size());
    } else if (uri.starts_with(BOOTFLASH_SCHEME)) {
        folder = BOOTFLASH_FOLDER;
        uri.remove_prefix(BOOTFLASH_SCHEME.size());
        if (uri.starts_with("///"))
            uri.remove_prefix(3);
        else if (uri.starts_with("/"))
            uri.remove_prefix(1);
    } else {
        return {};
    }
    return is_plain_name(uri) ? std::string(folder).append(uri) : std::string();
}

// Reads until length bytes are there or the file ends. Bytes read, or -1 with errno.
ssize_t read_up_to(int fd, char *destination, std::size_t length)
{
    std::size_t done = 0;
    while (done < length) {
        const ssize_t got = ::read(fd, destination + done, length - done);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return -1;
        if (got == 0)
            break;
        done += static_cast<std::size_t>(got);
    }
    return static_cast<ssize_t>(done);
}

} // namespace

char *uri_map_targetfs_path_get(const char *uri, char *out_buffer)
try {
    if (uri == nullptr || out_buffer == nullptr)
        return nullptr;
    // Complete before the first byte is stored: the two texts are neighbours in a request.
    const std::string path = path_of_uri(uri);
    if (path.empty() || path.size() >= URI_MAPPED_PATH_BYTES)
        return nullptr;
    std::memcpy(out_buffer, path.c_str(), path.size() + 1);
    return out_buffer;
} catch (const std::exception &) {
    return nullptr;
}

const char *srg_sw_interim_ver_file_get(const char *path)
{
    static char version[LOADER_VERSION_CHARACTERS + 1];
    if (path == nullptr)
        return nullptr;
    const unique_fd file = open_regular_file(path);
    if (!file)
        return nullptr;
    char head[LOADER_HEAD_BYTES];
    const ssize_t head_bytes = read_up_to(file.get(), head, sizeof head);
    if (head_bytes < 0)
        return nullptr;
    const std::string_view text = loader_version_in({head, static_cast<std::size_t>(head_bytes)});
    if (text.empty())
        return nullptr;
    std::memcpy(version, text.data(), text.size());
    version[text.size()] = '\0';
    return version;
}

int32_t srg_file_clone(void *destination, const char *path, uint32_t length)
{
    if (path == nullptr || (destination == nullptr && length > 0))
        return EINVAL;
    const unique_fd file = open_regular_file(path);
    if (!file)
        return errno;
    std::size_t done = 0;
    while (done < length) {
        // In pieces: on the 32-bit target a count of 2 GiB does not fit the result of a read.
        const std::size_t piece = std::min<std::size_t>(length - done, std::size_t{1} << 30);
        const ssize_t got = read_up_to(file.get(), static_cast<char *>(destination) + done, piece);
        if (got < 0)
            return errno;
        if (static_cast<std::size_t>(got) < piece)
            return EIO;
        done += piece;
    }
    return 0;
}
