#include "signing_keys.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>

#include "card_file.h"
#include "chassis_dir.h"
#include "hex_text.h"
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

image_key_id signing_key_id(const signing_key &public_key)
{
    sha256 sum;
    sum.add(public_key.data(), public_key.size());
    const sha256_digest digest = sum.digest();
    image_key_id id;
    std::copy_n(digest.begin(), id.size(), id.begin());
    return id;
}

std::string signing_key_id_text(const image_key_id &id)
{
    return hex_text(id);
}

std::optional<signing_key> signing_key_parse(std::string_view text, std::string_view kind)
{
    std::optional<signing_key> found;
    const bool is_understood = each_line(text, [&](unsigned, std::string_view line) {
        signing_key key;
        if (found || !line.starts_with(kind) || !parse_hex_text(trimmed(line.substr(kind.size())), key))
            return false;
        found = key;
        return true;
    });
    return is_understood ? found : std::nullopt;
}

std::string signing_key_format(const signing_key &key, std::string_view kind)
{
    return std::string(kind) + " " + hex_text(key) + "\n";
}

const signing_key *trusted_keys::find(const image_key_id &id) const
{
    const auto found =
        std::find_if(keys.begin(), keys.end(), [&id](const signing_key &key) { return signing_key_id(key) == id; });
    return found != keys.end() ? &*found : nullptr;
}

bool trusted_keys::is_revoked(const image_key_id &id) const
{
    return std::find(revoked.begin(), revoked.end(), id) != revoked.end();
}

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

bool revoked_keys_parse(std::string_view text, std::vector<image_key_id> &revoked_out, std::string &problem_out)
{
    std::vector<image_key_id> revoked;
    const bool is_understood = each_line(text, [&](unsigned number, std::string_view line) {
        image_key_id id;
        if (!parse_hex_text(line, id)) {
            problem_out = "line " + std::to_string(number) + ": not the id of a key: " + std::string(line);
            return false;
        }
        revoked.push_back(id);
        return true;
    });
    if (is_understood)
        revoked_out = std::move(revoked);
    return is_understood;
}
