#include "file_transfers.h"

#include <algorithm>
#include <cstring>

#include "flash_copy.h"
#include "monotonic_clock.h"

namespace
{

constexpr std::size_t ENDED_KEPT = 16;

bool is_same(mts_address_t one, mts_address_t other)
{
    return one.node == other.node && one.sap == other.sap;
}

bool is_same_file(const agent_file_t &one, const agent_file_t &other)
{
    return std::strcmp(one.name, other.name) == 0 && one.size_bytes.load() == other.size_bytes.load() &&
           std::ranges::equal(one.sha256, other.sha256);
}

answer begun(std::uint64_t id, std::uint64_t size_bytes)
{
    answer told;
    told.add(agent_transfer_t{be64::of(id), be64::of(size_bytes)});
    return told;
}

bool is_piece_length(std::size_t bytes)
{
    return bytes >= 1 && bytes <= AGENT_PIECE_BYTES;
}

} // namespace

file_transfers::file_transfers(transfer_surroundings around)
    : around_(std::move(around)),
      last_id_(around_.first_id)
{
}

answer file_transfers::begin_put(mts_address_t from, const agent_file_t &file)
{
    const auto name = delivered_name(file.name);
    if (!name)
        return AGENT_ERR_FILE_NAME;
    const std::uint64_t size_bytes = file.size_bytes.load();
    if (size_bytes == 0 || size_bytes > AGENT_FILE_BYTES_MAX)
        return AGENT_ERR_FILE_SIZE;
    const auto same = std::ranges::find_if(
        open_, [&](const transfer &one) { return one.way == direction::put && *name == one.file.name; });
    if (same != open_.end()) {
        if (!is_same(same->from, from))
            return AGENT_ERR_NAME_BUSY;
        if (same->done_bytes == 0 && is_same_file(same->file, file))
            return begun(same->id, size_bytes);
        open_.erase(same);
    }
    answer refusal;
    transfer *fresh = add_transfer(direction::put, from, size_bytes, refusal);
    if (fresh == nullptr)
        return refusal;
    fresh->file = file;
    store_text(fresh->file.name, name->c_str()); // nothing else behind it
    if (const agent_status status = fresh->arriving.make(fresh->id, size_bytes); status != AGENT_OK) {
        forget(*fresh);
        return status;
    }
    return begun(fresh->id, size_bytes);
}

answer file_transfers::put_piece(mts_address_t from, const agent_put_piece_t &piece,
                                 std::span<const std::uint8_t> bytes)
{
    transfer *open = find(direction::put, from, piece.transfer);
    if (open == nullptr)
        return piece_of_ended(direction::put, from, piece.transfer);
    if (!is_piece_length(bytes.size()))
        return AGENT_ERR_REQUEST;
    const std::uint64_t offset = piece.offset.load();
    if (offset == open->piece_offset && open->done_bytes - offset == bytes.size())
        return AGENT_OK; // the last one again
    if (offset != open->done_bytes || bytes.size() > open->size_bytes - offset)
        return AGENT_ERR_OFFSET;
    if (const agent_status status = open->arriving.add(offset, bytes); status != AGENT_OK)
        return end(*open, status);
    open->digest.add(bytes.data(), bytes.size());
    open->piece_offset = offset;
    open->done_bytes += bytes.size();
    return AGENT_OK;
}

answer file_transfers::end_put(mts_address_t from, const agent_transfer_req_t &request)
{
    transfer *open = find(direction::put, from, request.transfer);
    if (open == nullptr)
        return end_of_ended(direction::put, from, request.transfer);
    if (open->done_bytes != open->size_bytes)
        return end(*open, AGENT_ERR_INCOMPLETE);
    if (!std::ranges::equal(open->digest.digest(), open->file.sha256))
        return end(*open, AGENT_ERR_DIGEST);
    return end(*open, open->arriving.deliver(open->file));
}

answer file_transfers::begin_get_flash(mts_address_t from, const agent_flash_req_t &request)
{
    piece_source source;
    const agent_status opened = open_flash_copy(request.instance.load(), source);
    return begin_get(from, opened, std::move(source));
}

answer file_transfers::begin_get_file(mts_address_t from, const agent_file_req_t &request)
{
    const auto name = delivered_name(request.name);
    if (!name)
        return AGENT_ERR_FILE_NAME;
    piece_source source;
    const agent_status opened = open_delivered_file(*name, source);
    return begin_get(from, opened, std::move(source));
}

answer file_transfers::begin_get(mts_address_t from, agent_status opened, piece_source source)
{
    if (opened != AGENT_OK)
        return opened;
    const auto same = std::ranges::find_if(open_, [&](const transfer &one) {
        return one.way == direction::get && is_same(one.from, from) && one.source.subject == source.subject;
    });
    if (same != open_.end()) {
        if (same->done_bytes == 0)
            return begun(same->id, same->size_bytes);
        open_.erase(same);
    }
    answer refusal;
    transfer *fresh = add_transfer(direction::get, from, source.size_bytes, refusal);
    if (fresh == nullptr)
        return refusal;
    fresh->source = std::move(source);
    return begun(fresh->id, fresh->size_bytes);
}

