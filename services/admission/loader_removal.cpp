#include "loader_removal.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

#include "bios_messages.h"
#include "bios_results.h"
#include "card_policy.h"
#include "text_field.h"

namespace
{

// A folder's name without links, dots and doubled slashes; empty when there is no such folder.
std::string real_folder(const std::string &path)
{
    char resolved[PATH_MAX];
    return ::realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : std::string();
}

bool is_below(const std::string &folder, const std::string &top)
{
    return folder == top || (folder.starts_with(top) && (top == "/" || folder[top.size()] == '/'));
}

bool is_removable(const char *path)
{
    card_policy policy;
    std::string problem;
    return card_policy_load(policy, problem) && is_file_below(path, policy.loader_folders);
}

} // namespace

bool is_file_below(const std::string &path, const std::vector<std::string> &folders)
{
    const std::size_t slash = path.rfind('/');
    if (!path.starts_with('/') || slash + 1 == path.size())
        return false;
    const std::string folder = real_folder(path.substr(0, slash + 1));
    const std::string file = folder + path.substr(slash);
    struct stat status {
    };
    if (folder.empty() || ::lstat(file.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    return std::any_of(folders.begin(), folders.end(), [&](const std::string &one) {
        const std::string top = real_folder(one);
        return !top.empty() && is_below(folder, top);
    });
}

std::optional<refusal> admit_loader(std::int32_t, mts_message_t *message)
{
    static constexpr bios_install_loader_reply_t REPLY = {};
    bios_install_loader_req_t request;
    std::memcpy(&request, static_cast<const std::uint8_t *>(mts_payload_get(message)) + MTS_REQUEST_HEADER_BYTES,
                sizeof request);
    if (request.remove_image.load() == 0 || is_removable(field_text(request.image_path).text))
        return std::nullopt;
    return refusal{BIOS_ERR_URI, &REPLY, sizeof REPLY};
}
