// The files by which a card says what it demands: its policy, its keys, the keys that were revoked. A text that is
// not understood changes nothing and has a problem; what is understood is what stands there.
//
//   kind (1 byte): 0 the policy, 1 a key file, 2 the revoked keys | text
#include <algorithm>
#include <string>

#include "card_policy.h"
#include "fuzz_input.h"
#include "signing_key.h"

namespace
{

void try_policy(const std::string &text)
{
    card_policy policy;
    policy.loader_folders = {"as before"};
    const card_policy before = policy;
    std::string problem;
    if (!card_policy_parse(text, policy, problem)) {
        require(policy == before, "what is not understood changes nothing");
        require(problem.starts_with("line "), "a problem has its line");
        return;
    }
    require(problem.empty(), "what is understood is no problem");
    for (const std::string &folder : policy.loader_folders) {
        require(folder.size() > 1 && folder.front() == '/' && folder.back() != '/', "a folder is an absolute path");
        require((folder + "/").find("/../") == std::string::npos, "a folder is where it says");
    }
    require(!policy.signature_required || text.find("required") != std::string::npos, "demands are written down");
}

void try_key(const std::string &text)
{
    const auto key = signing_key_parse(text, PUBLIC_KEY_KIND);
    require(!signing_key_parse(text, SECRET_KEY_KIND) || !key, "a key is of one kind");
    if (key)
        require(text.find(signing_key_format(*key, "").substr(1, 64)) != std::string::npos, "a key is in its file");
}

void try_revoked(const std::string &text)
{
    std::vector<image_key_id> revoked = {image_key_id{1}};
    std::string problem;
    if (!revoked_keys_parse(text, revoked, problem)) {
        require(revoked.size() == 1 && !problem.empty(), "what is not understood changes nothing");
        return;
    }
    for (const image_key_id &id : revoked)
        require(text.find(signing_key_id_text(id)) != std::string::npos, "an id is in its file");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_input input(data, size);
    const std::uint8_t kind = input.byte() % 3;
    const auto rest = input.rest();
    const std::string text(rest.begin(), rest.end());
    if (kind == 0)
        try_policy(text);
    else if (kind == 1)
        try_key(text);
    else
        try_revoked(text);
    return 0;
}
