// A module whose daemon the test plays: it has the daemon's endpoint of a card on which nothing runs
// (card_plan::serves is false), takes what a supervisor sends there, and answers what the test wants.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "mts.h"

class played_module
{
public:
    played_module(const std::string &chassis_directory, unsigned slot);
    ~played_module();
    played_module(const played_module &) = delete;
    played_module &operator=(const played_module &) = delete;

    // Waits for the next message with the opcode; others are dropped. false when it did not come in time.
    bool await_request(std::uint32_t opcode, std::chrono::seconds patience = std::chrono::seconds(60));

    // Of that request.
    std::string header() const; // the platform's, before the body
    std::string body() const;
    mts_address_t asker() const { return asker_; }

    void answer(std::uint32_t status);

    // To the last request's asker. false with errno when it has no endpoint any more.
    [[nodiscard]] bool send(std::uint32_t opcode, const std::string &payload);
    [[nodiscard]] bool send_end(std::uint32_t result); // of a programming

    void leave(); // the endpoint is gone, and what it had not answered is never answered

private:
    void forget_request();

    std::int32_t handle_;
    mts_message_t *request_ = nullptr;
    mts_address_t asker_ = {};
};
