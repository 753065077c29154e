// SHA-256 against published values and against another implementation.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "flash_fixture.h"
#include "sha256.h"

namespace
{

template<class Sum = sha256>
std::string digest_of(const std::string &message)
{
    Sum sum;
    sum.add(message.data(), message.size());
    return sha256_text(sum.digest());
}

// The examples of FIPS 180-4's publisher.
template<class Sum>
void expect_published_values()
{
    EXPECT_EQ(digest_of<Sum>(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(digest_of<Sum>("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(digest_of<Sum>("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(digest_of<Sum>(std::string(1'000'000, 'a')),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

// As on a processor without instructions for it.
struct plain_rounds : sha256_rounds {
    void take_block(const std::array<std::uint32_t, 16> &words) { take_block_plainly(words); }
};

} // namespace

TEST(Sha256, HasThePublishedValues)
{
    expect_published_values<sha256>();
}

TEST(Sha256, HasThemWithoutInstructionsOfTheProcessor)
{
    expect_published_values<block_hash<plain_rounds>>();
}

TEST(Sha256, IsTheSameHoweverTheMessageIsCut)
{
    std::string message(300, '\0');
    for (char &byte : message)
        byte = static_cast<char>(test_random()());
    const std::string whole = digest_of(message);
    for (std::size_t first = 0; first <= message.size(); ++first) {
        sha256 sum;
        sum.add(message.data(), first);
        sum.add(nullptr, 0);
        sum.add(message.data() + first, message.size() - first);
        EXPECT_EQ(sha256_text(sum.digest()), whole) << first;
    }
}

// Every length around the ends of blocks.
TEST(Sha256, IsWhatTheSystemsToolSays)
{
    char name[] = "/tmp/sha256-test-XXXXXX";
    const int file = ::mkstemp(name);
    ASSERT_GE(file, 0);
    for (std::size_t length = 0; length < 200; length += length < 50 ? 13 : 1) {
        const std::string message(length, static_cast<char>(length));
        std::ofstream(name, std::ios::binary | std::ios::trunc) << message;
        FILE *tool = ::popen(("sha256sum " + std::string(name)).c_str(), "r");
        ASSERT_NE(tool, nullptr);
        char text[65] = "";
        ASSERT_NE(std::fgets(text, sizeof text, tool), nullptr);
        ::pclose(tool);
        EXPECT_EQ(digest_of(message), text) << length;
    }
    ::close(file);
    ::unlink(name);
}
