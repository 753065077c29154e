// The version queries: which report serves them, and with what.
#include "version_requests.h"

#include "bios_daemon_state.h"
#include "bios_messages.h"
#include "record_forms.h"
#include "version_message.h"

namespace
{

const std::uint8_t *payload_of_the_first; // what the payload of message #1 is recorded as

std::string named(const void *payload)
{
    if (payload == nullptr)
        return "null";
    return payload == payload_of_the_first ? "payload of #1" : "another payload";
}

std::string named_table(const bios_card_table *table)
{
    return table == self_card_id_tbl ? "own rows" : "other rows";
}

} // namespace

extern "C" {

std::uint32_t __wrap_get_sw_card_id()
{
    return static_cast<std::uint32_t>(platform().called("get_sw_card_id", "", {271, 0}).value);
}

std::int32_t __wrap_bios_return_src_version(std::int32_t handle, const bios_src_version_req *request,
                                            mts_message_t *msg)
{
    const bool copied = request != reinterpret_cast<const bios_src_version_req *>(msg->payload.data() + 112);
    platform().note(copied ? "copied()" : "not copied()");
    platform().note("body(" + dumped(request, 268) + ")");
    return status(platform().called("bios_return_src_version", joined({text(handle), "#" + text(msg->number)})));
}

std::int32_t __wrap_bios_get_version_info_from_mod(std::int32_t handle, std::uint32_t module_num,
                                                   mts_message_t *msg, const pfm_module_record_t *pfm_records,
                                                   std::uint32_t module)
{
    return status(
        platform().called("bios_get_version_info_from_mod",
                          joined({text(handle), text(module_num), "#" + text(msg->number),
                                  pfm_records == pfm_info ? "pfm_info" : "other records", text(module)})));
}

std::int32_t __wrap_bios_get_new_self_version_info(std::int32_t handle, std::uint32_t module_num,
                                                   mts_message_t *msg, const void *payload,
                                                   const bios_card_table *table)
{
    return status(platform().called(
        "bios_get_new_self_version_info",
        joined({text(handle), text(module_num), "#" + text(msg->number), named(payload), named_table(table)})));
}

std::int32_t __wrap_bios_get_self_version_info(std::int32_t handle, mts_message_t *msg, const void *payload,
                                               const bios_card_table *table)
{
    return status(platform().called("bios_get_self_version_info", joined({text(handle), "#" + text(msg->number),
                                                                          named(payload), named_table(table)})));
}

} // extern "C"

namespace
{

// The daemon in slot 5, on card 271.
class VersionRequests : public daemon_test
{
protected:
    VersionRequests()
    {
        context_.handle = 7;
        context_.my_module_num = 5;
        self_card_id_tbl = &rows_;
    }
    ~VersionRequests() override
    {
        self_card_id_tbl = nullptr;
        payload_of_the_first = nullptr;
    }

    static mts_message_t *message(std::uint32_t opcode, const bytes &body)
    {
        mts_message_t *made = platform().message(opcode, request(body));
        if (made->number == 1)
            payload_of_the_first = made->payload.data();
        return made;
    }
    std::uint32_t ask_source(const bytes &body)
    {
        return handle_get_src_bios_version(context_, message(4789, body));
    }
    std::uint32_t ask_module(const bytes &body)
    {
        return handle_get_mod_bios_version(context_, message(4790, body));
    }
    std::uint32_t ask_line_card(const bytes &body = {})
    {
        return handle_get_lc_bios_version(context_, message(4794, body));
    }
    static void has_card(std::int64_t card_id) { platform().every_result("get_sw_card_id", {card_id, 0}); }
    static lines served()
    {
        return platform().story({"bios_return_src_version", "bios_get_version_info_from_mod",
                                 "bios_get_new_self_version_info", "bios_get_self_version_info", "cmi_response"});
    }

