// What an agent does with requests about files, byte by byte, with senders and a clock that exist in this test
// only.
#include <gtest/gtest.h>

#include <csignal>
#include <map>
#include <sys/resource.h>

#include "file_requests.h"
#include "flash_event_log.h"
#include "flash_fixture.h"
#include "flash_progress_file.h"
#include "monotonic_clock.h"
#include "sha256.h"
#include "wire_bytes.h"

using namespace wire;

namespace
{

namespace fs = std::filesystem;

constexpr mts_address_t SENDER = {0x0101, 0x10000};
constexpr mts_address_t OTHER_SENDER = {0x0101, 0x10001};
constexpr std::uint64_t FIRST_ID = 0x5b1c7702934ea610;
constexpr std::size_t PIECE = 57344;

constexpr std::uint32_t BAD_REQUEST = 0x40720001, NO_FLASH = 0x40720002, BAD_NAME = 0x40720010,
                        BAD_SIZE = 0x40720011, NO_SPACE = 0x40720012, TOO_MANY_FILES = 0x40720013,
                        NO_FILE = 0x40720014, BAD_DIGEST = 0x40720015, NO_TRANSFER = 0x40720016,
                        TOO_MANY = 0x40720017, NAME_BUSY = 0x40720018, BAD_OFFSET = 0x40720019,
                        INCOMPLETE = 0x4072001a, CHANGED = 0x4072001b;

bytes long_word(std::uint64_t value)
{
    return words({static_cast<std::uint32_t>(value >> 32), static_cast<std::uint32_t>(value)});
}

bytes digest_of(const bytes &content)
{
    sha256 sum;
    sum.add(content.data(), content.size());
    const sha256_digest digest = sum.digest();
    return {digest.begin(), digest.end()};
}

bytes file_record(const std::string &name, const bytes &content)
{
    return text_field(name, 64) + long_word(content.size()) + digest_of(content);
}

class FileTransfers : public chassis_flash_fixture
{
protected:
    void SetUp() override
    {
        chassis_flash_fixture::SetUp();
        fs::create_directories(dir + "/slots/3");
        start_agent();
    }
    // As an agent does that is started, on a card where others have been before.
    void start_agent()
    {
        transfers_.reset();
        remove_partial_files();
        transfers_.emplace(transfer_surroundings{
            .first_id = FIRST_ID,
            .now_us = [this] { return now_us_; },
            .peer_at = [this](mts_address_t at) -> std::optional<datagram_peer> {
                const auto found = processes_.find(at.sap);
                return found != processes_.end() ? std::optional(datagram_peer{{found->second}}) : std::nullopt;
            }});
    }

    answer asked(std::uint32_t opcode, const bytes &body, mts_address_t from = SENDER)
    {
        transfers_->tick();
        return answer_about_files(*transfers_, from, opcode, body);
    }
    std::uint32_t status(std::uint32_t opcode, const bytes &body, mts_address_t from = SENDER)
    {
        const answer given = asked(opcode, body, from);
        EXPECT_TRUE(given.payload().empty()) << opcode;
        return given.status();
    }
    bytes payload(std::uint32_t opcode, const bytes &body, mts_address_t from = SENDER)
    {
        const answer given = asked(opcode, body, from);
        EXPECT_EQ(given.status(), 0U) << opcode;
        return given.payload();
    }

