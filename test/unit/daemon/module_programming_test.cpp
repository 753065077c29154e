// Programming of another module: the forwarded request and the wait for its end.
#include "module_programming.h"

#include <cerrno>

#include "daemon_test.h"

namespace
{

// A child with endpoint 8; the requester is at node 0x201, sap 93.
class ModuleProgramming : public daemon_test
{
protected:
    static bytes done(std::initializer_list<std::uint8_t> status) { return status; }
    std::int32_t wait() { return wait_for_completion(8, 0x201, 93); }
    static lines relays() { return platform().calls("mts_send"); }

    const bytes progress_1{0, 0, 0, 1, 0, 0, 0, 10, 0, 0, 0, 1};
    const bytes progress_2{0, 0, 0, 2, 0, 0, 0, 60, 0, 0, 0, 1};
    const bytes progress_3{0, 0, 0, 3, 0, 0, 0, 100, 0, 0, 0, 1};
};

TEST_F(ModuleProgramming, EndsWithTheStatusThatTheModuleReports)
{
    platform().deliver(4793, {0x40, 0x71, 0x00, 0x09});
    EXPECT_EQ(wait(), 0x40710009);
    EXPECT_EQ(platform().story({"mts_recv", "log", "dropped"}),
              (lines{"mts_recv(8, {1, 0, 1, 0, 0, 0, 0, 0, 0, 0})",
                     "log(MTS_OPC_BIOS_PROGRAMMING_DONE status=40710009)", "dropped(#1)"}));
    EXPECT_EQ(printed().find('W'), std::string::npos);
}

TEST_F(ModuleProgramming, RelaysProgressUnchanged)
{
    platform().deliver(4795, progress_1);
    platform().deliver(4795, progress_2);
    platform().deliver(4795, progress_3);
    platform().deliver(4793, {0x40, 0x71, 0x00, 0x09});
    EXPECT_EQ(wait(), 0x40710009);
    EXPECT_EQ(relays(), (lines{"mts_send(8, 0x201, 93, 4795, [00000001 0000000a 00000001], 12, 0, 0, 0)",
                               "mts_send(8, 0x201, 93, 4795, [00000002 0000003c 00000001], 12, 0, 0, 0)",
                               "mts_send(8, 0x201, 93, 4795, [00000003 00000064 00000001], 12, 0, 0, 0)"}));
}

TEST_F(ModuleProgramming, Relays12BytesOfAnyProgressMessage)
{
    platform().deliver(4795, {0xff});
    platform().deliver(4795, bytes(600, 0xab));
    platform().deliver(4793, {0, 0, 0, 0});
    EXPECT_EQ(wait(), 0);
    EXPECT_EQ(relays(), (lines{"mts_send(8, 0x201, 93, 4795, [ff000000 00000000 00000000], 12, 0, 0, 0)",
                               "mts_send(8, 0x201, 93, 4795, [abababab abababab abababab], 12, 0, 0, 0)"}));
}

TEST_F(ModuleProgramming, DropsAnyOtherMessageInSilence)
{
    for (const std::uint32_t opcode : {4791u, 4703u, 0u, 0xffffffffu})
        platform().deliver(opcode, {1, 2, 3, 4});
    platform().deliver(4793, {0, 0, 0, 0});
    EXPECT_EQ(wait(), 0);
    EXPECT_EQ(relays(), lines{});
    EXPECT_EQ(platform().logs(), lines{"MTS_OPC_BIOS_PROGRAMMING_DONE status=0"});
    EXPECT_EQ(platform().calls("dropped").size(), 5u);
}

TEST_F(ModuleProgramming, GoesOnWhenAProgressMessageCannotBeRelayed)
{
    platform().next_result("mts_send", {-1, ECONNREFUSED});
    platform().deliver(4795, progress_1);
    platform().deliver(4793, {0, 0, 0, 0});
    EXPECT_EQ(wait(), 0);
}

TEST_F(ModuleProgramming, GivesUpAtThe1801stTimeOut)
{
    platform().receive_times_out(1801);
    EXPECT_EQ(wait(), 0x40710008);
    EXPECT_EQ(printed(), std::string(1801, 'W'));
    EXPECT_EQ(platform().calls("mts_recv").size(), 1801u);
    EXPECT_EQ(platform().logs(), lines{});
}

TEST_F(ModuleProgramming, StillTakesTheEndAfter1800TimeOuts)
{
    platform().receive_times_out(1800);
    platform().deliver(4793, {0x40, 0x71, 0x00, 0x0c});
    EXPECT_EQ(wait(), 0x4071000c);
}

TEST_F(ModuleProgramming, CountsTimeOutsOverTheWholeWait)
{
    platform().receive_times_out(900);
    platform().deliver(4795, progress_1);
    platform().receive_times_out(900);
    platform().deliver(4795, progress_2);
    platform().receive_times_out(1);
    EXPECT_EQ(wait(), 0x40710008);
    EXPECT_EQ(relays().size(), 2u);
}

TEST_F(ModuleProgramming, CountsInterruptionsLikeTimeOuts)
{
    platform().receive_fails(4, 1000);
    platform().receive_times_out(801);
    EXPECT_EQ(wait(), 0x40710008);
    EXPECT_THAT(printed(), testing::EndsWith(std::string(1801, 'W')));
}

TEST_F(ModuleProgramming, LogsOtherReceiveErrorsAndDoesNotCountThem)
{
    platform().receive_fails(EIO, 3000);
    platform().deliver(4793, {0, 0, 0, 0});
    EXPECT_EQ(wait(), 0);
    EXPECT_EQ(platform().logs().size(), 3001u);
    EXPECT_EQ(platform().logs()[2999], "ERROR: mts_recv error = 5");
    EXPECT_EQ(printed().find('W'), std::string::npos);
}

TEST_F(ModuleProgramming, ReadsTheStatusOfAnEmptyEndAsZero)
{
    platform().deliver(4793);
    EXPECT_EQ(wait(), 0);
}

class ForwardedRequest : public ModuleProgramming
{
protected:
    ForwardedRequest()
    {
        platform().insert_module(9, 2, 30);
        body.programming_mod_num.store(9);
        std::strcpy(body.uri, "bootflash:image.bin");
        body.type = 1;
    }
    std::int32_t forward() { return bios_prog_in_modules(8, platform().modules, &body, 0x201, 93); }
    std::string forwarded_to(const char *node) const
    {
        return "cmi_remote_req_resp(4791, 3, " + dumped(&body, sizeof body) + ", 529, \"ABCD\", \"ABCD\", 1010, " +
               node + ", 8, 1800)";
    }
    bios_programming_req_t body{};
};

TEST_F(ForwardedRequest, GoesToTheModulesDaemonAndItsEndIsAwaited)
{
    platform().deliver(4793, {0x40, 0x71, 0x00, 0x04});
    EXPECT_EQ(forward(), 0x40710004);
    EXPECT_EQ(platform().story({"log", "cmi_remote_req_resp", "received"}),
              (lines{"log(mod=9 dest_node=902)", forwarded_to("0x902"), "log(resp = 0)", "received(#1)",
                     "log(MTS_OPC_BIOS_PROGRAMMING_DONE status=40710004)"}));
}

TEST_F(ForwardedRequest, FreesTheModulesAnswer)
{
    platform().responses.push_back({0, 0, 0, 0});
    platform().deliver(4793, {0, 0, 0, 0});
    EXPECT_EQ(forward(), 0);
}

TEST_F(ForwardedRequest, EndsWhenItCannotBeSent)
{
    platform().next_result("cmi_remote_req_resp", {-1, ECONNREFUSED});
    EXPECT_EQ(forward(), 0x40710007);
    EXPECT_EQ(platform().logs(), (lines{"mod=9 dest_node=902", "resp = -1",
                                        "Could not send bios upgrade cmd to the modules err=111 ret=-1"}));
    EXPECT_EQ(platform().calls("mts_recv"), lines{});
}

TEST_F(ForwardedRequest, EndsWhenTheModuleRefusesIt)
{
    platform().next_result("cmi_remote_req_resp", {0x4071000a, 0});
    errno = 0;
    EXPECT_EQ(forward(), 0x40710007);
    EXPECT_TRUE(platform().logged("resp = 1081147402"));
}

TEST_F(ForwardedRequest, GoesToNodeZeroForAModuleThatCannotExist)
{
    for (const std::uint32_t module : {0u, 233u, 0xffffffffu}) {
        body.programming_mod_num.store(module);
        platform().next_result("cmi_remote_req_resp", {-1, ECONNREFUSED});
        EXPECT_EQ(forward(), 0x40710007);
        EXPECT_EQ(platform().calls("cmi_remote_req_resp").back(), forwarded_to("0x0"));
    }
}

} // namespace
