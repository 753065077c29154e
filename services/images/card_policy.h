// What a card demands before it lets a flash be programmed or a file be removed. The file `policy` of the card's
// slot folder has lines "key = value", and comments behind a #:
//
//     key             values               without the line
//     signed          required | optional  optional
//     orders          required | optional  optional
//     no_version      pass | refuse        refuse
//     older           pass | refuse        pass
//     smaller         pass | refuse        pass
//     loader_folders  folders with blanks  /bootflash
//                     between them
//
// no_version, older and smaller are about programmings without an order: what is ordered is judged by its order.
// Without a file all is as without the lines. A file with anything else in it, or that others could have written,
// is a problem: nothing is programmed until somebody has mended it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

constexpr const char *CARD_POLICY_FILE = "policy";

struct card_policy {
    bool signature_required = false;
    bool order_required = false;
    bool refuses_no_version = true;
    bool refuses_older = false;
    bool refuses_smaller = false;
    std::vector<std::string> loader_folders = {"/bootflash"}; // absolute, without . and .. and a slash at the end

    bool operator==(const card_policy &) const = default;

    // Whether an image passes of whose signature the agent says this (a status of AGENT_OPC_VERIFY_IMAGE). Without
    // a demand, an image passes that is not signed, or by a key that the card does not know; a signature that is
    // wrong, a revoked key and a damaged manifest never pass, nor does an image that the agent could not check.
    bool passes_signature(std::uint32_t agent_status) const;
};

// Reads the policy of this card, anew at each call.
//   policy_out   the policy, or the one without a file
//   problem_out  a text for a person, when there is a problem: "policy: line 2: unknown key: sined"
// false when there is a problem; policy_out is not set then.
[[nodiscard]] bool card_policy_load(card_policy &policy_out, std::string &problem_out);

// The same of a text. problem_out: "line 2: unknown key: sined".
[[nodiscard]] bool card_policy_parse(std::string_view text, card_policy &policy_out, std::string &problem_out);
