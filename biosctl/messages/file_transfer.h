// Files to and from the agents of the cards, in pieces (agent_messages.h). A piece that is lost on its way is sent
// or asked for again; an agent that does not answer ends the transfer.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent_answers.h"
#include "agent_messages.h"

// How a transfer has ended: well, or for one reason.
struct transfer_outcome {
    std::uint32_t status = AGENT_OK; // of the agent's answer, as of agent_status
    int request_error = 0;           // errno: a request was not answered; EPROTO: not as it should be
    int file_error = 0;              // errno of the local file

    bool is_done() const { return status == AGENT_OK && request_error == 0 && file_error == 0; }
};

// Each asks the agent of one card; node is that of the card's daemon.

// Has the card keep a copy of a local file under a name, in the place of one that it keeps under this name.
transfer_outcome send_file(std::uint32_t node, const std::string &path, const std::string &name);

// Writes what a flash, or a file that was delivered to the card, holds into a local file: beside its place, and
// there only when it is whole and the digest right.
//   overwrite  a file that is there is replaced; else file_error is EEXIST
transfer_outcome fetch_flash(std::uint32_t node, unsigned instance, const std::string &path, bool overwrite);
transfer_outcome fetch_file(std::uint32_t node, const std::string &name, const std::string &path, bool overwrite);

transfer_outcome remove_file(std::uint32_t node, const std::string &name);

// The files that were delivered to the card; none when its agent does not answer.
std::optional<std::vector<delivered_file>> ask_for_files(std::uint32_t node);
