// What biosctl makes of agents' answers, byte by byte.
#include <gtest/gtest.h>

#include "agent_answers.h"
#include "printable_text.h"
#include "wire_bytes.h"

using namespace wire;

namespace
{

const bytes TWO_MODULES = words({2, 2}) + words({1, 1, 90, 1}) + words({232, 2, 106, 0});
const bytes ONE_FLASH = words({2, 90, 17, 1, 1, 1, 1, 41}) + text_field("2026-01-31T10:00:00Z", 24) +
                        words({0, 65536, 4096, 7, 2, 43, 1, 17}) + text_field("2026-01-31T11:00:00Z", 24) +
                        words({0, 5, 1, 2, 0, 300});

} // namespace

TEST(AgentAnswers, ModulesAreTakenInOrder)
{
    const auto modules = decode_modules(TWO_MODULES);
    ASSERT_TRUE(modules && modules->size() == 2);
    EXPECT_EQ(modules->front().slot, 1U);
    EXPECT_EQ(modules->front().card_id, 90U);
    EXPECT_EQ(modules->front().sup_state, 1U);
    EXPECT_EQ(modules->back().slot, 232U);
    EXPECT_EQ(modules->back().kind, 2U);
}

TEST(AgentAnswers, ModulesThatAChassisCannotHaveAreNone)
{
    for (const bytes &wrong :
         {bytes(), words({2}), words({2, 1}), TWO_MODULES + bytes(1), words({2, 1}) + words({0, 1, 90, 1}),
          words({2, 1}) + words({233, 1, 90, 1}), words({2, 2}) + words({3, 1, 90, 1}) + words({3, 1, 90, 1}),
          words({2, 2}) + words({4, 1, 90, 1}) + words({3, 1, 90, 1}), words({2, 3}) + words({4, 1, 90, 1})})
        EXPECT_FALSE(decode_modules(wrong)) << wrong.size() << " bytes";
}

TEST(AgentAnswers, CardTellsOfItsFlashes)
{
    const auto card = decode_card(ONE_FLASH);
    ASSERT_TRUE(card && card->flashes.size() == 1);
    EXPECT_TRUE(card->serves);
    EXPECT_EQ(card->programming_pid, 41U);
    EXPECT_EQ(card->serves_since, "2026-01-31T10:00:00Z");
    const card_flash &flash = card->flashes.front();
    EXPECT_EQ(flash.size_bytes, 65536U);
    EXPECT_EQ(flash.sector_bytes, 4096U);
    EXPECT_TRUE(flash.activity.marked && flash.activity.has_writer);
    EXPECT_EQ(flash.activity.last, (flash_progress_line{BIOS_PHASE_WRITE, 43, 1, 17, "2026-01-31T11:00:00Z"}));
    EXPECT_EQ(flash.erases, 5U);
    EXPECT_EQ(flash.log, (flash_event_log_state{(1ULL << 32) + 2, 300}));
}

TEST(AgentAnswers, CardThatIsNotWholeIsNone)
{
    for (std::size_t length = 0; length < ONE_FLASH.size(); ++length)
        EXPECT_FALSE(decode_card({ONE_FLASH.data(), length})) << length;
    EXPECT_FALSE(decode_card(ONE_FLASH + bytes(1)));
    bytes third = ONE_FLASH;
    third[59] = 2; // instance
    EXPECT_FALSE(decode_card(third));
}

namespace
{

const bytes VERSIONS = words({5, 1, 1, 2}) + text_field("v3.1.0(02/11/11)", 128) + words({0, 4}) +
                       text_field("v3.5.0(09/17/12)", 128) + words({1, 3}) + text_field("v9.9.9(01/01/01)", 128);

} // namespace

TEST(AgentAnswers, VersionsAreThoseOfTheFlashesAndOfWhatRuns)
{
    const auto versions = decode_versions(VERSIONS);
    ASSERT_TRUE(versions && versions->flashes.size() == 2);
    EXPECT_TRUE(versions->serves);
    EXPECT_EQ(versions->started_from, 1U);
    EXPECT_EQ(versions->running, "v3.1.0(02/11/11)");
    EXPECT_EQ(versions->flashes[0].version, "v3.5.0(09/17/12)");
    EXPECT_FALSE(versions->flashes[0].marked || versions->flashes[0].has_writer);
    EXPECT_TRUE(versions->flashes[1].marked && versions->flashes[1].has_writer);
    EXPECT_EQ(versions->flashes[1].version, "") << "whatever is said of a flash that changes";
    bytes unknown = VERSIONS;
    std::fill_n(unknown.begin() + 8, 4, std::uint8_t{0xff});
    EXPECT_FALSE(decode_versions(unknown)->started_from);
}

TEST(AgentAnswers, VersionsThatAreNotWholeAreNone)
{
    for (std::size_t length = 0; length < VERSIONS.size(); ++length)
        EXPECT_FALSE(decode_versions({VERSIONS.data(), length})) << length;
    EXPECT_FALSE(decode_versions(VERSIONS + bytes(1)));
    bytes wrong = VERSIONS;
    wrong[144 + 136 + 3] = 0; // the second flash is the first again
    EXPECT_FALSE(decode_versions(wrong));
    wrong[144 + 136 + 3] = 2;
    EXPECT_FALSE(decode_versions(wrong));
}

