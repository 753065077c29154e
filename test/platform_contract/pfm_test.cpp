// platform/pfm.h: who this card is and what is in the chassis.
#include "pfm.h"

#include <cstring>
#include <vector>

#include "contract_test.h"

namespace
{

constexpr std::int32_t HANDLE = 0;

contract_card this_card()
{
    contract_card card{};
    contract_this_card(&card);
    return card;
}

std::vector<pfm_module_record_t> records_of(std::uint8_t filler)
{
    std::vector<pfm_module_record_t> records(PFM_MODULE_COUNT);
    std::memset(records.data(), filler, records.size() * sizeof(pfm_module_record_t));
    return records;
}

bool are_equal(const pfm_module_record_t &a, const pfm_module_record_t &b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

} // namespace

TEST(GetPlatformInfo, TellsTheOwnModule)
{
    platform_info_t info = {};
    ASSERT_EQ(get_platform_info(&info), 0) << "errno " << errno;
    EXPECT_EQ(info.module_num, this_card().module);
    EXPECT_GE(info.module_num, 1);
    EXPECT_LE(info.module_num, 232);
}

TEST(PfmGetAllModulesInChassis, HasTheRecordOfModuleMAtIndexMMinus1)
{
    std::vector<pfm_module_record_t> records = records_of(0x5a);
    ASSERT_GE(pfm_get_all_modules_in_chassis(HANDLE, records.data(), PFM_MODULE_COUNT), 0) << "errno " << errno;
    const pfm_module_record_t &own = records[this_card().module - 1U];
    EXPECT_EQ(own.card_id, this_card().card_id);
    EXPECT_EQ(own.kind == 1 || own.kind == 4, this_card().is_supervisor != 0) << "kind " << unsigned{own.kind};
}

TEST(PfmGetAllModulesInChassis, HasZerosForAnEmptySlot)
{
    if (this_card().empty_module == 0)
        GTEST_SKIP() << "no slot is empty";
    std::vector<pfm_module_record_t> records = records_of(0x5a);
    ASSERT_GE(pfm_get_all_modules_in_chassis(HANDLE, records.data(), PFM_MODULE_COUNT), 0);
    EXPECT_TRUE(are_equal(records[this_card().empty_module - 1U], pfm_module_record_t{}));
}

TEST(PfmGetAllModulesInChassis, LeavesTheRecordsAsTheyWereWhenItFails)
{
    const held_condition unlisted(CONTRACT_MODULES_CANNOT_BE_LISTED);
    NEEDS(unlisted.reason());
    std::vector<pfm_module_record_t> records = records_of(0x5a);
    const std::vector<pfm_module_record_t> before = records;
    errno = 0;
    EXPECT_LT(pfm_get_all_modules_in_chassis(HANDLE, records.data(), PFM_MODULE_COUNT), 0);
    EXPECT_NE(errno, 0);
    for (std::size_t module = 0; module < records.size(); ++module)
        ASSERT_TRUE(are_equal(records[module], before[module])) << "index " << module;
}

TEST(GetCardModuleInfo, TellsTheOwnHardwareCardId)
{
    card_module_info_t info = {};
    ASSERT_EQ(get_card_module_info(&info), 0) << "errno " << errno;
    EXPECT_EQ(info.card_id, this_card().card_id);
}

TEST(GetCardModuleInfo, FailsWithErrnoWhenItCannotBeRead)
{
    const held_condition unreadable(CONTRACT_MODULE_INFO_CANNOT_BE_READ);
    NEEDS(unreadable.reason());
    card_module_info_t info = {};
    errno = 0;
    EXPECT_NE(get_card_module_info(&info), 0);
    EXPECT_NE(errno, 0);
}
