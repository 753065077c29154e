// The three version queries, asked of whole cards: of the own card, of another daemon, of modules that run none and
// answer in every way, and of modules that are not there. Answers are compared byte for byte.
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <random>

#include "bios_opcodes.h"
#include "chassis_dir.h"
#include "chassis_fixture.h"
#include "version_answers.h"
#include "version_messages.h"

namespace
{

class VersionQueries : public chassis_test
{
protected:
    void start()
    {
        up();
        asking_.emplace();
        daemon_ = daemon_pid(1);
    }
    void insert_module(unsigned slot, const std::string &answers) { insert(module(slot, answers)); }
    static card_plan module(unsigned slot, const std::string &answers)
    {
        return {.slot = slot,
                .role = "none",
                .in_flash = &image("7.3"),
                .in_tree = nullptr,
                .kind = "linecard",
                .answers = answers};
    }

    requester &asking() { return *asking_; }
    request_reply ask_module(const std::string &body)
    {
        return asking().ask(1, MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, body);
    }
    void expect_answer(std::uint32_t module, std::uint32_t bios_id, const told_versions &told)
    {
        const request_reply reply = ask_module(module_version_request(module));
        ASSERT_EQ(reply.error, 0) << "module " << module;
        EXPECT_EQ(reply.status, 0U);
        ASSERT_EQ(reply.payload.size(), 408U) << "module " << module;
        EXPECT_EQ(reply.payload.substr(4), module_version_answer(module, bios_id, told)) << "module " << module;
    }
    static void expect_failure_of(const request_reply &reply, std::uint32_t module)
    {
        ASSERT_EQ(reply.error, 0) << "module " << module;
        EXPECT_EQ(reply.status, 0U);
        ASSERT_EQ(reply.payload.size(), VERSION_FAILURE_BYTES) << "module " << module;
        EXPECT_EQ(reply.payload.substr(0, 12), version_failure(module)) << "module " << module;
    }
    void expect_failure(std::uint32_t module)
    {
        expect_failure_of(ask_module(module_version_request(module)), module);
    }
    void expect_serves_on()
    {
        expect_answer(1, OWN_CARD_ID, {old_image().version, old_image().version});
        EXPECT_EQ(daemon_pid(1), daemon_) << "the daemon has ended";
    }
    request_reply ask_source(const std::string &body)
    {
        return asking().ask(1, MTS_OPC_BIOS_GET_SRC_BIOS_VERSION, body);
    }
    void expect_source(const std::string &body, const std::string &version)
    {
        const request_reply reply = ask_source(body);
        ASSERT_EQ(reply.error, 0);
        EXPECT_EQ(reply.status, 0U);
        EXPECT_EQ(reply.payload, source_version_answer(version));
    }
    // The walk is a success that has found nothing. The slot of the only row is there all the same.
    void expect_no_source(const std::string &body)
    {
        const request_reply reply = ask_source(body);
        ASSERT_EQ(reply.error, 0);
        ASSERT_EQ(reply.payload.size(), SOURCE_ANSWER_BYTES);
        EXPECT_EQ(reply.payload.substr(0, 8), be32_bytes(0) + be32_bytes(0));
    }

private:
    std::optional<requester> asking_;
    pid_t daemon_ = 0;
};

} // namespace

TEST_F(VersionQueries, OwnModuleIsToldAsItStands)
{
    insert({.slot = 1});
    start();
    expect_answer(1, OWN_CARD_ID, {old_image().version, old_image().version});
    // Whatever follows the module number is not looked at.
    const request_reply longer = ask_module(module_version_request(1) + std::string(3000, '\xff'));
    ASSERT_EQ(longer.payload.size(), 408U);
    EXPECT_EQ(longer.payload.substr(4),
              module_version_answer(1, OWN_CARD_ID, {old_image().version, old_image().version}));
}

