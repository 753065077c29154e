// The seal of a datagram, and the key that it is made with.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <vector>

#include <gtest/gtest.h>

#include "chassis_key.h"
#include "sealed_datagram.h"
#include "temporary_folder.h"

namespace
{

using bytes = std::vector<std::uint8_t>;

constexpr tipc_socket_id FROM = {0x1001001, 17};
constexpr tipc_socket_id TO = {0x1001002, 18};
constexpr const char *KEY_TEXT = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";

shared_key key_of(std::uint8_t first)
{
    shared_key key{};
    key[0] = first;
    return key;
}

// A datagram as it goes over the wire.
bytes sealed(std::string piece, std::uint64_t number = 5, const shared_key &key = key_of(1))
{
    datagram_seal head{};
    head.kind = static_cast<std::uint32_t>(sealed_kind::piece);
    head.number = number;
    head.message_bytes = 100;
    head.offset = 7;
    const std::size_t half = piece.size() / 2;
    const iovec parts[] = {{piece.data(), half}, {nullptr, 0}, {piece.data() + half, piece.size() - half}};
    seal(head, parts, FROM, TO, key);
    bytes datagram(sizeof head);
    std::memcpy(datagram.data(), &head, sizeof head);
    datagram.insert(datagram.end(), piece.begin(), piece.end());
    return datagram;
}

bool is_opened(const bytes &datagram, tipc_socket_id from = FROM, tipc_socket_id to = TO)
{
    return open_seal(datagram, from, to, key_of(1)).has_value();
}

} // namespace

TEST(SealedDatagram, IsOpenedByItsReceiver)
{
    const bytes datagram = sealed("a piece");
    const auto seal = open_seal(datagram, FROM, TO, key_of(1));
    ASSERT_TRUE(seal);
    EXPECT_EQ(seal->number, 5U);
    EXPECT_EQ(seal->message_bytes, 100U);
    EXPECT_EQ(seal->offset, 7U);
    EXPECT_EQ(seal->piece_bytes, 7U);
    EXPECT_TRUE(is_opened(sealed("")));
    EXPECT_TRUE(is_opened(sealed(std::string(PIECE_BYTES_MAX, 'p'))));
    EXPECT_EQ(sealed(std::string(PIECE_BYTES_MAX, 'p')).size(), TIPC_MAX_USER_MSG_SIZE);
}

TEST(SealedDatagram, IsOpenedByNobodyElseAndFromNobodyElse)
{
    const bytes datagram = sealed("a piece");
    EXPECT_FALSE(is_opened(datagram, {FROM.node, FROM.ref + 1}));
    EXPECT_FALSE(is_opened(datagram, {FROM.node + 1, FROM.ref}));
    EXPECT_FALSE(is_opened(datagram, FROM, {TO.node, TO.ref + 1}));
    EXPECT_FALSE(is_opened(datagram, TO, FROM));
    EXPECT_FALSE(is_opened(sealed("a piece", 5, key_of(2))));
}

TEST(SealedDatagram, EachOfItsBitsIsSealed)
{
    bytes datagram = sealed("piece");
    for (std::size_t bit = 0; bit < 8 * datagram.size(); ++bit) {
        datagram[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
        EXPECT_FALSE(is_opened(datagram)) << bit;
        datagram[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
    }
    EXPECT_TRUE(is_opened(datagram));
}

TEST(SealedDatagram, IsWhole)
{
    bytes datagram = sealed("piece");
    datagram.push_back(0);
    EXPECT_FALSE(is_opened(datagram));
    while (!datagram.empty()) {
        datagram.pop_back();
        EXPECT_EQ(is_opened(datagram), datagram.size() == sizeof(datagram_seal) + 5) << datagram.size();
    }
}

namespace
{

class ChassisKey : public testing::Test
{
protected:
    void write(const std::string &text, mode_t mode = 0600) const
    {
        std::ofstream(path) << text;
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    }
    int failure() const
    {
        errno = 0;
        return read_chassis_key(path.c_str()) ? 0 : errno;
    }

    temporary_folder folder{"chassis-key"};
    std::string path = folder.path() + "/chassis.key";
};

} // namespace

TEST_F(ChassisKey, IsOfSixtyFourDigits)
{
    EXPECT_EQ(failure(), ENOENT);
    for (const char *end : {"", "\n"}) {
        write(std::string(KEY_TEXT) + end);
        const auto key = read_chassis_key(path.c_str());
        ASSERT_TRUE(key);
        EXPECT_EQ((*key)[0], 0U);
        EXPECT_EQ((*key)[31], 0x1fU);
    }
    for (const std::string &text : {std::string(), std::string(KEY_TEXT) + "0", std::string(KEY_TEXT).substr(1),
                                    std::string(KEY_TEXT) + "\n\n", "x" + std::string(KEY_TEXT).substr(1)}) {
        write(text);
        EXPECT_EQ(failure(), EINVAL) << text;
    }
}

TEST_F(ChassisKey, IsSecret)
{
    for (const mode_t mode : {0640, 0604, 0620, 0601, 0666}) {
        write(KEY_TEXT, mode);
        EXPECT_EQ(failure(), EACCES) << std::oct << mode;
    }
    write(KEY_TEXT, 0400);
    EXPECT_EQ(failure(), 0);
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0);
        EXPECT_EQ(failure(), EACCES) << "another user's";
    }
}

TEST_F(ChassisKey, IsARegularFile)
{
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(failure(), EACCES);
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    EXPECT_EQ(failure(), EACCES);
}
