#include "signing_key.h"

#include <algorithm>

#include "hex_text.h"
#include "text_lines.h"

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
