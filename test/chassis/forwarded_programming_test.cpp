// The active supervisor forwards a programming to another module, whose daemon is played by the test: what it sends
// there, what it relays, what it takes for the end, and what is locked meanwhile.
#include <csignal>
#include <cstring>

#include "bios_flash.h"
#include "bios_opcodes.h"
#include "bios_results.h"
#include "chassis_fixture.h"
#include "held_locks.h"
#include "played_module.h"

namespace
{

constexpr unsigned ACTIVE = 1;
constexpr unsigned TARGET = 2;
constexpr std::uint32_t ACTIVE_NODE = 0x101;
constexpr std::uint32_t TARGET_NODE = 0x201;
const held_locks BOTH_BY_THE_ACTIVE = {{ACTIVE_NODE, ACTIVE}, {TARGET_NODE, ACTIVE}};
const held_locks NONE = {};
constexpr const char *RUNNING_VERSION_RECORD = "/mnt/pss/bios_run_ver";

class ForwardedProgramming : public chassis_test
{
protected:
    void SetUp() override
    {
        insert({.slot = ACTIVE});
        insert({.slot = TARGET, .role = "standby", .in_tree = nullptr, .serves = false});
        up();
        target_.emplace(chassis_directory(), TARGET);
        daemon_ = daemon_pid(ACTIVE);
    }
    // The request is accepted and the forwarded one has come; it is not answered yet.
    void start(requester &asking, const programming_options &options = {})
    {
        seen_ = asking.start(TARGET, options);
        ASSERT_EQ(seen_.error, 0);
        ASSERT_EQ(seen_.answer, 0U) << seen_;
        ASSERT_TRUE(target_->await_request(MTS_OPC_BIOS_PROGRAMMING_START));
    }
    void expect_end(requester &asking, std::uint32_t result)
    {
        asking.await_end(seen_);
        EXPECT_EQ(seen_.result, std::optional(result)) << seen_;
        EXPECT_EQ(seen_.module, std::optional<std::uint32_t>(TARGET));
        EXPECT_EQ(locks_held(), NONE) << "the locks go before the notice is sent";
        EXPECT_EQ(flash_of(ACTIVE) == old_image().bytes, true) << "the supervisor's own flash was written";
        EXPECT_EQ(daemon_pid(ACTIVE), daemon_) << "the daemon has ended";
        expect_tidy(ACTIVE);
    }
    played_module &target() { return *target_; }

    programming seen_;

private:
    std::optional<played_module> target_;
    pid_t daemon_ = 0;
};

std::string words(const std::vector<std::uint32_t> &values)
{
    std::string bytes;
    for (const std::uint32_t value : values) {
        be32 word;
        word.store(value);
        bytes.append(reinterpret_cast<const char *>(&word), sizeof word);
    }
    return bytes;
}

// What a record of twelve bytes holds, to be compared with words().
std::string bytes_of(const progress_record &record)
{
    return words({record.phase, record.percent, record.attempt});
}

std::string text_in(const std::string &header, std::size_t place)
{
    return header.c_str() + place;
}

} // namespace

TEST_F(ForwardedProgramming, IsTheRequestAsItCameAndItsProgressIsRelayedUnchanged)
{
    requester asking;
    start(asking);
    const bios_programming_req_t asked = programming_request(TARGET, {});
    EXPECT_EQ(target().body(), std::string(reinterpret_cast<const char *>(&asked), sizeof asked));
    EXPECT_EQ(text_in(target().header(), 0), "ABCD");
    EXPECT_EQ(text_in(target().header(), 32), "ABCD");
    EXPECT_EQ(target().asker().node, ACTIVE_NODE);
    EXPECT_NE(target().asker().sap, static_cast<std::uint32_t>(BIOS_DAEMON_SAP))
        << "the child has its own endpoint";
    EXPECT_EQ(locks_held(), BOTH_BY_THE_ACTIVE);

    target().answer(0);
    // No programming reports such numbers: nobody on the way looks at them.
    const std::string records[] = {words({1, 10, 1}), words({0xdeadbeef, 0xffffffff, 0x80000001}),
                                   words({0, 7, 0})};
    for (const std::string &record : records)
        ASSERT_TRUE(target().send(MTS_OPC_BIOS_PROGRAMMING_PROGRESS, record));
    ASSERT_TRUE(asking.await_progress(
        seen_, [](const programming &so_far) { return so_far.progress.size() == 3; }, std::chrono::seconds(30)));
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(bytes_of(seen_.progress[i]), records[i]);
    EXPECT_EQ(locks_held(), BOTH_BY_THE_ACTIVE);
    EXPECT_TRUE(card_has(ACTIVE, RUNNING_VERSION_RECORD));

    ASSERT_TRUE(target().send_end(BIOS_FLASH_ERR_ERASE));
    expect_end(asking, BIOS_FLASH_ERR_ERASE);
    EXPECT_EQ(seen_.progress.size(), 3U);
    EXPECT_FALSE(card_has(ACTIVE, RUNNING_VERSION_RECORD)) << "the record outlived the failure";
    for (const char *line : {"mod=2 dest_node=201", "resp = 0", "MTS_OPC_BIOS_PROGRAMMING_DONE status=40710009",
                             "Got ret=40710009 from prog modules call",
                             "Got retcode = 40710009 from programming request", "exit=900 retcode=40710009"})
        EXPECT_EQ(lines_with(ACTIVE, line), 1U) << line;
}

