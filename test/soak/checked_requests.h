// Requests of every quick kind, and whether what came back is what the request has to be answered with.
//
// The chassis: an active supervisor in slot 1 and a standby supervisor in slot 2, which are programmed meanwhile
// with one of two images; in slot 3 a stand-in that answers in the short form, in slot 4 one in the full form;
// nothing in slot 9.
#pragma once

#include <cstdint>
#include <random>
#include <string>

#include "requester.h"
#include "test_images.h"

constexpr unsigned ACTIVE = 1;
constexpr unsigned STANDBY = 2;
constexpr unsigned SHORT_ANSWERS = 3;
constexpr unsigned FULL_ANSWERS = 4;
constexpr unsigned EMPTY_SLOT = 9;

enum class request_end {
    served,
    refused, // for a reason that the daemon's documents name for such a request
    wrong,   // another answer than it has to be, or a refusal without such a reason
    lost,    // no answer
};

class checked_requests
{
public:
    // loader, ks: the files that the active supervisor hands out
    checked_requests(std::uint32_t seed, std::string loader, std::string ks);

    // Makes a request of a kind that chance picks. what_out: when it is wrong or lost, what it was and what came.
    request_end ask_one(std::string &what_out);

private:
    request_end ask_module(unsigned module, std::string &what_out);
    request_end ask_own_or_standby(unsigned module, std::string &what_out);
    request_end ask_card_version(std::string &what_out);
    request_end ask_unknown(std::string &what_out);
    request_end ask_lock(std::string &what_out);
    request_end ask_file(std::uint32_t opcode, const std::string &file, std::string &what_out);
    request_reply ask(unsigned slot, std::uint32_t opcode, const std::string &body);
    static request_end judged(const request_reply &reply, bool right, const std::string &asked,
                              std::string &what_out);

    std::mt19937 random_;
    requester requester_;
    std::string loader_;
    std::string ks_;
};