    daemon_context context_{};

private:
    bios_card_table rows_{};
};

// Source versions.

bytes source_body(const bytes &sap)
{
    return message_bytes(268, 0x5a).text(4, "/bootflash/system.bin").put(264, sap).content();
}

TEST_F(VersionRequests, ForSourceVersionsAreServedWithACopyOfTheBody)
{
    const bytes body = source_body({94, 0, 0, 0});
    EXPECT_EQ(ask_source(body), 0u);
    EXPECT_EQ(platform().story({"mts_payload_get", "log", "setpriority", "copied", "bios_return_src_version"}),
              (lines{"mts_payload_get(#1)", "log(called MTS_OPC_BIOS_GET_SRC_BIOS_VERSION)", "copied()",
                     "bios_return_src_version(7, #1)"}));
    EXPECT_EQ(platform().calls("body"), lines{"body(" + dumped(body.data(), body.size()) + ")"});
}

TEST_F(VersionRequests, OfSap93AreServedAtTheLowestPriority)
{
    EXPECT_EQ(ask_source(source_body({93, 0, 0, 0})), 0u);
    EXPECT_EQ(platform().story({"setpriority", "bios_return_src_version"}),
              (lines{"setpriority(PRIO_PROCESS, own process, 20)", "bios_return_src_version(7, #1)",
                     "setpriority(PRIO_PROCESS, own process, 0)"}));
}

TEST_F(VersionRequests, OfAnyOtherSapLeaveThePriority)
{
    for (const bytes &sap : {bytes{92, 0, 0, 0}, bytes{94, 0, 0, 0}, bytes{0, 0, 0, 93}, bytes{93, 1, 0, 0},
                             bytes{93, 0, 0, 1}, bytes{0, 0, 0, 0}, bytes{0xff, 0xff, 0xff, 0xff}})
        EXPECT_EQ(ask_source(source_body(sap)), 0u);
    EXPECT_EQ(platform().calls("setpriority"), lines{});
    EXPECT_EQ(served().size(), 7u);
}

TEST_F(VersionRequests, ForSourceVersionsDoNotEndTheDaemonWhenTheyFail)
{
    platform().every_result("bios_return_src_version", {0x40710006, 0});
    EXPECT_EQ(ask_source(source_body({93, 0, 0, 0})), 0u);
    EXPECT_EQ(platform().calls("setpriority").back(), "setpriority(PRIO_PROCESS, own process, 0)");
}

TEST_F(VersionRequests, WithAShortBodyAreReadAsIfZerosFollowed)
{
    EXPECT_EQ(ask_source({1, 0, 0, 0}), 0u);
    const bytes body = message_bytes(268).put(0, {1}).content();
    EXPECT_EQ(platform().calls("body"), lines{"body(" + dumped(body.data(), body.size()) + ")"});
    EXPECT_EQ(platform().calls("setpriority"), lines{});
}

// Versions of a module.

TEST_F(VersionRequests, ForAnotherModuleAreForwardedToIt)
{
    EXPECT_EQ(ask_module({0, 0, 0, 9}), 0u);
    EXPECT_EQ(platform().story({"mts_payload_get", "log", "get_sw_card_id", "bios_get_version_info_from_mod",
                                "bios_get_new_self_version_info"}),
              (lines{"mts_payload_get(#1)", "log(called MTS_OPC_BIOS_GET_MOD_BIOS_VERSION)",
                     "log(NEW VERSION: SUP : Got version request for mod=9 my mod = 5)", "get_sw_card_id()",
                     "bios_get_version_info_from_mod(7, 9, #1, pfm_info, 9)"}));
}

TEST_F(VersionRequests, ForTheOwnModuleAreServedFromTheOwnRows)
{
    EXPECT_EQ(ask_module({0, 0, 0, 5}), 0u);
    EXPECT_EQ(served(), lines{"bios_get_new_self_version_info(7, 5, #1, payload of #1, own rows)"});
    EXPECT_TRUE(platform().logged("NEW VERSION: SUP : Got version request for mod=5 my mod = 5"));
}

TEST_F(VersionRequests, HaveAModuleNumberOf32BitsWithTheHighByteFirst)
{
    EXPECT_EQ(ask_module({1, 2, 3, 4}), 0u);
    EXPECT_EQ(ask_module({5, 0, 0, 0}), 0u);
    EXPECT_EQ(ask_module({0, 0, 1, 5}), 0u); // 5 in its low byte alone
    EXPECT_EQ(served(), (lines{"bios_get_version_info_from_mod(7, 16909060, #1, pfm_info, 16909060)",
                               "bios_get_version_info_from_mod(7, 83886080, #2, pfm_info, 83886080)",
                               "bios_get_version_info_from_mod(7, 261, #3, pfm_info, 261)"}));
}

TEST_F(VersionRequests, ForNumbersThatNoModuleHasAreForwardedAsTheyAre)
{
    EXPECT_EQ(ask_module({0, 0, 0, 0}), 0u);
    EXPECT_EQ(ask_module({0, 0, 0, 233}), 0u);
    EXPECT_EQ(ask_module({0xff, 0xff, 0xff, 0xff}), 0u);
    EXPECT_EQ(served(), (lines{"bios_get_version_info_from_mod(7, 0, #1, pfm_info, 0)",
                               "bios_get_version_info_from_mod(7, 233, #2, pfm_info, 233)",
                               "bios_get_version_info_from_mod(7, 4294967295, #3, pfm_info, 4294967295)"}));
    EXPECT_TRUE(platform().logged("NEW VERSION: SUP : Got version request for mod=-1 my mod = 5"));
}

TEST_F(VersionRequests, OfAModuleDoNotEndTheDaemonWhenTheyFail)
{
    platform().every_result("bios_get_version_info_from_mod", {-1, 62});
    platform().every_result("bios_get_new_self_version_info", {-1, 0});
    platform().every_result("bios_get_self_version_info", {static_cast<std::int32_t>(0xbf8effd8), 0});
    EXPECT_EQ(ask_module({0, 0, 0, 9}), 0u);
    EXPECT_EQ(ask_module({0, 0, 0, 5}), 0u);
    EXPECT_EQ(ask_line_card(), 0u);
}

TEST_F(VersionRequests, EndTheDaemonWhenTheCardIdIs0)
{
    for (const std::int64_t card_id : {0, 0x10000}) { // the low 16 bits are the card id
        has_card(card_id);
        EXPECT_EQ(ask_module({0, 0, 0, 5}), 0x40710030u);
        EXPECT_EQ(platform().logs().back(), "get sw card id failed");
    }
    EXPECT_EQ(served(), lines{});
}

TEST_F(VersionRequests, ForSourcesAndLineCardsDoNotAskForTheCardId)
{
    has_card(0);
    EXPECT_EQ(ask_source(source_body({93, 0, 0, 0})), 0u);
    EXPECT_EQ(ask_line_card(), 0u);
    EXPECT_EQ(platform().calls("get_sw_card_id"), lines{});
}

TEST_F(VersionRequests, MeanModule18OnTheFiveTarvikASupervisors)
{
    for (const int card_id : {183, 282, 314, 316, 318}) {
        has_card(card_id);
        EXPECT_EQ(ask_module({0, 0, 0, 5}), 0u);
        const lines told = platform().logs();
        EXPECT_EQ(lines(told.end() - 3, told.end()),
                  (lines{"NEW VERSION: SUP : Got version request for mod=5 my mod = 5",
                         "main: *** tarvik-a hack: sup_id=" + text(card_id) + ", module_num=5, my_module_num=5",
                         "main: *** tarvik-a hack: setting module_num to 18"}));
        EXPECT_THAT(served().back(), testing::StartsWith("bios_get_version_info_from_mod(7, 18, #"));
        EXPECT_THAT(served().back(), testing::EndsWith(", pfm_info, 18)"));
    }
    EXPECT_EQ(served().size(), 5u);
}

TEST_F(VersionRequests, ForWhateverModuleAreServedFromTheOwnRowsOnATarvikASupervisorInSlot18)
{
    context_.my_module_num = 18;
    has_card(0x10000 + 316);
    EXPECT_EQ(ask_module({0xff, 0xff, 0xff, 0xff}), 0u);
    EXPECT_EQ(served(), lines{"bios_get_new_self_version_info(7, 18, #1, payload of #1, own rows)"});
    EXPECT_TRUE(platform().logged("main: *** tarvik-a hack: sup_id=316, module_num=-1, my_module_num=18"));
}

TEST_F(VersionRequests, MeanTheModuleThatTheyNameOnOtherCards)
{
    for (const int card_id : {1, 182, 184, 281, 283, 313, 315, 317, 319, 0xffff}) {
        has_card(card_id);
        EXPECT_EQ(ask_module({0, 0, 0, 9}), 0u);
        EXPECT_THAT(served().back(), testing::EndsWith(", pfm_info, 9)")) << card_id;
    }
    EXPECT_THAT(platform().logs(), testing::Not(testing::Contains(testing::HasSubstr("tarvik-a"))));
}

// Versions of the own card for the supervisor that asks.

TEST_F(VersionRequests, OfASupervisorAreServedWithoutPayloadWhenTheyAreTheFirst)
{
    EXPECT_EQ(ask_line_card({'A', 'B', 'C', 'D'}), 0u);
    EXPECT_EQ(platform().story({"mts_payload_get", "log", "bios_get_self_version_info"}),
              (lines{"log(called MTS_OPC_BIOS_GET_LC_BIOS_VERSION)",
                     "bios_get_self_version_info(7, #1, null, own rows)"}));
}

TEST_F(VersionRequests, OfASupervisorAreServedWithThePayloadOfTheRequestBefore)
{
    EXPECT_EQ(ask_module({0, 0, 0, 9}), 0u);
    EXPECT_EQ(ask_line_card(), 0u);
    EXPECT_EQ(ask_line_card(), 0u);
    EXPECT_EQ(platform().calls("bios_get_self_version_info"),
              (lines{"bios_get_self_version_info(7, #2, payload of #1, own rows)",
                     "bios_get_self_version_info(7, #3, payload of #1, own rows)"}));
    EXPECT_EQ(platform().calls("mts_payload_get"), lines{"mts_payload_get(#1)"});
}

TEST_F(VersionRequests, ForSourcesLeaveTheirPayloadTooAndTheLastOneCounts)
{
    EXPECT_EQ(ask_source(source_body({94, 0, 0, 0})), 0u);
    EXPECT_EQ(ask_line_card(), 0u);
    EXPECT_EQ(ask_module({0, 0, 0, 9}), 0u);
    EXPECT_EQ(ask_line_card(), 0u);
    EXPECT_EQ(platform().calls("bios_get_self_version_info"),
              (lines{"bios_get_self_version_info(7, #2, payload of #1, own rows)",
                     "bios_get_self_version_info(7, #4, another payload, own rows)"}));
}

TEST_F(VersionRequests, LeaveTheirPayloadAlsoWhenTheyEndTheDaemon)
{
    has_card(0);
    EXPECT_EQ(ask_module({0, 0, 0, 9}), 0x40710030u);
    EXPECT_EQ(context_.payload, payload_of_the_first);
}

} // namespace
