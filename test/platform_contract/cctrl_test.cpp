// platform/cctrl.h: control registers.
#include "cctrl.h"

#include "contract_test.h"

namespace
{

class CctrlWriteReg3 : public testing::Test
{
protected:
    void SetUp() override { NEEDS(contract_register(&number_, &value_)); }

    std::uint32_t number_ = 0;
    std::uint32_t value_ = 0;
};

} // namespace

TEST_F(CctrlWriteReg3, WritesTheRegister)
{
    ASSERT_EQ(cctrl_write_reg3(number_, value_), 0) << "errno " << errno;
    std::uint32_t found = ~value_;
    NEEDS(contract_read_register(number_, &found));
    EXPECT_EQ(found, value_);
}

TEST_F(CctrlWriteReg3, FailsWithErrnoWhenTheRegisterCannotBeWritten)
{
    const held_condition fault(CONTRACT_REGISTER_CANNOT_BE_WRITTEN);
    NEEDS(fault.reason());
    errno = 0;
    EXPECT_NE(cctrl_write_reg3(number_, value_), 0);
    EXPECT_NE(errno, 0);
}
