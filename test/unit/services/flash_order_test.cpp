// The record of a flash's order: its text, and what becomes of an order when nobody keeps it up.
#include <ctime>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "file_size_limit.h"
#include "flash_fixture.h"
#include "flash_order.h"
#include "utc_time.h"

namespace
{

flash_order example()
{
    flash_order order;
    order.id = 77;
    order.sha256[0] = 0xab;
    order.size_bytes = 8388608;
    order.family = 17;
    order.forced = 1;
    order.renewed_s = flash_order_clock_s();
    order.version = "v3.5.0(09/17/12)";
    order.image = "bootflash:s.bin";
    order.user = "ann";
    order.host = "console";
    order.ordered_at = order.changed_at = "2026-01-31T23:59:59Z";
    return order;
}

class FlashOrder : public chassis_flash_fixture
{
protected:
    void SetUp() override
    {
        chassis_flash_fixture::SetUp();
        create_flash();
    }
    static void write(const flash_order &order)
    {
        const flash_orders_lock lock(TEST_SLOT);
        ASSERT_TRUE(lock.is_held());
        ASSERT_TRUE(flash_order_write(TEST_SLOT, 0, order));
    }
    static flash_order_state state_read()
    {
        const auto order = flash_order_read(TEST_SLOT, 0);
        EXPECT_TRUE(order);
        return order ? order->state : flash_order_state::failed;
    }
};

} // namespace

TEST(FlashOrderText, IsReadBackAsItWas)
{
    const flash_order order = example();
    const std::string text = flash_order_format(order);
    EXPECT_EQ(text.substr(0, 20), "id 77\nstate ordered\n");
    EXPECT_EQ(flash_order_parse(text), order);
}

TEST(FlashOrderText, KeepsItsLinesWhateverATextHolds)
{
    flash_order order = example();
    order.user = "ann\nstate verified\x1b[2J\x9b";
    order.host = std::string(1000, 'h');
    const auto parsed = flash_order_parse(flash_order_format(order));
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->state, flash_order_state::ordered);
    EXPECT_EQ(parsed->user, "ann?state verified?[2J?");
    EXPECT_EQ(parsed->host.size(), FLASH_ORDER_TEXT_BYTES);
}

TEST(FlashOrderText, IsNoneWhenAnythingIsAmiss)
{
    const std::string text = flash_order_format(example());
    EXPECT_FALSE(flash_order_parse(""));
    EXPECT_FALSE(flash_order_parse(text + "\n"));
    EXPECT_FALSE(flash_order_parse(text.substr(1)));
    for (std::size_t length = 0; length < text.size(); ++length)
        EXPECT_FALSE(flash_order_parse(text.substr(0, length))) << length;
    for (const auto &[good, bad] : {std::pair("state ordered", "state done"),
                                    {"id 77", "id x"},
                                    {"id 77", "id 077"},
                                    {"sha256 ab", "sha256 AB"},
                                    {"size_bytes 8388608", "size_bytes -1"},
                                    {"forced 1", "forced 99999999999"}}) {
        std::string changed = text;
        changed.replace(changed.find(good), std::string(good).size(), bad);
        EXPECT_FALSE(flash_order_parse(changed)) << bad;
    }
}

TEST_F(FlashOrder, IsNotThereBeforeTheFirst)
{
    EXPECT_EQ(flash_order_read(TEST_SLOT, 0), std::nullopt);
    EXPECT_EQ(flash_order_read(TEST_SLOT, FLASH_INSTANCE_COUNT), std::nullopt);
    EXPECT_FALSE(flash_orders_are_live(TEST_SLOT));
}

TEST_F(FlashOrder, IsNoneWhereNoFileIsAndNobodyWaitsForAFifo)
{
    write(example());
    const std::string record = dir + "/" + chassis_slot_path(TEST_SLOT, "orders/primary");
    ASSERT_TRUE(std::filesystem::remove(record));
    ASSERT_EQ(::mkfifo(record.c_str(), 0600), 0);
    EXPECT_FALSE(flash_order_read(TEST_SLOT, 0));
    EXPECT_FALSE(flash_orders_are_live(TEST_SLOT));
    write(example()); // takes the FIFO's place
    EXPECT_EQ(state_read(), flash_order_state::ordered);
    ASSERT_TRUE(std::filesystem::remove(record));
    ASSERT_TRUE(std::filesystem::create_directory(record));
    EXPECT_FALSE(flash_order_read(TEST_SLOT, 0));
}

