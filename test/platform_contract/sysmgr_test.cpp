// platform/sysmgr.h: the supervisor's state, the kind of restart, files for the standby supervisor.
#include "sysmgr.h"

#include <vector>

#include "contract_test.h"

namespace
{

constexpr std::int32_t HANDLE = 0;
constexpr std::uint32_t KIND = 129;
constexpr std::uint32_t FLAGS = 1;

contract_card this_card()
{
    contract_card card{};
    contract_this_card(&card);
    return card;
}

class SysmgrCliGsyncFile : public testing::Test
{
protected:
    void SetUp() override { NEEDS(contract_standby_file(&destination_)); }

    std::int32_t copy(const char *source) const
    {
        errno = 0;
        return sysmgr_cli_gsync_file(HANDLE, KIND, source, destination_, FLAGS);
    }

    const char *destination_ = nullptr;
};

// The file on the standby supervisor, or a text that no file here has.
std::string standby_content(const char *path, const char *&reason)
{
    std::vector<char> bytes(std::size_t{1} << 20);
    std::size_t length = 0;
    reason = contract_read_standby_file(path, bytes.data(), bytes.size(), &length);
    return reason == nullptr ? std::string(bytes.data(), length) : "";
}

} // namespace

TEST(SysmgrCliSupstateGet, TellsWhetherThisSupervisorIsActive)
{
    const std::int32_t state = sysmgr_cli_supstate_get(HANDLE);
    if (this_card().supervisor_state == 1)
        EXPECT_EQ(state, 1);
    else
        EXPECT_NE(state, 1);
}

TEST(SysmgrIsUpgradeRestart, TellsWhetherOnlyTheSoftwareWasRestarted)
{
    EXPECT_EQ(sysmgr_is_upgrade_restart() != 0, this_card().is_upgrade_restart != 0);
}

TEST_F(SysmgrCliGsyncFile, HasTheFileOnTheStandbySupervisorWhenItReturns)
{
    const std::string content = std::string("a file\0with a zero", 18) + std::string(300'000, 'x');
    const scratch_file source("source", content);
    ASSERT_EQ(copy(source.path()), 0) << "errno " << errno;
    const char *reason = nullptr;
    const std::string there = standby_content(destination_, reason);
    NEEDS(reason);
    EXPECT_TRUE(there == content) << there.size() << " bytes there";
}

TEST_F(SysmgrCliGsyncFile, ReplacesAFileThatIsThere)
{
    const scratch_file longer("longer", std::string(1000, 'l'));
    const scratch_file shorter("shorter", "short");
    ASSERT_EQ(copy(longer.path()), 0) << "errno " << errno;
    ASSERT_EQ(copy(shorter.path()), 0) << "errno " << errno;
    const char *reason = nullptr;
    const std::string there = standby_content(destination_, reason);
    NEEDS(reason);
    EXPECT_EQ(there, "short");
}

TEST_F(SysmgrCliGsyncFile, FailsWithErrnoWhenThereIsNoSuchFile)
{
    const scratch_file missing("missing");
    EXPECT_EQ(copy(missing.path()), -1);
    EXPECT_NE(errno, 0);
}

TEST_F(SysmgrCliGsyncFile, SucceedsWithoutAStandbySupervisor)
{
    const held_condition alone(CONTRACT_NO_STANDBY);
    NEEDS(alone.reason());
    const scratch_file source("source", "content");
    EXPECT_EQ(copy(source.path()), 0) << "errno " << errno;
}
