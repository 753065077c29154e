#include "tipc_names.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <iterator>

namespace
{

using proof_words = std::array<std::uint32_t, TIPC_PROOF_WORDS>;

constexpr char PURPOSE[] = "bios_daemon socket"; // no other code of the key is of such bytes

proof_words proof_of(tipc_socket_id id, const shared_key &key)
{
    hmac_sha256 code(key);
    code.add(PURPOSE, sizeof PURPOSE);
    code.add(&id, sizeof id);
    const sha256_digest digest = code.code();
    proof_words words;
    std::memcpy(words.data(), digest.data(), sizeof words);
    return words;
}

tipc_range word_range(const proof_words &words, std::uint32_t place)
{
    return {TIPC_PROOF_TYPE + place, words[place], words[place]};
}

bool has(const std::vector<tipc_publication> &publications, tipc_socket_id socket)
{
    return std::ranges::any_of(publications, [socket](const auto &each) { return each.socket == socket; });
}

// Which of the sockets have published the words of their proofs from a place to another one.
bool keep_with_words(std::vector<tipc_socket_id> &sockets, const shared_key &key, std::uint32_t first,
                     std::uint32_t end)
{
    std::vector<tipc_range> ranges;
    for (const tipc_socket_id socket : sockets) {
        const proof_words words = proof_of(socket, key);
        for (std::uint32_t place = first; place < end; ++place)
            ranges.push_back(word_range(words, place));
    }
    const auto found = find_publications(ranges);
    if (!found)
        return false;
    std::vector<tipc_socket_id> kept;
    auto words = found->begin();
    for (const tipc_socket_id socket : sockets) {
        const auto next = words + (end - first);
        if (std::all_of(words, next, [socket](const auto &each) { return has(each, socket); }))
            kept.push_back(socket);
        words = next;
    }
    sockets = std::move(kept);
    return true;
}

} // namespace

bool publish_proof(int socket, const shared_key &key)
{
    tipc_socket_id id;
    if (!tipc_own_id(socket, id))
        return false;
    const proof_words words = proof_of(id, key);
    for (std::uint32_t place = 0; place < TIPC_PROOF_WORDS; ++place) {
        if (!tipc_bind(socket, {TIPC_PROOF_TYPE + place, words[place]}))
            return false;
    }
    return tipc_bind(socket, {TIPC_TIME_TYPE, static_cast<std::uint32_t>(std::time(nullptr))});
}

std::int64_t made_at_s(tipc_socket_id socket)
{
    const tipc_range times[] = {{TIPC_TIME_TYPE, 0, UINT32_MAX}};
    const auto found = find_publications(times);
    if (!found)
        return 0;
    const auto own =
        std::ranges::find_if(found->front(), [socket](const auto &each) { return each.socket == socket; });
    return own != found->front().end() ? own->instance : 0;
}

std::optional<std::vector<tipc_publication>> proved(const std::vector<tipc_publication> &publications,
                                                    const shared_key &key)
{
    std::vector<tipc_socket_id> sockets;
    for (const tipc_publication &each : publications)
        sockets.push_back(each.socket);
    std::ranges::sort(sockets);
    sockets.erase(std::unique(sockets.begin(), sockets.end()), sockets.end());
    // Few that have no proof have its first word.
    if (!keep_with_words(sockets, key, 0, 1) || !keep_with_words(sockets, key, 1, TIPC_PROOF_WORDS))
        return std::nullopt;
    std::vector<tipc_publication> kept;
    std::ranges::copy_if(publications, std::back_inserter(kept), [&sockets](const tipc_publication &each) {
        return std::ranges::binary_search(sockets, each.socket);
    });
    return kept;
}

std::optional<std::vector<tipc_publication>> find_proved(const tipc_range &range, const shared_key &key)
{
    const tipc_range ranges[] = {range};
    const auto found = find_publications(ranges);
    return found ? proved(found->front(), key) : std::nullopt;
}