TEST_F(FlashOrder, LivesAsLongAsItIsRenewed)
{
    flash_order order = example();
    write(order);
    EXPECT_EQ(flash_order_read(TEST_SLOT, 0), order);
    EXPECT_TRUE(flash_orders_are_live(TEST_SLOT));
    order.renewed_s -= FLASH_ORDER_SILENCE_S - 1;
    write(order);
    EXPECT_EQ(state_read(), flash_order_state::ordered);
    order.renewed_s -= 2;
    write(order);
    EXPECT_EQ(state_read(), flash_order_state::failed);
    EXPECT_FALSE(flash_orders_are_live(TEST_SLOT));
}

// Whenever that is read.
TEST_F(FlashOrder, ThatNobodyHasRenewedHasEndedThen)
{
    flash_order order = example();
    order.renewed_s -= FLASH_ORDER_SILENCE_S + 100;
    write(order);
    const std::int64_t earliest_s = std::time(nullptr) - 101;
    const auto read = flash_order_read(TEST_SLOT, 0);
    ASSERT_TRUE(read);
    EXPECT_GE(read->changed_at, utc_seconds(earliest_s));
    EXPECT_LE(read->changed_at, utc_seconds(std::time(nullptr) - 99));
}

TEST_F(FlashOrder, HasEndedWithTheCardsLastLife)
{
    flash_order order = example();
    order.renewed_s += 1000;
    write(order);
    EXPECT_EQ(state_read(), flash_order_state::failed);
}

TEST_F(FlashOrder, IsWrittenAsLongAsItsWriterLives)
{
    flash_order order = example();
    order.state = flash_order_state::writing;
    order.renewed_s -= 1000;
    write(order);
    EXPECT_EQ(state_read(), flash_order_state::failed);
    unique_fd writer = flash_order_take_writer(TEST_SLOT, 0);
    ASSERT_TRUE(writer);
    EXPECT_EQ(state_read(), flash_order_state::writing);
    EXPECT_FALSE(flash_order_take_writer(TEST_SLOT, 0));
    EXPECT_EQ(errno, EBUSY);
    EXPECT_TRUE(flash_order_take_writer(TEST_SLOT, 1));
    writer.reset();
    EXPECT_EQ(state_read(), flash_order_state::failed);
}

TEST_F(FlashOrder, ThatWasCancelledHoldsOffForLongWhenNobodyRenewsIt)
{
    flash_order order = example();
    EXPECT_FALSE(flash_order_holds_off(order));
    order.state = flash_order_state::cancelled;
    EXPECT_TRUE(flash_order_holds_off(order));
    order.renewed_s -= FLASH_ORDER_SILENCE_S + 1; // whoever ordered was killed, his request goes on
    EXPECT_TRUE(flash_order_holds_off(order));
    order.renewed_s -= FLASH_ORDER_CANCELLED_S - FLASH_ORDER_SILENCE_S;
    EXPECT_FALSE(flash_order_holds_off(order));
}

// The room is there before the disk is full.
TEST_F(FlashOrder, IsReplacedInReservedRoomOnAFullDisk)
{
    flash_order order = example();
    order.state = flash_order_state::failed;
    write(order);
    unique_fd room = flash_order_reserve(TEST_SLOT, 0);
    ASSERT_TRUE(room);
    const std::string reserved = dir + "/" + chassis_slot_path(TEST_SLOT, "orders/primary.reserved");
    EXPECT_EQ(std::filesystem::file_size(reserved), 4096U);
    EXPECT_EQ(flash_order_read(TEST_SLOT, 0), order) << "reserving changes nothing";
    order.state = flash_order_state::verified;
    EXPECT_TRUE(flash_order_write_reserved(TEST_SLOT, 0, std::move(room), order));
    EXPECT_EQ(flash_order_read(TEST_SLOT, 0), order);
    EXPECT_FALSE(std::filesystem::exists(reserved));
}

TEST_F(FlashOrder, HasNoReservedRoomWhereThereIsNone)
{
    write(example());
    const file_size_limit full(4000);
    EXPECT_FALSE(flash_order_reserve(TEST_SLOT, 0));
    EXPECT_EQ(errno, EFBIG);
    EXPECT_FALSE(std::filesystem::exists(dir + "/" + chassis_slot_path(TEST_SLOT, "orders/primary.reserved")));
}
