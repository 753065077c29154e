// The transfers of files that are under way between this card and others: deliveries to the card and copies from
// it, a piece a request (agent_messages.h). Nothing of a file is kept in memory beyond its digest so far.
//
// Nothing here waits: a request comes in, an answer goes out. A transfer whose sender has ended, or is silent for
// AGENT_TRANSFER_SILENCE_S, is given up by tick.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <optional>
#include <span>

#include "answer.h"
#include "datagram_driver.h"
#include "delivered_files.h"
#include "piece_source.h"

constexpr std::int64_t SENDER_LOOK_US = 200'000; // between two looks at the senders, while transfers are open

// What the transfers need around them.
struct transfer_surroundings {
    std::uint64_t first_id = 1; // random: no transfer of the agent before this one has had those that follow
    std::function<std::int64_t()> now_us;
    std::function<std::optional<datagram_peer>(mts_address_t)> peer_at; // the living process that has an address
};

class file_transfers
{
public:
    explicit file_transfers(transfer_surroundings around);

    // The requests. from: the endpoint that asks.
    answer begin_put(mts_address_t from, const agent_file_t &file);
    answer put_piece(mts_address_t from, const agent_put_piece_t &piece, std::span<const std::uint8_t> bytes);
    answer end_put(mts_address_t from, const agent_transfer_req_t &request);
    answer begin_get_flash(mts_address_t from, const agent_flash_req_t &request);
    answer begin_get_file(mts_address_t from, const agent_file_req_t &request);
    answer get_piece(mts_address_t from, const agent_get_piece_t &piece);
    answer end_get(mts_address_t from, const agent_transfer_req_t &request);

    // Gives up what nobody goes on with. To be called before each request and when the time has come.
    void tick();

    // Microseconds until tick has something to do; -1: not before a request comes.
    std::int64_t wait_limit_us() const;

private:
    enum class direction : std::uint8_t { put, get };

    struct transfer {
        direction way = direction::put;
        std::uint64_t id = 0;
        mts_address_t from{};
        datagram_peer sender;      // the process at from
        std::int64_t heard_us = 0; // of the sender, for the last time
        std::uint64_t size_bytes = 0;
        std::uint64_t done_bytes = 0;
        std::uint64_t piece_offset = 0; // of the last piece
        sha256 digest;
        sha256 digest_before_piece;
        agent_file_t file{}; // what is put, and where it arrives
        partial_file arriving;
        piece_source source; // of what is got
    };
    // How a transfer has ended, for a sender that has lost the answer.
    struct ended_transfer {
        direction way;
        std::uint64_t id;
        mts_address_t from;
        answer last;
    };

    answer begin_get(mts_address_t from, agent_status opened, piece_source source);
    transfer *add_transfer(direction way, mts_address_t from, std::uint64_t size_bytes, answer &refusal);
    transfer *find(direction way, mts_address_t from, be64 id);
    const answer *find_ended(direction way, mts_address_t from, be64 id) const;
    answer piece_of_ended(direction way, mts_address_t from, be64 id) const;
    answer end_of_ended(direction way, mts_address_t from, be64 id) const;
    void forget(const transfer &which);
    answer end(transfer &which, answer last);

    transfer_surroundings around_;
    std::list<transfer> open_;
    std::deque<ended_transfer> ended_;
    std::uint64_t last_id_;
    std::int64_t next_look_us_ = 0;
};
