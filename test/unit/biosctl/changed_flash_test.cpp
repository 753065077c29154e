// What was verified last in a flash, by the record of its order and by its events.
#include <gtest/gtest.h>

#include "changed_flash.h"

namespace
{

constexpr std::uint64_t SIZE = 1 << 20;

std::string digest(char digit)
{
    return std::string(64, digit);
}

flash_event begun(const std::string &sha256)
{
    return {.kind = flash_event_kind::begun, .image_bytes = SIZE, .sha256 = sha256, .user = "ann", .host = "far"};
}

flash_event event(flash_event_kind kind)
{
    return {.kind = kind};
}

flash_event ended(std::uint32_t result)
{
    return {.time = "2026-01-31T11:00:00.123Z", .kind = flash_event_kind::ended, .result = result};
}

using events = std::vector<flash_event>;

const std::optional<verified_image> IMAGE_A =
    verified_image{digest('a'), SIZE, "programmed for ann@far, 2026-01-31T11:00:00Z"};

} // namespace

TEST(ChangedFlash, TheRecordOfAnOrderTellsWhatItHasHadVerified)
{
    flash_order order;
    order.sha256.fill(0xaa);
    order.size_bytes = SIZE;
    order.changed_at = "2026-01-31T11:00:00Z";
    for (const auto state : {flash_order_state::ordered, flash_order_state::writing, flash_order_state::failed,
                             flash_order_state::cancelled}) {
        order.state = state;
        EXPECT_EQ(verified_by(order), std::nullopt) << flash_order_state_name(state);
    }
    order.state = flash_order_state::verified;
    EXPECT_EQ(verified_by(order), (verified_image{digest('a'), SIZE, "programmed, 2026-01-31T11:00:00Z"}));
    order.user = "ann";
    order.host = "far";
    EXPECT_EQ(verified_by(order), IMAGE_A);
}

TEST(ChangedFlash, TheEventsTellTheLastImageThatWasVerified)
{
    EXPECT_EQ(verified_by(events{}), std::nullopt);
    EXPECT_EQ(verified_by(events{begun(digest('a'))}), std::nullopt);
    EXPECT_EQ(verified_by(events{begun(digest('a')), ended(0)}), IMAGE_A);
    EXPECT_EQ(verified_by(events{begun(digest('b')), ended(0), begun(digest('a')), ended(0)}), IMAGE_A);
    EXPECT_EQ(verified_by(events{begun(digest('a')), ended(0), event(flash_event_kind::refused)}), IMAGE_A);
    EXPECT_EQ(verified_by(events{begun(digest('a')), ended(0), begun(digest('b')), ended(0x40710009)}), IMAGE_A)
        << "what came of it, or the marker, is there";
    EXPECT_EQ(verified_by(events{begun(digest('b')), begun(digest('a')), ended(0)}), IMAGE_A);
}

TEST(ChangedFlash, TheEventsTellNothingThatTheyDoNotName)
{
    EXPECT_EQ(verified_by(events{begun(""), ended(0)}), std::nullopt);
    EXPECT_EQ(verified_by(events{begun(digest('a')), ended(0), begun(""), ended(0)}), std::nullopt);
    EXPECT_EQ(verified_by(events{begun(digest('a')), ended(0), ended(0)}), std::nullopt);
    EXPECT_EQ(verified_by(events{begun(digest('a')), ended(0), event(flash_event_kind::lost)}), std::nullopt);
    EXPECT_EQ(verified_by(events{begun(digest('a')), event(flash_event_kind::lost), ended(0)}), std::nullopt);
}