TEST_F(VersionQueries, FlashWithoutVersionIsToldWithEmptyTexts)
{
    insert({.slot = 1, .in_flash = nullptr});
    start();
    expect_answer(1, OWN_CARD_ID, {"", ""});
}

TEST_F(VersionQueries, CardTellsItsOwnVersionsWhateverTheRequestSays)
{
    insert({.slot = 1});
    insert({.slot = 4, .role = "none", .in_flash = &image("4.4"), .in_tree = nullptr, .kind = "linecard"});
    start();
    for (const std::string &body : {std::string("ABCD"), std::string(), std::string(2000, '\xff')}) {
        EXPECT_EQ(asking().ask(1, MTS_OPC_BIOS_GET_LC_BIOS_VERSION, body).payload,
                  card_version_answer({old_image().version, old_image().version}));
        EXPECT_EQ(asking().ask(4, MTS_OPC_BIOS_GET_LC_BIOS_VERSION, body).payload,
                  card_version_answer({image("4.4").version, image("4.4").version}));
    }
    expect_serves_on();
}

TEST_F(VersionQueries, OtherDaemonsAreAskedAndForwarded)
{
    insert({.slot = 1});
    insert({.slot = 2, .role = "standby", .in_flash = &image("3.1")});
    insert({.slot = 4, .role = "none", .in_flash = &image("4.4"), .in_tree = nullptr, .kind = "linecard"});
    start();
    expect_answer(2, OWN_CARD_ID, {image("3.1").version, image("3.1").version});
    expect_answer(4, OWN_CARD_ID, {image("4.4").version, image("4.4").version});
    EXPECT_EQ(lines_with(1, "mod=2 dest_node=201"), 1U);
    EXPECT_EQ(lines_with(1, "mod=4 dest_node=402"), 1U);
    expect_serves_on();
}

TEST_F(VersionQueries, ShortFormGetsTheConstantLabelAndKind)
{
    insert({.slot = 1});
    insert_module(3, "short");
    start();
    const std::string &version = image("7.3").version;
    EXPECT_EQ(asking().ask(3, MTS_OPC_BIOS_GET_LC_BIOS_VERSION, "ABCD").payload.size(), 260U);
    expect_answer(3, FORWARDED_KIND, {version, version});
    expect_serves_on();
}

TEST_F(VersionQueries, FullFormIsForwardedRowByRow)
{
    insert({.slot = 1});
    card_plan card = module(3, "full");
    card.answer_rows = 3;
    insert(card);
    start();
    const std::string &version = image("7.3").version;
    const request_reply reply = ask_module(module_version_request(3));
    ASSERT_EQ(reply.error, 0);
    // The module's ignored TLV counts as an entry, and nothing is written there.
    ASSERT_EQ(reply.payload.size(), 16U + 4 * 392);
    EXPECT_EQ(reply.payload.substr(4, 3 * 4 + 3 * 392), module_version_header(3, 4, OWN_CARD_ID) +
                                                            version_entry({version, version}) +
                                                            version_entry({version, version, "swid-bios-2"}) +
                                                            version_entry({version, version, "swid-bios-3"}));
    expect_serves_on();
}

// What must become of an answer that is random bytes. None: the failure answer.
std::optional<std::uint32_t> entries_of_garbage(const std::vector<std::uint8_t> &sent)
{
    constexpr std::size_t COUNT_OFFSET = 392;
    if (sent.size() < 260)
        return std::nullopt;
    if (sent.size() == 260)
        return 1;
    std::uint32_t count = 0; // beyond the answer's end there are zeros
    for (std::size_t place = COUNT_OFFSET; place < COUNT_OFFSET + 4; ++place)
        count = count << 8 | (place < sent.size() ? sent[place] : 0U);
    const std::uint64_t bytes = 16 + 392 * (std::uint64_t{count} + 1);
    return bytes > MTS_MAX_PAYLOAD_BYTES ? std::nullopt : std::optional(count + 1);
}

