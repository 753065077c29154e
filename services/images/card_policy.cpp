#include "card_policy.h"

#include <algorithm>
#include <iterator>

#include "agent_messages.h"
#include "card_file.h"
#include "harmless_path.h"
#include "text_lines.h"

namespace
{

struct choice_key {
    std::string_view name;
    std::string_view when_true;
    std::string_view when_false;
    bool card_policy::*member;
};

constexpr choice_key CHOICES[] = {
    {"signed", "required", "optional", &card_policy::signature_required},
    {"orders", "required", "optional", &card_policy::order_required},
    {"no_version", "refuse", "pass", &card_policy::refuses_no_version},
    {"older", "refuse", "pass", &card_policy::refuses_older},
    {"smaller", "refuse", "pass", &card_policy::refuses_smaller},
};
constexpr std::string_view FOLDERS_KEY = "loader_folders";

bool is_folder_path(const std::string &path)
{
    if (path.size() < 2 || path.front() != '/' || path.back() == '/' || !is_harmless_path(path.c_str()))
        return false;
    const std::string closed = path + "/";
    return closed.find("//") == std::string::npos && closed.find("/./") == std::string::npos &&
           closed.find("/../") == std::string::npos;
}

bool set_folders(std::string_view value, card_policy &policy, std::string &problem)
{
    policy.loader_folders.clear();
    while (!value.empty()) {
        const std::size_t end = std::min(value.find_first_of(" \t"), value.size());
        const std::string folder(value.substr(0, end));
        if (!is_folder_path(folder)) {
            problem = "not an absolute path of a folder: " + folder;
            return false;
        }
        policy.loader_folders.push_back(folder);
        value = trimmed(value.substr(end));
    }
    return true;
}

// Sets one key. false with the problem.
bool set_key(std::string_view key, std::string_view value, card_policy &policy, std::string &problem)
{
    if (key == FOLDERS_KEY)
        return set_folders(value, policy, problem);
    const auto *choice = std::find_if(std::begin(CHOICES), std::end(CHOICES),
                                      [key](const choice_key &one) { return one.name == key; });
    if (choice == std::end(CHOICES)) {
        problem = "unknown key: " + std::string(key);
        return false;
    }
    if (value != choice->when_true && value != choice->when_false) {
        problem = std::string(key) + " is " + std::string(choice->when_true) + " or " +
                  std::string(choice->when_false) + ", not: " + std::string(value);
        return false;
    }
    policy.*choice->member = value == choice->when_true;
    return true;
}

} // namespace

bool card_policy::passes_signature(std::uint32_t agent_status) const
{
    if (agent_status == AGENT_ERR_NOT_SIGNED || agent_status == AGENT_ERR_KEY_UNKNOWN)
        return !signature_required;
    return agent_status == AGENT_OK;
}

bool card_policy_parse(std::string_view text, card_policy &policy_out, std::string &problem_out)
{
    card_policy policy;
    std::vector<std::string_view> seen;
    const bool is_understood = each_line(text, [&](unsigned number, std::string_view line) {
        const std::size_t sign = line.find('=');
        std::string problem;
        const std::string_view key = trimmed(line.substr(0, std::min(sign, line.size())));
        if (sign == std::string_view::npos)
            problem = "not of the form key = value";
        else if (std::find(seen.begin(), seen.end(), key) != seen.end())
            problem = "the key is there twice: " + std::string(key);
        else
            (void)set_key(key, trimmed(line.substr(sign + 1)), policy, problem);
        seen.push_back(key);
        if (!problem.empty())
            problem_out = "line " + std::to_string(number) + ": " + problem;
        return problem.empty();
    });
    if (is_understood)
        policy_out = policy;
    return is_understood;
}

bool card_policy_load(card_policy &policy_out, std::string &problem_out)
{
    std::string text;
    switch (read_card_file(CARD_POLICY_FILE, text, problem_out)) {
    case card_file_state::absent:
        policy_out = {};
        return true;
    case card_file_state::unusable:
        return false;
    case card_file_state::read:
        break;
    }
    if (card_policy_parse(text, policy_out, problem_out))
        return true;
    problem_out = std::string(CARD_POLICY_FILE) + ": " + problem_out;
    return false;
}
