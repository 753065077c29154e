#include "sealed_datagram.h"

#include <cstring>

namespace
{

constexpr char PURPOSE[] = "bios_daemon datagram"; // no other code of the key is of such bytes

sha256_digest code_of(const datagram_seal &seal, tipc_socket_id from, tipc_socket_id to, const shared_key &key)
{
    hmac_sha256 code(key);
    code.add(PURPOSE, sizeof PURPOSE);
    code.add(&from, sizeof from);
    code.add(&to, sizeof to);
    code.add(&seal, offsetof(datagram_seal, code));
    return code.code();
}

} // namespace

void seal(datagram_seal &seal, std::span<const iovec> piece, tipc_socket_id from, tipc_socket_id to,
          const shared_key &key)
{
    sha256 digest;
    std::size_t bytes = 0;
    for (const iovec &part : piece) {
        digest.add(part.iov_base, part.iov_len);
        bytes += part.iov_len;
    }
    seal.magic = SEAL_MAGIC;
    seal.piece_bytes = static_cast<std::uint32_t>(bytes);
    seal.digest = digest.digest();
    seal.code = code_of(seal, from, to, key);
}

std::optional<datagram_seal> open_seal(std::span<const std::uint8_t> datagram, tipc_socket_id from,
                                       tipc_socket_id to, const shared_key &key)
{
    datagram_seal seal;
    if (datagram.size() < sizeof seal)
        return std::nullopt;
    std::memcpy(&seal, datagram.data(), sizeof seal);
    if (seal.magic != SEAL_MAGIC || seal.piece_bytes != datagram.size() - sizeof seal ||
        !are_equal_codes(seal.code, code_of(seal, from, to, key)))
        return std::nullopt;
    sha256 digest;
    digest.add(datagram.data() + sizeof seal, seal.piece_bytes);
    if (!are_equal_codes(seal.digest, digest.digest()))
        return std::nullopt;
    return seal;
}