    // The id of a transfer that is begun.
    bytes begin(std::uint32_t opcode, const bytes &body, mts_address_t from = SENDER)
    {
        const bytes begun = payload(opcode, body, from);
        return begun.size() == 16 ? bytes(begun.begin(), begun.begin() + 8) : bytes(8);
    }
    bytes begin_put(const std::string &name, const bytes &content, mts_address_t from = SENDER)
    {
        return begin(4820, file_record(name, content), from);
    }
    std::uint32_t put(const bytes &transfer, std::uint64_t offset, const bytes &piece, mts_address_t from = SENDER)
    {
        return status(4821, transfer + long_word(offset) + piece, from);
    }
    std::uint32_t end_put(const bytes &transfer, mts_address_t from = SENDER)
    {
        return status(4822, transfer, from);
    }
    void put_all(const bytes &transfer, const bytes &content)
    {
        for (std::size_t offset = 0; offset < content.size(); offset += PIECE)
            ASSERT_EQ(put(transfer, offset, piece_of(content, offset, std::min(PIECE, content.size() - offset))),
                      0U);
    }
    std::uint32_t deliver(const std::string &name, const bytes &content)
    {
        const bytes transfer = begin_put(name, content);
        put_all(transfer, content);
        return end_put(transfer);
    }
    bytes get(const bytes &transfer, std::uint64_t offset, std::uint32_t count)
    {
        return payload(4825, transfer + long_word(offset) + words({count}));
    }
    std::uint32_t status_of_get(const bytes &transfer, std::uint64_t offset, std::uint32_t count,
                                mts_address_t from = SENDER)
    {
        return status(4825, transfer + long_word(offset) + words({count}), from);
    }

    static std::string field_of(const bytes &record) { return reinterpret_cast<const char *>(record.data()); }

    std::string images() const { return dir + "/slots/3/images"; }
    bytes file_named(const std::string &name) const
    {
        std::ifstream file(images() + "/" + name, std::ios::binary);
        return rest_of<bytes>(file);
    }
    bool is_there(const std::string &name) const { return fs::exists(fs::symlink_status(images() + "/" + name)); }
    unsigned partial_files() const
    {
        if (!fs::exists(images()))
            return 0;
        return static_cast<unsigned>(std::count_if(
            fs::directory_iterator(images()), fs::directory_iterator(), [](const fs::directory_entry &entry) {
                return entry.path().filename().string().starts_with(".part.");
            }));
    }
    void write_image(const std::string &name, const std::string &text) const
    {
        fs::create_directories(images());
        std::ofstream(images() + "/" + name, std::ios::binary) << text;
    }
    void pass(std::int64_t ms)
    {
        now_us_ += ms * 1000;
        transfers_->tick();
    }

    std::int64_t now_us_ = 1'000'000'000;
    std::map<std::uint32_t, std::uint64_t> processes_ = {{SENDER.sap, 1}, {OTHER_SENDER.sap, 2}};
    std::optional<file_transfers> transfers_;
};

const bytes ABC = {'a', 'b', 'c'};

} // namespace

TEST_F(FileTransfers, DeliveryIsTheseBytes)
{
    const bytes file =
        text_field("a.bin", 64) + words({0, 3}) +
        words({0xba7816bf, 0x8f01cfea, 0x414140de, 0x5dae2223, 0xb00361a3, 0x96177a9c, 0xb410ff61, 0xf20015ad});
    EXPECT_EQ(payload(4820, file), words({0x5b1c7702, 0x934ea611, 0, 3}));
    EXPECT_FALSE(is_there("a.bin"));
    EXPECT_EQ(payload(4821, words({0x5b1c7702, 0x934ea611, 0, 0}) + ABC), bytes());
    EXPECT_FALSE(is_there("a.bin"));
    EXPECT_EQ(payload(4822, words({0x5b1c7702, 0x934ea611})), bytes());
    EXPECT_EQ(file_named("a.bin"), ABC);
    EXPECT_EQ(payload(4827, {}), file);
    EXPECT_EQ(payload(4824, text_field("a.bin", 64)), words({0x5b1c7702, 0x934ea612, 0, 3}));
    EXPECT_EQ(payload(4825, words({0x5b1c7702, 0x934ea612, 0, 0, 57344})), ABC);
    EXPECT_EQ(payload(4826, words({0x5b1c7702, 0x934ea612})), bytes(file.begin() + 72, file.end()));
    EXPECT_EQ(payload(4828, text_field("a.bin", 64)), bytes());
    EXPECT_FALSE(is_there("a.bin"));
    EXPECT_EQ(payload(4827, {}), bytes());
}

TEST_F(FileTransfers, FileOfManyPiecesIsDeliveredByteForByte)
{
    const bytes content = random_bytes(3 * PIECE + 17);
    EXPECT_EQ(deliver("image", content), 0U);
    EXPECT_EQ(file_named("image"), content);
    EXPECT_EQ(partial_files(), 0U);
}

