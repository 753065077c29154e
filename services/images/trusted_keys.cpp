#include "trusted_keys.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>

#include "card_file.h"
#include "chassis_dir.h"
#include "unique_fd.h"

namespace
{

// Names of the key files, in order. false with errno; without the folder there are none.
bool list_key_files(const std::string &folder, std::vector<std::string> &names_out)
{
    const auto close = [](DIR *one) { ::closedir(one); };
    unique_fd fd(::openat(chassis_dir_fd(), folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const std::unique_ptr<DIR, decltype(close)> entries(fd ? ::fdopendir(fd.get()) : nullptr, close);
    if (!entries)
        return false;
    (void)fd.release(); // the stream's
    while (const dirent *entry = ::readdir(entries.get())) {
        if (const std::string_view name = entry->d_name; name.ends_with(PUBLIC_KEY_SUFFIX))
            names_out.emplace_back(name);
    }
    std::sort(names_out.begin(), names_out.end());
    return true;
}

bool load_key(const std::string &name, trusted_keys &keys, std::string &problem_out)
{
    std::string text;
    if (read_card_file(name, text, problem_out) != card_file_state::read) {
        if (problem_out.empty())
            problem_out = name + ": was removed just now";
        return false;
    }
    const auto key = signing_key_parse(text, PUBLIC_KEY_KIND);
    if (!key) {
        problem_out = name + ": is not a public key";
        return false;
    }
    keys.keys.push_back(*key);
    return true;
}

bool load_revoked(trusted_keys &keys, std::string &problem_out)
{
    std::string text;
    switch (read_card_file(REVOKED_KEYS_FILE, text, problem_out)) {
    case card_file_state::absent:
        return true;
    case card_file_state::unusable:
        return false;
    case card_file_state::read:
        break;
    }
    if (revoked_keys_parse(text, keys.revoked, problem_out))
        return true;
    problem_out = std::string(REVOKED_KEYS_FILE) + ": " + problem_out;
    return false;
}

} // namespace

bool trusted_keys_load(trusted_keys &keys_out, std::string &problem_out)
{
    const std::string folder = chassis_slot_path(chassis_own_slot(), SIGNING_KEYS_FOLDER);
    std::vector<std::string> names;
    if (!list_key_files(folder, names)) {
        if (errno == ENOENT) {
            keys_out = {};
            return true;
        }
        problem_out = std::string(SIGNING_KEYS_FOLDER) + ": " + std::strerror(errno);
        return false;
    }
    if (const std::string problem = chassis_folder_problem(folder); !problem.empty()) {
        problem_out = std::string(SIGNING_KEYS_FOLDER) + ": " + problem;
        return false;
    }
    if (names.size() > SIGNING_KEYS_MAX) {
        problem_out = SIGNING_KEYS_FOLDER;
        problem_out += ": holds more keys than " + std::to_string(SIGNING_KEYS_MAX);
        return false;
    }
    trusted_keys keys;
    for (const std::string &name : names) {
        if (!load_key(std::string(SIGNING_KEYS_FOLDER) + "/" + name, keys, problem_out))
            return false;
    }
    if (!load_revoked(keys, problem_out))
        return false;
    keys_out = std::move(keys);
    return true;
}
