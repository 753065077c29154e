// Programmings that were ordered: who has ordered is known, nobody else gets between, and nothing is left of an
// order when its orderer is gone.
#include <csignal>

#include "bios_messages.h"
#include "bios_opcodes.h"
#include "bios_refusals.h"
#include "bios_results.h"
#include "chassis_dir.h"
#include "chassis_fixture.h"
#include "flash_order.h"
#include "run_program.h"
#include "test_images.h"

namespace
{

constexpr int BUSY = 4;

class Orders : public chassis_test
{
protected:
    void SetUp() override
    {
        insert({.slot = 1});
        insert({.slot = 2, .role = "standby", .in_tree = nullptr});
        up();
    }
    std::optional<flash_order> order_of(unsigned slot) const
    {
        std::optional<flash_order> order;
        if (chassis_attach(chassis_directory(), 0) == 0)
            order = flash_order_read(slot, 0);
        return order;
    }
    bool is_in_state(unsigned slot, flash_order_state state) const
    {
        const auto order = order_of(slot);
        return order && order->state == state;
    }
};

} // namespace

TEST_F(Orders, SayWhatWasWrittenAndWhoWantedIt)
{
    ASSERT_EQ(biosctl({"program", "2"}).exit_code, 0);
    const auto order = order_of(2);
    ASSERT_TRUE(order);
    EXPECT_EQ(order->state, flash_order_state::verified);
    sha256 sum;
    sum.add(new_image().bytes.data(), new_image().bytes.size());
    EXPECT_EQ(order->sha256, sum.digest());
    EXPECT_EQ(order->size_bytes, new_image().bytes.size());
    EXPECT_FALSE(order->user.empty());
    EXPECT_FALSE(order->old_version.empty());
    EXPECT_EQ(order->image, "the image tree of slot 1");
    expect_tidy(2, {".tmpbios.bin"});
}

TEST_F(Orders, AreForFlashesThatTheDaemonPrograms)
{
    for (const std::vector<std::string> &more : {std::vector<std::string>{"--dry-run"}, {}}) {
        std::vector<std::string> words = {"program", "1", "--type", "1"};
        words.insert(words.end(), more.begin(), more.end());
        const finished_program refused = biosctl(words);
        EXPECT_EQ(refused.exit_code, 1);
        EXPECT_NE(refused.errors.find(": the daemon programs other flashes of the card only"), std::string::npos)
            << refused.errors << refused.output;
    }
    EXPECT_FALSE(order_of(1));
}

TEST_F(Orders, AreCancelledBeforeTheFlashIsTouched)
{
    keep_pauses(1);
    running_program programming(biosctl_words({"program", "1"}));
    ASSERT_TRUE(wait_until([&] { return child_pid(1) != 0; }));
    const finished_program cancelled = biosctl({"cancel", "1"});
    EXPECT_EQ(cancelled.exit_code, 0) << cancelled.errors;
    const finished_program ended = programming.wait();
    EXPECT_EQ(ended.exit_code, 1);
    EXPECT_NE(ended.errors.find("0x40710044 (cancelled)"), std::string::npos) << ended.errors;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    EXPECT_TRUE(is_in_state(1, flash_order_state::cancelled));
    EXPECT_EQ(biosctl({"cancel", "1"}).exit_code, 2) << "nothing is ordered any more";
    expect_tidy(1);
    expect_next_succeeds();
}

TEST_F(Orders, AreNotCancelledWhileTheFlashIsWritten)
{
    write_file(flash_file(1, "timing"), "20\n");
    running_program programming(biosctl_words({"program", "1"}));
    ASSERT_TRUE(wait_until([&] { return is_in_state(1, flash_order_state::writing); }));
    EXPECT_EQ(biosctl({"cancel", "1"}).exit_code, BUSY);
    write_file(flash_file(1, "timing"), "0\n");
    EXPECT_EQ(programming.wait().exit_code, 0);
    EXPECT_EQ(flash_of(1) == new_image().bytes, true);
}

TEST_F(Orders, AreNotForTwoOperatorsAtOnce)
{
    keep_pauses(1);
    running_program first(biosctl_words({"program", "2"}));
    ASSERT_TRUE(wait_until([&] { return is_in_state(2, flash_order_state::ordered); }));
    const finished_program second = biosctl({"program", "2"});
    EXPECT_EQ(second.exit_code, BUSY);
    EXPECT_NE(second.errors.find(" has ordered v2.5.0"), std::string::npos) << second.errors;
    EXPECT_EQ(first.wait().exit_code, 0);
    EXPECT_EQ(flash_of(2) == new_image().bytes, true);
}

// Another client's image is not written under the order of somebody else.
TEST_F(Orders, AreNotCarriedOutWithAnotherImage)
{
    make_system_image(on_bootflash(1, "other.img"), 90, image("9.9"));
    keep_pauses(1);
    running_program ordered(biosctl_words({"program", "2", "--image", "bootflash:other.img", "--timeout", "1"}));
    ASSERT_TRUE(wait_until([&] { return is_in_state(2, flash_order_state::ordered); }));
    write_file(card_file(2, "/bootflash/.tmpbios.bin"), new_image().bytes);
    requester other;
    programming seen = other.start(2, {.via = 2});
    other.await_end(seen);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_REFUSED_OTHER_IMAGE)) << seen;
    EXPECT_EQ(flash_of(2) == old_image().bytes, true);
    (void)ordered.wait();
    EXPECT_TRUE(wait_until([&] { return child_pid(1) == 0 && child_pid(2) == 0 && !is_locked(1); }));
    EXPECT_EQ(flash_of(2) == image("9.9").bytes || flash_of(2) == old_image().bytes, true);
}

TEST_F(Orders, EndWithTheirOrderer)
{
    keep_pauses(1);
    running_program ordered(biosctl_words({"program", "2"}));
    ASSERT_TRUE(wait_until([&] { return is_in_state(2, flash_order_state::ordered); }));
    ordered.signal(SIGKILL);
    EXPECT_TRUE(wait_until([&] { return child_pid(1) == 0 && !is_locked(1); }));
    EXPECT_TRUE(wait_until([&] { return !order_of(2)->is_live(); }));
    expect_next_succeeds();
}

// The active supervisor unpacks into the file that a programming takes its image from.
TEST_F(Orders, KeepOthersFromUnpacking)
{
    keep_pauses(1);
    requester asking;
    programming running = asking.start(1);
    ASSERT_EQ(running.answer, 0U);
    bios_src_version_req body{};
    body.def = 1;
    int error = 0;
    requester other;
    EXPECT_EQ(other.request(1, MTS_OPC_BIOS_GET_SRC_BIOS_VERSION,
                            std::string(reinterpret_cast<const char *>(&body), sizeof body), error),
              std::optional<std::uint32_t>(BIOS_ERR_BUSY));
    asking.await_end(running);
    expect_programmed(running, 1, new_image());
}