// The module's daemon may be of another release: what this one does not know is forwarded as well.
TEST_F(ForwardedProgramming, IsEveryByteOfTheRequest)
{
    bios_programming_req_t asked = programming_request(TARGET, {});
    std::strcpy(asked.uri, "nowhere:image.bin"); // is not looked at
    std::memset(asked.reserved, 0xa5, sizeof asked.reserved);
    std::memset(asked.local_path, 0xff, sizeof asked.local_path); // stays: nothing is mapped
    const std::string body(reinterpret_cast<const char *>(&asked), sizeof asked);
    requester asking;
    int error = 0;
    ASSERT_EQ(asking.request(ACTIVE, MTS_OPC_BIOS_PROGRAMMING_START, body + "more", error), std::optional(0U));
    ASSERT_TRUE(target().await_request(MTS_OPC_BIOS_PROGRAMMING_START));
    EXPECT_EQ(target().body() == body, true);
    target().answer(0);
    ASSERT_TRUE(target().send_end(0));
    expect_end(asking, 0);
}

// A module that is very quick tells its end before its answer: the transport keeps it for the child.
TEST_F(ForwardedProgramming, TakesAnEndThatComesBeforeTheAnswer)
{
    requester asking;
    start(asking);
    ASSERT_TRUE(target().send(MTS_OPC_BIOS_PROGRAMMING_PROGRESS, words({3, 100, 1})));
    ASSERT_TRUE(target().send_end(0));
    target().answer(0);
    expect_end(asking, 0);
    EXPECT_EQ(seen_.progress.size(), 1U);
    EXPECT_TRUE(card_has(ACTIVE, RUNNING_VERSION_RECORD));
}

// Progress messages of any length are relayed as twelve bytes, and everything that is neither progress nor the end
// is dropped in silence, however short or long.
TEST_F(ForwardedProgramming, SurvivesWhateverTheTargetSends)
{
    constexpr std::size_t LONGEST = 1 << 20;
    constexpr std::uint32_t OPCODES[] = {0,    1,    4700, 4701, 4702, 4703, 4788,       4789,
                                         4790, 4791, 4792, 4794, 4796, 4797, 0x7fffffff, 0xffffffff};
    const std::string pattern(LONGEST, '\xab');
    requester asking;
    start(asking);
    target().answer(0);
    const pid_t child = child_pid(ACTIVE);
    for (const std::uint32_t opcode : OPCODES) {
        for (const std::size_t length : {0UL, 1UL, 3UL, 4UL, 111UL, 112UL, 113UL, 641UL, 70000UL})
            ASSERT_TRUE(wait_until([&] { return target().send(opcode, pattern.substr(0, length)); })) << opcode;
    }
    std::vector<std::string> relayed;
    for (const std::size_t length :
         {0UL, 1UL, 11UL, 12UL, 13UL, 600UL, 70000UL, static_cast<unsigned long>(LONGEST)}) {
        ASSERT_TRUE(wait_until(
            [&] { return target().send(MTS_OPC_BIOS_PROGRAMMING_PROGRESS, pattern.substr(0, length)); }));
        std::string twelve = pattern.substr(0, std::min<std::size_t>(length, 12));
        twelve.resize(12, '\0');
        relayed.push_back(twelve);
    }
    ASSERT_TRUE(asking.await_progress(
        seen_, [&](const programming &so_far) { return so_far.progress.size() == relayed.size(); },
        std::chrono::seconds(60)))
        << seen_.progress.size() << " of " << relayed.size() << " were relayed with twelve bytes";
    for (std::size_t i = 0; i < relayed.size(); ++i)
        EXPECT_EQ(bytes_of(seen_.progress[i]), relayed[i]) << "message " << i;
    EXPECT_EQ(child_pid(ACTIVE), child) << "something was taken for the end";
    EXPECT_EQ(locks_held(), BOTH_BY_THE_ACTIVE);

    // An end without a status reads as 0, as the payload is zero behind its end.
    ASSERT_TRUE(target().send(MTS_OPC_BIOS_PROGRAMMING_DONE, ""));
    expect_end(asking, 0);
    EXPECT_EQ(lines_with(ACTIVE, "MTS_OPC_BIOS_PROGRAMMING_DONE status=0"), 1U);
    EXPECT_EQ(lines_with(ACTIVE, "ERROR: mts_recv error"), 0U);
}