TEST_F(FileTransfers, FileOfTheSameNameIsReplacedOnlyByAWholeOne)
{
    const bytes first = random_bytes(100), second = random_bytes(PIECE + 1);
    ASSERT_EQ(deliver("image", first), 0U);
    const bytes transfer = begin_put("image", second);
    put_all(transfer, second);
    EXPECT_EQ(file_named("image"), first);
    EXPECT_EQ(end_put(transfer), 0U);
    EXPECT_EQ(file_named("image"), second);
    EXPECT_EQ(payload(4827, {}), file_record("image", second));
}

TEST_F(FileTransfers, WrongDigestLeavesNothing)
{
    bytes record = file_record("image", ABC);
    record.back() ^= 1;
    const bytes transfer = begin(4820, record);
    EXPECT_EQ(put(transfer, 0, ABC), 0U);
    EXPECT_EQ(end_put(transfer), BAD_DIGEST);
    EXPECT_FALSE(is_there("image"));
    EXPECT_EQ(partial_files(), 0U);
    EXPECT_EQ(end_put(transfer), BAD_DIGEST) << "the answer may have been lost";
}

TEST_F(FileTransfers, MissingPieceLeavesNothing)
{
    const bytes content = random_bytes(2 * PIECE);
    const bytes transfer = begin_put("image", content);
    EXPECT_EQ(put(transfer, 0, piece_of(content, 0, PIECE)), 0U);
    EXPECT_EQ(end_put(transfer), INCOMPLETE);
    EXPECT_FALSE(is_there("image"));
    EXPECT_EQ(partial_files(), 0U);
    EXPECT_EQ(put(transfer, PIECE, piece_of(content, PIECE, PIECE)), INCOMPLETE) << "it has ended";
}

TEST_F(FileTransfers, EachRequestMayBeRepeated)
{
    const bytes content = random_bytes(2 * PIECE + 5);
    const bytes transfer = begin_put("image", content);
    EXPECT_EQ(begin_put("image", content), transfer);
    for (std::size_t offset = 0; offset < content.size(); offset += PIECE) {
        const bytes piece = piece_of(content, offset, std::min(PIECE, content.size() - offset));
        for (unsigned time = 0; time < 3; ++time)
            EXPECT_EQ(put(transfer, offset, piece), 0U);
    }
    EXPECT_EQ(end_put(transfer), 0U);
    EXPECT_EQ(end_put(transfer), 0U);
    EXPECT_EQ(file_named("image"), content);
    EXPECT_EQ(put(transfer, 0, piece_of(content, 0, PIECE)), NO_TRANSFER);
}

TEST_F(FileTransfers, AnotherOffsetIsRefusedAndEndsNothing)
{
    const bytes content = random_bytes(3 * PIECE);
    const bytes transfer = begin_put("image", content);
    EXPECT_EQ(put(transfer, 1, ABC), BAD_OFFSET);
    EXPECT_EQ(put(transfer, 0, piece_of(content, 0, PIECE)), 0U);
    EXPECT_EQ(put(transfer, PIECE, piece_of(content, PIECE, PIECE)), 0U);
    EXPECT_EQ(put(transfer, 0, piece_of(content, 0, PIECE)), BAD_OFFSET) << "not the last one";
    EXPECT_EQ(put(transfer, PIECE, piece_of(content, PIECE, PIECE - 1)), BAD_OFFSET) << "not the last one either";
    EXPECT_EQ(put(transfer, 2 * PIECE + 1, ABC), BAD_OFFSET);
    EXPECT_EQ(put(transfer, 0xffffffffffffffff, ABC), BAD_OFFSET);
    EXPECT_EQ(put(transfer, 2 * PIECE, piece_of(content, 2 * PIECE, PIECE)), 0U);
    EXPECT_EQ(put(transfer, 3 * PIECE, ABC), BAD_OFFSET) << "behind the end";
    EXPECT_EQ(end_put(transfer), 0U);
    EXPECT_EQ(file_named("image"), content);
}