answer file_transfers::get_piece(mts_address_t from, const agent_get_piece_t &piece)
{
    transfer *open = find(direction::get, from, piece.transfer);
    if (open == nullptr)
        return piece_of_ended(direction::get, from, piece.transfer);
    if (!is_piece_length(piece.bytes.load()))
        return AGENT_ERR_REQUEST;
    const std::uint64_t offset = piece.offset.load();
    const bool is_next = offset == open->done_bytes && offset < open->size_bytes;
    const bool is_again = open->done_bytes != 0 && offset == open->piece_offset;
    if (!is_next && !is_again)
        return AGENT_ERR_OFFSET;
    // The digest is of what was given last: a piece that is given again takes the place of the one before.
    if (is_again)
        open->digest = open->digest_before_piece;
    std::vector<std::uint8_t> bytes(
        static_cast<std::size_t>(std::min<std::uint64_t>(piece.bytes.load(), open->size_bytes - offset)));
    if (const agent_status status = open->source.read(offset, bytes.data(), bytes.size()); status != AGENT_OK)
        return end(*open, status);
    answer given;
    given.add_bytes(bytes.data(), bytes.size());
    open->digest_before_piece = open->digest;
    open->digest.add(bytes.data(), bytes.size());
    open->piece_offset = offset;
    open->done_bytes = offset + bytes.size();
    return given;
}

answer file_transfers::end_get(mts_address_t from, const agent_transfer_req_t &request)
{
    transfer *open = find(direction::get, from, request.transfer);
    if (open == nullptr)
        return end_of_ended(direction::get, from, request.transfer);
    if (open->done_bytes != open->size_bytes)
        return end(*open, AGENT_ERR_INCOMPLETE);
    const sha256_digest digest = open->digest.digest();
    if (const agent_status status = open->source.confirm(digest); status != AGENT_OK)
        return end(*open, status);
    answer told;
    told.add_bytes(digest.data(), digest.size());
    return end(*open, std::move(told));
}

void file_transfers::tick()
{
    const std::int64_t now_us = around_.now_us();
    if (open_.empty() || now_us < next_look_us_)
        return;
    next_look_us_ = now_us + SENDER_LOOK_US;
    open_.remove_if([&](const transfer &one) {
        return now_us - one.heard_us >= AGENT_TRANSFER_SILENCE_S * MICROSECONDS ||
               around_.peer_at(one.from) != one.sender;
    });
}

std::int64_t file_transfers::wait_limit_us() const
{
    return open_.empty() ? -1 : std::max<std::int64_t>(next_look_us_ - around_.now_us(), 0);
}

// Null, and why.
file_transfers::transfer *file_transfers::add_transfer(direction way, mts_address_t from, std::uint64_t size_bytes,
                                                       answer &refusal)
{
    const auto sender = around_.peer_at(from);
    if (open_.size() >= AGENT_TRANSFERS_MAX || !sender) {
        refusal = sender ? AGENT_ERR_TRANSFERS : AGENT_ERR_TRANSFER; // nobody is there to go on with it
        return nullptr;
    }
    const std::int64_t now_us = around_.now_us();
    if (open_.empty())
        next_look_us_ = now_us + SENDER_LOOK_US;
    transfer &fresh = open_.emplace_back();
    fresh.way = way;
    fresh.id = ++last_id_;
    fresh.from = from;
    fresh.sender = *sender;
    fresh.heard_us = now_us;
    fresh.size_bytes = size_bytes;
    return &fresh;
}

// Null when the sender has no such transfer; else it has been heard of.
file_transfers::transfer *file_transfers::find(direction way, mts_address_t from, be64 id)
{
    const auto found = std::ranges::find_if(open_, [&](const transfer &one) {
        return one.way == way && one.id == id.load() && is_same(one.from, from);
    });
    if (found == open_.end())
        return nullptr;
    found->heard_us = around_.now_us();
    return &*found;
}

const answer *file_transfers::find_ended(direction way, mts_address_t from, be64 id) const
{
    const auto found = std::ranges::find_if(ended_, [&](const ended_transfer &one) {
        return one.way == way && one.id == id.load() && is_same(one.from, from);
    });
    return found != ended_.end() ? &found->last : nullptr;
}

// A piece may have ended its transfer, and the answer that said why be lost.
answer file_transfers::piece_of_ended(direction way, mts_address_t from, be64 id) const
{
    const answer *last = find_ended(way, from, id);
    return last != nullptr && last->status() != AGENT_OK ? *last : AGENT_ERR_TRANSFER;
}

answer file_transfers::end_of_ended(direction way, mts_address_t from, be64 id) const
{
    const answer *last = find_ended(way, from, id);
    return last != nullptr ? *last : AGENT_ERR_TRANSFER;
}

void file_transfers::forget(const transfer &which)
{
    open_.remove_if([&](const transfer &one) { return &one == &which; });
}

answer file_transfers::end(transfer &which, answer last)
{
    ended_.push_back({which.way, which.id, which.from, last});
    if (ended_.size() > ENDED_KEPT)
        ended_.pop_front();
    forget(which);
    return last;
}