TEST_F(ForwardedProgramming, ReadsTheFirstWordOfALongerEnd)
{
    requester asking;
    start(asking);
    target().answer(0);
    ASSERT_TRUE(target().send(MTS_OPC_BIOS_PROGRAMMING_DONE, words({BIOS_ERR_NO_ENTRIES, 0, 0xffffffff})));
    expect_end(asking, BIOS_ERR_NO_ENTRIES);
}

TEST_F(ForwardedProgramming, RefusesASecondRequestAndServesQueriesMeanwhile)
{
    requester first;
    requester second;
    start(first);
    const pid_t child = child_pid(ACTIVE);
    for (const bool answered : {false, true}) { // while the module is asked, and while its end is awaited
        if (answered)
            target().answer(0);
        EXPECT_EQ(second.start(TARGET).answer, BIOS_ERR_BUSY);
        EXPECT_EQ(second.start(ACTIVE).answer, BIOS_ERR_BUSY);
        const request_reply versions = second.ask(ACTIVE, MTS_OPC_BIOS_GET_LC_BIOS_VERSION, "ABCD");
        EXPECT_EQ(versions.error, 0);
        EXPECT_NE(versions.payload.find(old_image().version), std::string::npos);
        EXPECT_EQ(locks_held(), BOTH_BY_THE_ACTIVE) << "the refusal has freed a lock";
        EXPECT_EQ(child_pid(ACTIVE), child) << "the refused request has forked";
    }
    EXPECT_EQ(lines_with(ACTIVE, "Sorry busy ... in progress here "), 4U);

    ASSERT_TRUE(target().send_end(BIOS_FLASH_ERR_PROGRAM));
    expect_end(first, BIOS_FLASH_ERR_PROGRAM);
    programming overheard;
    second.await_end(overheard);
    EXPECT_EQ(overheard.result, std::optional<std::uint32_t>(BIOS_FLASH_ERR_PROGRAM));
}

TEST_F(ForwardedProgramming, EndsForAllOthersWhenTheRequesterDies)
{
    requester listener;
    {
        requester asking;
        start(asking);
    }
    target().answer(0);
    for (const std::uint32_t percent : {0U, 50U, 100U})
        ASSERT_TRUE(target().send(MTS_OPC_BIOS_PROGRAMMING_PROGRESS, words({1, percent, 1})));
    EXPECT_EQ(locks_held(), BOTH_BY_THE_ACTIVE);
    ASSERT_TRUE(target().send_end(BIOS_ERR_IMAGE_NOT_REMOVED));
    expect_end(listener, BIOS_ERR_IMAGE_NOT_REMOVED);
    EXPECT_TRUE(seen_.progress.empty()) << "progress goes to the requester alone";
}

TEST_F(ForwardedProgramming, LeavesNoLockWhenTheSupervisorsDaemonIsKilled)
{
    std::optional<requester> asking(std::in_place);
    start(*asking);
    target().answer(0);
    ASSERT_EQ(locks_held(), BOTH_BY_THE_ACTIVE);
    const pid_t daemon = daemon_pid(ACTIVE);
    const pid_t child = child_pid(ACTIVE);
    ASSERT_NE(child, 0);

    ASSERT_EQ(::kill(daemon, SIGKILL), 0);

    EXPECT_TRUE(wait_until([&] { return ::kill(child, 0) != 0; })) << "the child outlived its daemon";
    EXPECT_TRUE(wait_until([&] { return locks_held() == NONE; }));
    EXPECT_FALSE(target().send_end(0)) << "somebody still waits for the end";
    ASSERT_TRUE(wait_until([&] {
        return daemon_pid(ACTIVE) != 0 && daemon_pid(ACTIVE) != daemon &&
               file_content(slot_file(ACTIVE, "state")).starts_with("serving");
    }));
    asking.emplace();
    start(*asking);
    EXPECT_EQ(locks_held(), BOTH_BY_THE_ACTIVE);
    target().answer(0);
    ASSERT_TRUE(target().send_end(0));
    asking->await_end(seen_);
    EXPECT_EQ(seen_.result, std::optional<std::uint32_t>(0)) << seen_;
    EXPECT_EQ(locks_held(), NONE);
    expect_tidy(ACTIVE);
}