TEST(AgentAnswers, TextsHaveOnlyWhatCanBePrinted)
{
    EXPECT_EQ(printable_text("v3\x1b[31m.5\n\x9b\x7f!"), "v3?[31m.5?"
                                                         "?"
                                                         "?!");
    const auto locks =
        decode_locks(words({0x101, 1, 9, 129, 0x4071000a}) + text_field("2026\x1b]0;x", 24) +
                     text_field("ann\x1b[2J", 32) + text_field("far\x9b", 64) + text_field("2027", 24));
    ASSERT_TRUE(locks && locks->size() == 1);
    EXPECT_EQ(locks->front().since, "2026?]0;x");
    EXPECT_EQ(locks->front().user, "ann?[2J");
    EXPECT_EQ(locks->front().host, "far?");
    EXPECT_EQ(locks->front().until, "2027");
    EXPECT_EQ(locks->front().node_id, 0x101);
    EXPECT_EQ(locks->front().reason, 0x4071000aU);
    const std::string line =
        R"({"time":"2026-01-31T12:00:00.000Z","slot":5,"flash":"primary","sequence":10,"pid":9,"event":"begun"})";
    EXPECT_EQ(decode_events(line + "\n" + line + "\x1b\n" + line).size(), 1U);
}

TEST(AgentAnswers, ResultsAreThoseOfModules)
{
    const auto results = decode_results(words({28, 0x4071000c, 27}) + text_field("2026-01-31T11:00:00Z", 24));
    ASSERT_TRUE(results && results->size() == 1);
    EXPECT_EQ(results->front().module, 28U);
    EXPECT_EQ(results->front().code, 0x4071000cU);
    EXPECT_EQ(results->front().reported_by_slot, 27U);
    EXPECT_EQ(results->front().time, "2026-01-31T11:00:00Z");
    EXPECT_FALSE(decode_results(words({233, 0, 27}) + bytes(24)));
    EXPECT_FALSE(decode_results(words({28, 0, 27}) + bytes(23)));
    EXPECT_TRUE(decode_results({})->empty());
}

TEST(AgentAnswers, OutcomeIsOneOfThoseThereAre)
{
    const bytes result =
        words({28, 0, 27}) + text_field("2026-01-31T11:00:00Z", 24) + text_field("2026-01-31T10:59:59Z", 24);
    const auto outcome = decode_outcome(words({2}) + result);
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->outcome, AGENT_OUTCOME_WITHOUT_RESULT);
    EXPECT_EQ(outcome->time, "2026-01-31T11:00:00Z");
    EXPECT_EQ(outcome->ended, "2026-01-31T10:59:59Z");
    EXPECT_FALSE(decode_outcome(words({4}) + result));
    EXPECT_FALSE(decode_outcome(words({2}) + result + bytes(1)));
    EXPECT_FALSE(decode_outcome(result));
}

TEST(AgentAnswers, HeadIsItsRecord)
{
    const bytes record = words({5, 0, 1, 2}) + bytes(31) + bytes{7};
    const auto head = decode_head(record);
    ASSERT_TRUE(head);
    EXPECT_EQ(head->sequence, (1ULL << 32) + 2);
    EXPECT_EQ(head->chain, std::string(62, '0') + "07");
    EXPECT_FALSE(decode_head({})) << "it was told nothing";
    EXPECT_FALSE(decode_head(record + bytes(1)));
}

TEST(AgentAnswers, FilesAreTakenInOrder)
{
    const bytes first = text_field("a.bin", 64) + words({0, 3}) + bytes(31) + bytes{7};
    const bytes second = text_field("b", 64) + words({0, 64 << 20}) + bytes(32);
    const auto files = decode_files(first + second);
    ASSERT_TRUE(files && files->size() == 2);
    EXPECT_EQ(files->front().name, "a.bin");
    EXPECT_EQ(files->front().size_bytes, 3U);
    EXPECT_EQ(files->front().sha256.back(), 7);
    EXPECT_EQ(files->back().name, "b");
    EXPECT_TRUE(decode_files({})->empty());
    EXPECT_FALSE(decode_files(second + first));
    EXPECT_FALSE(decode_files(first + first));
    EXPECT_FALSE(decode_files(first + bytes(1)));
}

TEST(AgentAnswers, FilesThatACardCannotHaveAreNone)
{
    const auto file = [](const std::string &name, bytes size) { return text_field(name, 64) + size + bytes(32); };
    for (const std::string &name : {std::string(), std::string(".."), std::string("a/b"), std::string("\x1b[2J"),
                                    std::string(64, 'a') + "b"}) {
        bytes field = file(name.substr(0, 64), words({0, 3}));
        EXPECT_EQ(decode_files(field).has_value(), name.size() > 64) << name;
    }
    EXPECT_FALSE(decode_files(file("a", words({0, 0}))));
    EXPECT_FALSE(decode_files(file("a", words({0, (64 << 20) + 1}))));
    EXPECT_FALSE(decode_files(file("a", words({1, 3}))));
}

TEST(AgentAnswers, TransferIsItsIdAndItsSize)
{
    const bytes begun = words({0x5b1c7702, 0x934ea611, 0, 3});
    const auto transfer = decode_transfer(begun);
    ASSERT_TRUE(transfer);
    EXPECT_EQ(transfer->id, 0x5b1c7702934ea611U);
    EXPECT_EQ(transfer->size_bytes, 3U);
    EXPECT_FALSE(decode_transfer(begun + bytes(1)));
    EXPECT_FALSE(decode_transfer(words({1, 2, 3})));
}

TEST(AgentAnswers, DigestHas32Bytes)
{
    EXPECT_EQ(decode_digest(bytes(31) + bytes{9})->back(), 9);
    EXPECT_FALSE(decode_digest(bytes(31)));
    EXPECT_FALSE(decode_digest(bytes(33)));
}
