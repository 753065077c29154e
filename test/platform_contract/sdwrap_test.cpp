// platform/sdwrap.h: debug categories, history, syslog.
#include "sdwrap.h"

#include <cstring>
#include <thread>
#include <unistd.h>
#include <vector>

#include "contract_test.h"
#include "hex.h"

namespace
{

using namespace std::chrono_literals;

constexpr std::uint32_t EVENT_TYPE = 0x730000;
constexpr std::uint32_t EVENT_SUBTYPE = 102;
constexpr std::uint32_t FIRST_CATEGORY = 100; // of the daemon's three
constexpr std::uint32_t CATEGORY = 102;
constexpr auto RECORD_TIME = 10s;
constexpr std::size_t RECORD_BYTES = 65536;
constexpr std::size_t LONGEST_TEXT = 255;

// A text that no earlier run has left in a record.
std::string unique_text(const char *what)
{
    return std::string("contract ") + what + " " + std::to_string(::getpid()) + "." +
           std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
}

// As long as the longest line that the daemon logs.
std::string padded(std::string text)
{
    text.resize(LONGEST_TEXT, 'x');
    text.back() = 'e';
    return text;
}

// What is recorded once it has the text, or when the time is up. Sets the reason when it cannot be read.
std::string record_with(contract_record record, const std::string &text, const char *&reason)
{
    const auto deadline = std::chrono::steady_clock::now() + RECORD_TIME;
    std::vector<char> found(RECORD_BYTES);
    for (;;) {
        reason = contract_read_record(record, found.data(), found.size());
        if (reason != nullptr || std::strstr(found.data(), text.c_str()) != nullptr ||
            std::chrono::steady_clock::now() > deadline)
            return reason == nullptr ? found.data() : "";
        std::this_thread::sleep_for(20ms);
    }
}

class Sdwrap : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_GE(own_endpoint(), 0);
        (void)register_debug();
        (void)register_syslog();
    }
};

using SdwrapDbgInit = Sdwrap;
using SdwrapSysInitHelper = Sdwrap;
using SdwrapChkInt = Sdwrap;
using SdwrapHistEvent = Sdwrap;
using Buginf = Sdwrap;
using VeskSyslog = Sdwrap;
using SdwrapProcessMsg = SameCardTest;

} // namespace

TEST_F(SdwrapDbgInit, RegistersTheDebugCategories)
{
    EXPECT_EQ(register_debug(), 0);
}

TEST_F(SdwrapSysInitHelper, RegistersTheFacilityAndLeavesALevel)
{
    EXPECT_EQ(register_syslog(), 0);
    ASSERT_NE(sdwrap_sys_facility, nullptr);
    EXPECT_STREQ(sdwrap_sys_facility->name, "bios_daemon");
    EXPECT_LE(sdwrap_sys_facility->current_level, 7);
}

// But for those that a platform may answer itself, because the card must not serve them now.
TEST_F(SdwrapProcessMsg, LeavesTheDaemonsMessagesToTheDaemon)
{
    for (const unsigned opcode : {4700U, 4703U, 4790U, 4795U}) {
        ASSERT_EQ(peer_->ask("send " + std::to_string(own_node()) + " " + std::to_string(contract_sap(0)) + " " +
                             std::to_string(opcode) + " 00"),
                  "ok");
        const held_message message = receive(10);
        ASSERT_TRUE(message);
        EXPECT_EQ(sdwrap_process_msg(own_endpoint(), message.get()), 1) << "opcode " << opcode;
    }
}

TEST_F(SdwrapChkInt, TellsWhetherACategoryIsSwitchedOn)
{
    NEEDS(contract_set_debug_category(CATEGORY, 1));
    EXPECT_NE(sdwrap_chk_int(CATEGORY, 0, 0, 1), 0);
    NEEDS(contract_set_debug_category(CATEGORY, 0));
    EXPECT_EQ(sdwrap_chk_int(CATEGORY, 0, 0, 1), 0);
}

TEST_F(SdwrapChkInt, KeepsTheCategoriesApart)
{
    NEEDS(contract_set_debug_category(CATEGORY, 0));
    NEEDS(contract_set_debug_category(FIRST_CATEGORY, 1));
    EXPECT_EQ(sdwrap_chk_int(CATEGORY, 0, 0, 1), 0);
    EXPECT_NE(sdwrap_chk_int(FIRST_CATEGORY, 0, 0, 1), 0);
    NEEDS(contract_set_debug_category(FIRST_CATEGORY, 0));
}

TEST_F(SdwrapHistEvent, RecordsACopyOfTheText)
{
    if (sdwrap_hist_event_subtype_check(EVENT_TYPE, EVENT_SUBTYPE) != 0)
        GTEST_SKIP() << "events of this subtype are not recorded";
    const std::string text = unique_text("event");
    std::vector<char> given(text.begin(), text.end());
    given.push_back('\0');
    EXPECT_EQ(sdwrap_hist_event(EVENT_TYPE, static_cast<std::uint32_t>(text.size()), given.data()), 0);
    std::memset(given.data(), 'X', given.size());
    const char *reason = nullptr;
    const std::string history = record_with(CONTRACT_HISTORY, text, reason);
    NEEDS(reason);
    EXPECT_NE(history.find(text), std::string::npos) << history;
}

TEST_F(SdwrapHistEvent, KeepsATextOf255Characters)
{
    if (sdwrap_hist_event_subtype_check(EVENT_TYPE, EVENT_SUBTYPE) != 0)
        GTEST_SKIP() << "events of this subtype are not recorded";
    const std::string text = padded(unique_text("long event"));
    EXPECT_EQ(sdwrap_hist_event(EVENT_TYPE, static_cast<std::uint32_t>(text.size()), text.c_str()), 0);
    const char *reason = nullptr;
    const std::string history = record_with(CONTRACT_HISTORY, text, reason);
    NEEDS(reason);
    EXPECT_NE(history.find(text), std::string::npos) << history;
}

TEST_F(Buginf, PrintsAFormattedMessage)
{
    NEEDS(contract_set_debug_category(CATEGORY, 1));
    const std::string text = unique_text("debug");
    buginf("%s %d%%", text.c_str(), 42);
    const char *reason = nullptr;
    const std::string output = record_with(CONTRACT_DEBUG_OUTPUT, text, reason);
    (void)contract_set_debug_category(CATEGORY, 0);
    NEEDS(reason);
    EXPECT_NE(output.find(text + " 42%"), std::string::npos) << output;
}

TEST_F(Buginf, PrintsAMessageOf255Characters)
{
    NEEDS(contract_set_debug_category(CATEGORY, 1));
    const std::string text = padded(unique_text("long debug"));
    buginf("%s", text.c_str());
    const char *reason = nullptr;
    const std::string output = record_with(CONTRACT_DEBUG_OUTPUT, text, reason);
    (void)contract_set_debug_category(CATEGORY, 0);
    NEEDS(reason);
    EXPECT_NE(output.find(text), std::string::npos) << output;
}

TEST_F(VeskSyslog, FillsInPercentSignFacilityAndSeverity)
{
    const std::string text = unique_text("syslog");
    const std::string format = "<<%%%s-%d-CONTRACT>> " + text;
    vesk_syslog(2, format.c_str(), "BIOS_DAEMON", 2);
    const char *reason = nullptr;
    const std::string syslog = record_with(CONTRACT_SYSLOG, text, reason);
    NEEDS(reason);
    EXPECT_NE(syslog.find("<<%BIOS_DAEMON-2-CONTRACT>> " + text), std::string::npos) << syslog;
}
