// The host's way into a card that is a machine: requests to the agent that the emulator's makers have for this,
// over a port of the machine that is a socket here.
//
// The port serves one connection at a time; others wait until it is free. So a caller who waits for something in
// the machine lets go of the connection meanwhile.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "unique_fd.h"

class guest_error : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

class guest_channel
{
public:
    //   socket_path  the port's socket
    //   limit_us     how long the machine may take from now on, all calls together
    guest_channel(std::string socket_path, std::int64_t limit_us);

    // Asks, and waits for the answer. Throws guest_error when the machine does not answer in time, cannot be
    // reached, or answers that it failed.
    nlohmann::json call(const std::string &name, const nlohmann::json &arguments = nlohmann::json::object());

    // Others may ask; the next call connects again.
    void release() { connection_.reset(); }
    [[nodiscard]] bool time_is_up() const;

private:
    void connect();
    void synchronize();
    void send(const nlohmann::json &request, const std::string &before = {});
    std::string receive_line();
    void wait_for(short events) const;

    std::string socket_path_;
    std::int64_t deadline_us_;
    unique_fd connection_;
    std::string received_; // behind the last line
};