TEST_F(VersionQueries, GarbageIsForwardedOrAnsweredAsAFailure)
{
    constexpr unsigned FIRST_SLOT = 3;
    constexpr unsigned MODULES = 4;
    constexpr unsigned QUERIES = 150; // of each
    insert({.slot = 1});
    std::array<unsigned, MODULES> seeds{};
    for (unsigned k = 0; k < MODULES; ++k) {
        seeds[k] = std::random_device{}();
        std::printf("seed of slot %u: %u\n", FIRST_SLOT + k, seeds[k]);
        card_plan card = module(FIRST_SLOT + k, "garbage");
        card.answer_seed = seeds[k];
        insert(card);
    }
    start();
    unsigned forwarded = 0;
    for (unsigned k = 0; k < MODULES; ++k) {
        std::mt19937 random(seeds[k]);
        for (unsigned query = 0; query < QUERIES; ++query) {
            SCOPED_TRACE("slot " + std::to_string(FIRST_SLOT + k) + ", query " + std::to_string(query));
            const std::vector<std::uint8_t> sent = garbage_version_answer(random);
            const auto entries = entries_of_garbage(sent);
            const request_reply reply = ask_module(module_version_request(FIRST_SLOT + k));
            if (!entries) {
                expect_failure_of(reply, FIRST_SLOT + k);
                continue;
            }
            ++forwarded;
            ASSERT_EQ(reply.payload.size(), 16 + std::size_t{392} * *entries) << sent.size() << " bytes sent";
            EXPECT_EQ(reply.payload.substr(4, 8), be32_bytes(FIRST_SLOT + k) + be32_bytes(*entries));
        }
    }
    std::printf("%u of %u were forwarded\n", forwarded, MODULES * QUERIES);
    EXPECT_GT(forwarded, 0U);
    expect_serves_on();
    for (unsigned k = 0; k < MODULES; ++k)
        EXPECT_EQ(lines_with(FIRST_SLOT + k, "module_standin: answers with"), QUERIES);
}

TEST_F(VersionQueries, SilentModuleIsGivenUpAtTheLimit)
{
    constexpr unsigned LIMIT_S = 2;
    limit_waits(LIMIT_S);
    insert({.slot = 1});
    insert_module(3, "silent");
    start();
    const auto begin = std::chrono::steady_clock::now();
    expect_failure(3);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(elapsed.count(), LIMIT_S);
    EXPECT_LT(elapsed.count(), LIMIT_S + 2);
    EXPECT_EQ(lines_with(3, "keeps silent to opcode 4794"), 1U);
    EXPECT_EQ(lines_with(1, "Could not send bios upgrade cmd to the modules err=62 retcode=-1"), 1U);
    expect_serves_on();
}

TEST_F(VersionQueries, OperatorIsToldTheDaemonsOwnFailureAboutASilentModule)
{
    limit_waits(2);
    insert({.slot = 1});
    insert_module(3, "silent");
    start();
    const pid_t agent = agent_pid(3); // without it the daemon is asked
    ASSERT_EQ(::kill(agent, SIGSTOP), 0);
    const finished_program shown = biosctl({"show"});
    ASSERT_EQ(::kill(agent, SIGCONT), 0);
    EXPECT_EQ(shown.exit_code, 0) << shown.errors;
    EXPECT_NE(shown.output.find("slot 3: slot 1 got no versions from it\n"), std::string::npos) << shown.output;
    EXPECT_EQ(shown.output.find("in time"), std::string::npos) << shown.output;
    EXPECT_EQ(lines_with(1, "Could not send bios upgrade cmd to the modules err=62 retcode=-1"), 1U);
    expect_serves_on();
}

TEST_F(VersionQueries, ModulesThatAreNotThereAreFailures)
{
    insert({.slot = 1});
    insert({.slot = 2, .role = "standby", .serves = false});
    start();
    for (const std::uint32_t module : {2U, 9U, 232U, 0U, 233U, 255U, 256U, 257U, 0x80000000U, 0xffffffffU})
        expect_failure(module);
    expect_serves_on();
}