TEST_F(FileTransfers, PieceAcrossTheEndIsRefused)
{
    const bytes transfer = begin_put("image", ABC);
    EXPECT_EQ(put(transfer, 0, ABC + ABC), BAD_OFFSET);
    EXPECT_EQ(put(transfer, 0, ABC), 0U);
    EXPECT_EQ(end_put(transfer), 0U);
}

TEST_F(FileTransfers, PieceHasAByteAndNoMoreThanAPiece)
{
    const bytes content = random_bytes(2 * PIECE);
    const bytes transfer = begin_put("image", content);
    EXPECT_EQ(put(transfer, 0, {}), BAD_REQUEST);
    EXPECT_EQ(put(transfer, 0, piece_of(content, 0, PIECE + 1)), BAD_REQUEST);
    EXPECT_EQ(put(transfer, 0, piece_of(content, 0, PIECE)), 0U);
    EXPECT_LT(112 + 16 + PIECE, 60U << 10);
}

TEST_F(FileTransfers, BeginRepeatedAfterAPieceBeginsAnew)
{
    const bytes content = random_bytes(PIECE + 1);
    const bytes first = begin_put("image", content);
    EXPECT_EQ(put(first, 0, piece_of(content, 0, PIECE)), 0U);
    const bytes second = begin_put("image", content);
    EXPECT_NE(second, first);
    EXPECT_EQ(put(first, PIECE, piece_of(content, PIECE, 1)), NO_TRANSFER);
    EXPECT_EQ(partial_files(), 1U);
    put_all(second, content);
    EXPECT_EQ(end_put(second), 0U);
    EXPECT_EQ(file_named("image"), content);
}

TEST_F(FileTransfers, HostileNamesAreRefused)
{
    const std::string zero(1, '\0');
    const std::string names[] = {"",        ".",       "..",  "../x", "/etc/x",   "a/b",
                                 ".hidden", ".part.1", "-rf", "a\nb", "a b",      "a:b",
                                 "a@b",     "a=b",     "a%b", "\xff", "a\x1b[2J", std::string(64, 'a'),
                                 zero + "a"};
    for (const std::string &name : names) {
        bytes record = file_record("x", ABC);
        const bytes field = text_field(name, 64);
        std::copy(field.begin(), field.end(), record.begin());
        EXPECT_EQ(status(4820, record), BAD_NAME) << testing::PrintToString(name);
        EXPECT_EQ(status(4824, field), BAD_NAME) << testing::PrintToString(name);
        EXPECT_EQ(status(4828, field), BAD_NAME) << testing::PrintToString(name);
    }
    EXPECT_FALSE(fs::exists(images()));
    for (const std::string &name : {std::string(63, 'a'), std::string("A-1_b+c.bin"), std::string("_")})
        EXPECT_EQ(deliver(name, ABC), 0U) << name;
}

TEST_F(FileTransfers, NothingBehindTheNameIsKept)
{
    bytes record = file_record("image", ABC);
    record[10] = 'x';
    const bytes transfer = begin(4820, record);
    put_all(transfer, ABC);
    EXPECT_EQ(end_put(transfer), 0U);
    EXPECT_EQ(payload(4827, {}), file_record("image", ABC));
}

TEST_F(FileTransfers, FileHasAByteAndNoMoreThan64MiB)
{
    const auto sized = [](std::uint64_t size) { return text_field("image", 64) + long_word(size) + bytes(32); };
    for (const std::uint64_t size :
         {std::uint64_t{0}, (std::uint64_t{64} << 20) + 1, std::uint64_t{1} << 32, ~std::uint64_t{0}})
        EXPECT_EQ(status(4820, sized(size)), BAD_SIZE) << size;
    EXPECT_EQ(payload(4820, sized(std::uint64_t{64} << 20)).size(), 16U);
}

TEST_F(FileTransfers, BodyOfAnotherLengthIsRefused)
{
    const std::map<std::uint32_t, std::size_t> lengths = {{4820, 104}, {4822, 8}, {4823, 4}, {4824, 64},
                                                          {4825, 20},  {4826, 8}, {4827, 0}, {4828, 64}};
    for (const auto &[opcode, length] : lengths) {
        for (std::size_t other = 0; other <= 120; ++other) {
            if (other == length)
                continue;
            EXPECT_EQ(status(opcode, bytes(other)), BAD_REQUEST) << opcode << " with " << other << " bytes";
        }
    }
    for (std::size_t length = 0; length < 16; ++length)
        EXPECT_EQ(status(4821, bytes(length)), BAD_REQUEST) << length;
}

