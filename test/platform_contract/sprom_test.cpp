// platform/sprom.h: reading an SPROM device by a service call.
#include "sprom.h"

#include <cstddef>
#include <cstring>

#include "contract_test.h"

namespace
{

constexpr std::uint32_t NO_DEVICE = 0x7ffffff0;

class Sprom : public testing::Test
{
protected:
    void SetUp() override
    {
        NEEDS(contract_sprom(&known_));
        // As the daemon does: a device is reset before it is used, whatever state it is in.
        (void)sprom_cleanup_dev(known_.device, known_.offset, known_.length, 0);
    }

    std::int32_t read(std::uint32_t device, std::uint16_t offset, std::uint16_t length)
    {
        std::memset(bytes_, FILLER, sizeof bytes_);
        sse_sprom_read_request_t request = {};
        request.device = device;
        request.offset = offset;
        request.length = length;
        request.destination = bytes_;
        errno = 0;
        return sse_call(102, &request);
    }

    static constexpr unsigned char FILLER = 0xa7;
    contract_known_sprom known_ = {};
    unsigned char bytes_[600] = {};
};

} // namespace

TEST_F(Sprom, HoldsTheBytesInTheDestinationOnSuccess)
{
    ASSERT_EQ(sprom_init_dev(known_.device, known_.offset, known_.length, 0), 0) << "errno " << errno;
    ASSERT_GE(read(known_.device, known_.offset, known_.length), 0) << "errno " << errno;
    EXPECT_EQ(std::memcmp(bytes_, known_.bytes, known_.length), 0);
    EXPECT_EQ(bytes_[known_.length], FILLER) << "more than was asked for";
    EXPECT_EQ(sprom_cleanup_dev(known_.device, known_.offset, known_.length, 0), 0);
}

TEST_F(Sprom, ReadsFromTheOffsetThatIsAskedFor)
{
    ASSERT_EQ(sprom_init_dev(known_.device, known_.offset, known_.length, 0), 0) << "errno " << errno;
    const auto offset = static_cast<std::uint16_t>(known_.offset + 1);
    ASSERT_GE(read(known_.device, offset, 2), 0) << "errno " << errno;
    EXPECT_EQ(std::memcmp(bytes_, known_.bytes + 1, 2), 0);
    EXPECT_EQ(bytes_[2], FILLER);
    EXPECT_EQ(sprom_cleanup_dev(known_.device, known_.offset, known_.length, 0), 0);
}

TEST_F(Sprom, CanBeUsedAgainAfterItsRelease)
{
    for (unsigned turn = 0; turn < 3; ++turn) {
        ASSERT_EQ(sprom_init_dev(known_.device, known_.offset, known_.length, 0), 0) << "errno " << errno;
        ASSERT_GE(read(known_.device, known_.offset, known_.length), 0) << "errno " << errno;
        ASSERT_EQ(sprom_cleanup_dev(known_.device, known_.offset, known_.length, 0), 0);
    }
}

TEST_F(Sprom, FailsWithErrnoForADeviceThatIsNotThere)
{
    errno = 0;
    EXPECT_LT(sprom_init_dev(NO_DEVICE, 0, 4, 0), 0);
    EXPECT_NE(errno, 0);
    EXPECT_LT(read(NO_DEVICE, 0, 4), 0);
    EXPECT_NE(errno, 0);
    EXPECT_EQ(bytes_[0], FILLER);
}

TEST(SseSpromReadRequest, Has20BytesOnThe32BitTarget)
{
    if (sizeof(void *) != 4)
        GTEST_SKIP() << "a promise for the 32-bit target";
    EXPECT_EQ(sizeof(sse_sprom_read_request_t), 20U);
    EXPECT_EQ(offsetof(sse_sprom_read_request_t, destination), 12U);
}