// What is missing of a request is zeros.
TEST_F(VersionQueries, ShortBodiesAreTakenForZeros)
{
    insert({.slot = 1});
    start();
    const std::string own = module_version_request(1);
    for (std::size_t bytes = 0; bytes < own.size(); ++bytes)
        expect_failure_of(ask_module(own.substr(0, bytes)), 0);
    expect_failure_of(ask_module("\x01"), 0x01000000);
    for (const std::size_t bytes : {0U, 3U, 4U, 200U})
        expect_no_source(std::string(bytes, '\0')); // no image tree, and no name either
    expect_serves_on();
    expect_tidy(1);
}

// A card has one flash, and the first row sends no notice.
TEST_F(VersionQueries, SourceOfTheImageTreeIsReadWithoutNotices)
{
    insert({.slot = 1});
    start();
    expect_source(source_version_request(true, "", asking().address()), new_image().version);
    EXPECT_EQ(asking().take_waiting(MTS_OPC_BIOS_SRC_VERSION_PROGRESS), 0U);
    // The image's name counts for nothing then.
    expect_source(source_version_request(true, std::string(256, '\xff'), NO_NOTICES), new_image().version);
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    expect_serves_on();
    expect_tidy(1);
}

TEST_F(VersionQueries, SourceOfASystemImageIsRead)
{
    insert({.slot = 1});
    start();
    make_system_image(on_bootflash(1, "system.img"), 90, image("3.1"));
    expect_source(source_version_request(false, "/bootflash/system.img", asking().address()), image("3.1").version);
    EXPECT_EQ(asking().take_waiting(MTS_OPC_BIOS_SRC_VERSION_PROGRESS), 0U);
    expect_serves_on();
    expect_tidy(1);
}

TEST_F(VersionQueries, CardWithoutImageTreeHasNoSource)
{
    insert({.slot = 1, .in_tree = nullptr});
    start();
    expect_no_source(source_version_request(true, "", NO_NOTICES));
    expect_serves_on();
    expect_tidy(1);
}

TEST_F(VersionQueries, PathsForgeNoLineOfTheLog)
{
    insert({.slot = 1});
    start();
    expect_no_source(source_version_request(false, "/bootflash/x\nmain.cpp:1: forged\x1b[2J\x9b", NO_NOTICES));
    const std::string log = log_of(1);
    EXPECT_EQ(log.find("\nmain.cpp:1: forged"), std::string::npos) << log;
    EXPECT_NE(log.find("/bootflash/x?main.cpp:1: forged?[2J?"), std::string::npos) << log;
}

TEST_F(VersionQueries, HostileImagePathsRunNoCommand)
{
    insert({.slot = 1});
    start();
    make_system_image(on_bootflash(1, "system.img"), 90, image("3.1"));
    for (const char *path :
         {"/bootflash/a;touch /bootflash/pwned", "$(touch /bootflash/pwned)", "`touch /bootflash/pwned`",
          "/bootflash/system.img|touch /bootflash/pwned", "/bootflash/system.img\ntouch /bootflash/pwned",
          "/bootflash/system.img >/bootflash/pwned", "-rf", "'/bootflash/system.img'", ""}) {
        SCOPED_TRACE(path);
        expect_no_source(source_version_request(false, path, NO_NOTICES));
        EXPECT_FALSE(card_has(1, "/bootflash/pwned"));
    }
    // No end, neither with characters that a shell would take nor with harmless ones.
    expect_no_source(source_version_request(false, std::string(256, ';'), NO_NOTICES));
    expect_no_source(source_version_request(false, std::string(256, 'a'), NO_NOTICES));
    EXPECT_FALSE(std::filesystem::exists("/bootflash/pwned"));
    expect_serves_on();
    expect_tidy(1);
    expect_next_succeeds();
}