TEST_F(FileTransfers, TransferIsItsSendersOnly)
{
    const bytes transfer = begin_put("image", ABC);
    EXPECT_EQ(put(transfer, 0, ABC, OTHER_SENDER), NO_TRANSFER);
    EXPECT_EQ(end_put(transfer, OTHER_SENDER), NO_TRANSFER);
    EXPECT_EQ(status(4826, transfer), NO_TRANSFER) << "it is no copy";
    EXPECT_EQ(status_of_get(transfer, 0, 1), NO_TRANSFER);
    EXPECT_EQ(put(transfer, 0, ABC), 0U);
    EXPECT_EQ(end_put(transfer), 0U);
    EXPECT_EQ(end_put(transfer, OTHER_SENDER), NO_TRANSFER);
}

TEST_F(FileTransfers, OfTwoSendersOfANameTheFirstDelivers)
{
    const bytes transfer = begin_put("image", ABC);
    EXPECT_EQ(status(4820, file_record("image", ABC), OTHER_SENDER), NAME_BUSY);
    EXPECT_EQ(payload(4820, file_record("another", ABC), OTHER_SENDER).size(), 16U);
    put_all(transfer, ABC);
    EXPECT_EQ(end_put(transfer), 0U);
    EXPECT_EQ(payload(4820, file_record("image", ABC), OTHER_SENDER).size(), 16U) << "it is free again";
}

TEST_F(FileTransfers, FifthTransferIsRefused)
{
    create_flash();
    for (const char *name : {"a", "b", "c"})
        (void)begin_put(name, ABC);
    (void)begin(4823, words({0}));
    EXPECT_EQ(status(4820, file_record("e", ABC)), TOO_MANY);
    EXPECT_EQ(status(4823, words({0}), OTHER_SENDER), TOO_MANY);
    EXPECT_EQ(partial_files(), 3U);
    processes_.erase(SENDER.sap);
    pass(200);
    EXPECT_EQ(partial_files(), 0U);
    EXPECT_EQ(payload(4820, file_record("e", ABC), OTHER_SENDER).size(), 16U);
}

TEST_F(FileTransfers, EndsWithItsSender)
{
    const bytes content = random_bytes(PIECE + 1);
    const bytes transfer = begin_put("image", content);
    EXPECT_EQ(put(transfer, 0, piece_of(content, 0, PIECE)), 0U);
    pass(1000);
    EXPECT_EQ(partial_files(), 1U);
    processes_[SENDER.sap] = 9; // another process with the same address
    pass(200);
    EXPECT_EQ(partial_files(), 0U);
    EXPECT_EQ(end_put(transfer), NO_TRANSFER);
    EXPECT_FALSE(is_there("image"));
}

TEST_F(FileTransfers, EndsAfter15SecondsWithoutARequest)
{
    const bytes content = random_bytes(PIECE + 1);
    const bytes transfer = begin_put("image", content);
    pass(14'900);
    EXPECT_EQ(put(transfer, 0, piece_of(content, 0, PIECE)), 0U);
    pass(14'900);
    EXPECT_EQ(partial_files(), 1U);
    pass(200);
    EXPECT_EQ(partial_files(), 0U);
    EXPECT_EQ(end_put(transfer), NO_TRANSFER);
}

TEST_F(FileTransfers, WaitsForNothingWithoutATransfer)
{
    EXPECT_EQ(transfers_->wait_limit_us(), -1);
    const bytes transfer = begin_put("image", ABC);
    EXPECT_EQ(transfers_->wait_limit_us(), 200'000);
    now_us_ += 50'000;
    EXPECT_EQ(transfers_->wait_limit_us(), 150'000);
    now_us_ += 500'000;
    EXPECT_EQ(transfers_->wait_limit_us(), 0);
    transfers_->tick();
    EXPECT_EQ(transfers_->wait_limit_us(), 200'000);
    put_all(transfer, ABC);
    EXPECT_EQ(end_put(transfer), 0U);
    EXPECT_EQ(transfers_->wait_limit_us(), -1);
}

TEST_F(FileTransfers, WhatADeadAgentHasLeftIsRemoved)
{
    write_image(".part.0123456789abcdef", "half a file");
    write_image(".digests.new", "half of them");
    ASSERT_EQ(deliver("image", ABC), 0U);
    write_image(".part.7", "half a file");
    start_agent();
    EXPECT_EQ(partial_files(), 0U);
    EXPECT_EQ(file_named("image"), ABC);
    EXPECT_EQ(payload(4827, {}), file_record("image", ABC)) << "the agent before this one has kept what it was";
}

TEST_F(FileTransfers, PlantedLinksAreNotFollowed)
{
    const std::string outside = file_of("outside", {'x'});
    fs::create_directories(images());
    fs::create_symlink(outside, images() + "/image");
    fs::create_symlink(outside, images() + "/.digests.new");
    fs::create_symlink(outside, images() + "/.part.5b1c7702934ea612");
    EXPECT_EQ(status(4824, text_field("image", 64)), NO_FILE);
    ASSERT_EQ(deliver("image", ABC), 0U);
    EXPECT_EQ(status(4820, file_record("another", ABC)), 0x40720003U)
        << "its partial file is there, of somebody else";
    EXPECT_FALSE(fs::is_symlink(images() + "/image"));
    EXPECT_EQ(file_named("image"), ABC);
    std::ifstream file(outside);
    EXPECT_EQ(rest_of(file), "x");
    fs::remove_all(images());
    fs::create_directory(dir + "/elsewhere");
    fs::create_symlink(dir + "/elsewhere", images());
    EXPECT_EQ(status(4820, file_record("image", ABC)), 0x40720003U);
    EXPECT_TRUE(fs::is_empty(dir + "/elsewhere"));
}

TEST_F(FileTransfers, OnlyWhatWasDeliveredIsListedAndGiven)
{
    ASSERT_EQ(deliver("b", ABC), 0U);
    ASSERT_EQ(deliver("a", random_bytes(10)), 0U);
    write_image("by-hand", "abc");
    EXPECT_EQ(payload(4827, {}).size(), 2 * 104U);
    EXPECT_EQ(field_of(payload(4827, {})), "a") << "in order of the names";
    EXPECT_EQ(status(4824, text_field("by-hand", 64)), NO_FILE);
    EXPECT_EQ(status(4824, text_field("missing", 64)), NO_FILE);
    write_image("a", "changed by hand");
    EXPECT_EQ(payload(4827, {}), file_record("b", ABC));
    EXPECT_EQ(status(4824, text_field("a", 64)), NO_FILE);
    EXPECT_EQ(status(4828, text_field("missing", 64)), NO_FILE);
    EXPECT_EQ(status(4828, text_field("b", 64)), 0U);
    EXPECT_EQ(payload(4827, {}), bytes());
}

TEST_F(FileTransfers, FilesBeyondThe64thAreRefused)
{
    for (unsigned number = 0; number < 64; ++number)
        ASSERT_EQ(deliver("image" + std::to_string(number), ABC), 0U);
    EXPECT_EQ(deliver("another", ABC), TOO_MANY_FILES);
    EXPECT_FALSE(is_there("another"));
    EXPECT_EQ(deliver("image7", random_bytes(9)), 0U) << "it takes the place of one";
    EXPECT_EQ(payload(4827, {}).size(), 64 * 104U);
    EXPECT_EQ(status(4828, text_field("image0", 64)), 0U);
    EXPECT_EQ(deliver("another", ABC), 0U);
}

TEST_F(FileTransfers, DiskWithoutRoomIsSaidSo)
{
    ASSERT_EQ(deliver("image", ABC), 0U);
    const int child = status_of_child([this] {
        (void)std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {.rlim_cur = PIECE, .rlim_max = PIECE};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0)
            return 1;
        const bool refused = status(4820, file_record("image", random_bytes(PIECE + 1))) == NO_SPACE;
        return refused && partial_files() == 0 && deliver("small", ABC) == 0 ? 0 : 2;
    });
    EXPECT_EQ(child, 0);
    EXPECT_EQ(file_named("image"), ABC);
}

TEST_F(FileTransfers, DiskThatBecomesFullEndsTheDelivery)
{
    const bytes content = random_bytes(2 * PIECE);
    const bytes transfer = begin_put("image", content);
    EXPECT_EQ(put(transfer, 0, piece_of(content, 0, PIECE)), 0U);
    const int child = status_of_child([&] {
        (void)std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {.rlim_cur = PIECE + 100, .rlim_max = PIECE + 100};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0)
            return 1;
        const bytes piece = piece_of(content, PIECE, PIECE);
        // The second time the answer was lost.
        const bool refused = put(transfer, PIECE, piece) == NO_SPACE && put(transfer, PIECE, piece) == NO_SPACE;
        return refused && partial_files() == 0 && end_put(transfer) == NO_SPACE ? 0 : 2;
    });
    EXPECT_EQ(child, 0);
    EXPECT_FALSE(is_there("image"));
}

TEST_F(FileTransfers, CopyOfAFlashIsWhatItHolds)
{
    const bytes contents = random_bytes(SMALL_FLASH.size_bytes);
    create_flash(1, SMALL_FLASH, contents);
    EXPECT_EQ(status(4823, words({0})), NO_FLASH);
    EXPECT_EQ(status(4823, words({2})), NO_FLASH);
    EXPECT_EQ(payload(4823, words({1})), long_word(FIRST_ID + 1) + words({0, 64 << 10}));
    const bytes transfer = long_word(FIRST_ID + 1);
    bytes copy = get(transfer, 0, 1);
    EXPECT_EQ(get(transfer, 0, 1), copy) << "the answer may have been lost";
    copy = copy + get(transfer, 1, PIECE);
    copy = copy + get(transfer, 1 + PIECE, PIECE);
    EXPECT_EQ(copy, contents);
    EXPECT_EQ(payload(4826, transfer), digest_of(contents));
    EXPECT_EQ(payload(4826, transfer), digest_of(contents)) << "the answer may have been lost";
    EXPECT_EQ(status_of_get(transfer, 1 + PIECE, PIECE), NO_TRANSFER);
}

TEST_F(FileTransfers, DigestIsOfThePiecesAsTheyWereGivenLast)
{
    const bytes contents = random_bytes(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, contents);
    const bytes transfer = begin(4823, words({0}));
    (void)get(transfer, 0, 5000);
    EXPECT_EQ(get(transfer, 0, 7000), piece_of(contents, 0, 7000));
    (void)get(transfer, 7000, PIECE);
    (void)get(transfer, 7000 + PIECE, PIECE);
    EXPECT_EQ(payload(4826, transfer), digest_of(contents));
}

TEST_F(FileTransfers, CopyIsMadeInOrder)
{
    create_flash();
    const bytes transfer = begin(4823, words({0}));
    EXPECT_EQ(status_of_get(transfer, 1, 1), BAD_OFFSET);
    EXPECT_EQ(status_of_get(transfer, 0, 0), BAD_REQUEST);
    EXPECT_EQ(status_of_get(transfer, 0, PIECE + 1), BAD_REQUEST);
    (void)get(transfer, 0, PIECE);
    (void)get(transfer, PIECE, PIECE);
    EXPECT_EQ(status_of_get(transfer, 0, 1), BAD_OFFSET);
    EXPECT_EQ(status_of_get(transfer, SMALL_FLASH.size_bytes, 1), BAD_OFFSET);
    EXPECT_EQ(status_of_get(transfer, 0xffffffffffffffff, 1), BAD_OFFSET);
    EXPECT_EQ(status_of_get(transfer, 0, 1, OTHER_SENDER), NO_TRANSFER);
    EXPECT_EQ(payload(4826, transfer).size(), 32U);
}

TEST_F(FileTransfers, CopyEndedBeforeItsLastPieceHasNoDigest)
{
    create_flash();
    const bytes transfer = begin(4823, words({0}));
    (void)get(transfer, 0, PIECE);
    EXPECT_EQ(status(4826, transfer), INCOMPLETE);
    EXPECT_EQ(status_of_get(transfer, PIECE, PIECE), INCOMPLETE);
}

TEST_F(FileTransfers, FlashThatHasAWriterIsNotCopied)
{
    create_flash();
    const bytes transfer = begin(4823, words({0}));
    {
        // Of another process, as in life: a process does not see its own locks.
        int ready[2], done[2];
        ASSERT_EQ(::pipe(ready) + ::pipe(done), 0);
        const pid_t writer = ::fork();
        if (writer == 0) {
            const auto flash = open_flash();
            (void)!::write(ready[1], flash ? "1" : "0", 1);
            char byte;
            (void)!::read(done[0], &byte, 1);
            ::_exit(0);
        }
        char is_open = 0;
        ASSERT_EQ(::read(ready[0], &is_open, 1), 1);
        ASSERT_EQ(is_open, '1');
        EXPECT_EQ(status(4823, words({0}), OTHER_SENDER), CHANGED);
        EXPECT_EQ(status_of_get(transfer, 0, PIECE), CHANGED);
        EXPECT_EQ(status(4826, transfer), CHANGED);
        ASSERT_EQ(::write(done[1], "1", 1), 1);
        ASSERT_EQ(::waitpid(writer, nullptr, 0), writer);
        for (const int fd : {ready[0], ready[1], done[0], done[1]})
            ::close(fd);
    }
    EXPECT_EQ(payload(4823, words({0})).size(), 16U);
}

TEST_F(FileTransfers, FlashThatWasChangedMeanwhileIsNoCopy)
{
    create_flash();
    const std::function<int()> changes[] = {[&] { return open_flash()->erase(3) ? 0 : 1; },
                                            [&] {
                                                flash_event_append(
                                                    open_flash_folder(TEST_SLOT, 0),
                                                    {.slot = TEST_SLOT, .kind = flash_event_kind::cut_off});
                                                return 0;
                                            },
                                            [&] {
                                                flash_progress_note(TEST_SLOT, 0, BIOS_PHASE_ERASE, 10, 1);
                                                return 0;
                                            },
                                            [&] { return open_flash()->set_marker() ? 0 : 1; }};
    for (const auto &change : changes) {
        const bytes transfer = begin(4823, words({0}));
        (void)get(transfer, 0, PIECE);
        (void)get(transfer, PIECE, PIECE);
        ASSERT_EQ(status_of_child(change), 0);
        EXPECT_EQ(status(4826, transfer), CHANGED);
        const bytes next = begin(4823, words({0}));
        (void)get(next, 0, PIECE);
        (void)get(next, PIECE, PIECE);
        EXPECT_EQ(payload(4826, next).size(), 32U) << "what is over before a copy begins is no change";
    }
}

TEST_F(FileTransfers, FlashThatCannotBeReadIsSaidSo)
{
    create_flash();
    set_fault("fail read 1");
    const bytes transfer = begin(4823, words({0}));
    EXPECT_EQ(status_of_get(transfer, 0, PIECE), 0x40720003U);
}

TEST_F(FileTransfers, CopyOfAFileIsWhatWasDelivered)
{
    const bytes content = random_bytes(PIECE + 3);
    ASSERT_EQ(deliver("image", content), 0U);
    const bytes transfer = begin(4824, text_field("image", 64));
    const bytes first = get(transfer, 0, PIECE);
    ASSERT_EQ(deliver("image", ABC), 0U);
    EXPECT_EQ(first + get(transfer, PIECE, PIECE), content) << "of the one that it began with";
    EXPECT_EQ(payload(4826, transfer), digest_of(content));
}

TEST_F(FileTransfers, FileThatIsNotWhatItWasIsSaidSo)
{
    ASSERT_EQ(deliver("image", ABC), 0U);
    const bytes transfer = begin(4824, text_field("image", 64));
    std::fstream(images() + "/image") << "x"; // the disk, or a hand
    EXPECT_EQ(get(transfer, 0, PIECE), (bytes{'x', 'b', 'c'}));
    EXPECT_EQ(status(4826, transfer), BAD_DIGEST);
}
