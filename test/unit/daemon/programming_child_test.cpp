// The programming child: which rows, what is extracted, what is programmed, what is cleaned up.
#include "programming_child.h"

#include <cerrno>
#include <map>
#include <optional>
#include <regex>

#include "bios_daemon_state.h"
#include "daemon_test.h"
#include "entry_list.h"

namespace
{

// The card tables of the test, by card id.
std::map<std::uint32_t, entry_list> card_tables;
bios_card_table *table_in_use;

std::int32_t scripted(const std::string &call, std::initializer_list<std::string> arguments)
{
    return static_cast<std::int32_t>(platform().called(call, joined(arguments)).value);
}

} // namespace

extern "C" {

bios_card_table *__wrap_bios_get_card_id_ent(std::uint32_t card_id, std::uint32_t reserved)
{
    (void)scripted("bios_get_card_id_ent", {std::to_string(card_id), std::to_string(reserved)});
    const auto found = card_tables.find(card_id);
    table_in_use = found == card_tables.end() ? nullptr : found->second.release();
    return table_in_use;
}

std::int32_t __wrap_bios_prog_in_modules(std::int32_t handle, const pfm_module_record_t *records,
                                         const bios_programming_req_t *body, std::uint32_t node, std::uint32_t sap)
{
    return scripted("bios_prog_in_modules",
                    {std::to_string(handle), records == pfm_info ? "pfm_info" : "other records", dumped(body, 4),
                     hexed(node), std::to_string(sap)});
}

std::int32_t __wrap_bios_prog_all_bios_flashes(std::int32_t handle, const bios_card_table *list, std::uint32_t node,
                                               std::uint32_t sap, std::int32_t sup_state, std::uint32_t module,
                                               std::uint32_t own_module, std::uint8_t image_type)
{
    return scripted("bios_prog_all_bios_flashes",
                    {std::to_string(handle), list == table_in_use ? "list" : "other list", hexed(node),
                     std::to_string(sap), std::to_string(sup_state), std::to_string(module),
                     std::to_string(own_module), std::to_string(image_type)});
}

} // extern "C"

namespace
{

std::int32_t file_operation(const char *call, std::int32_t handle, std::uint32_t flash_type, const char *image,
                            const char *source, const char *temporary)
{
    return scripted(call, {std::to_string(handle), std::to_string(flash_type), quoted(image), quoted(source),
                           quoted(temporary)});
}

std::int32_t extract(std::int32_t handle, std::uint32_t flash_type, const char *image, const char *source,
                     const char *temporary)
{
    return file_operation("extract", handle, flash_type, image, source, temporary);
}

std::int32_t clean_up(std::int32_t handle, std::uint32_t flash_type, const char *image, const char *source,
                      const char *temporary)
{
    return file_operation("cleanup", handle, flash_type, image, source, temporary);
}

bios_flash_entry row(std::uint32_t flash_type = 11, std::uint8_t instance = 0)
{
    bios_flash_entry entry{};
    entry.flash_type = flash_type;
    entry.flash_instance = instance;
    entry.src_path = "/vesk/bin/bios.gz";
    entry.tmp_path = "/bootflash/.tmpbios.bin";
    entry.extract = extract;
    entry.cleanup = clean_up;
    return entry;
}

// Own module 5 with card id 200 and one row, a line card with card id 30 and one row in slot 9.
class ProgrammingChild : public daemon_test
{
protected:
    ProgrammingChild()
    {
        platform().module_info_card_id = 200;
        platform().insert_module(5, 1, 200);
        platform().insert_module(9, 2, 30);
        body.programming_mod_num.store(9);
        insert_table(200, {row()});
        insert_table(30, {row()});
    }
    ~ProgrammingChild() override
    {
        card_tables.clear();
        std::memset(pfm_info, 0, sizeof pfm_info);
    }

    static void insert_table(std::uint32_t card_id, std::initializer_list<bios_flash_entry> rows)
    {
        card_tables.insert_or_assign(card_id, entry_list(rows));
    }
    std::int32_t run(std::uint32_t target, std::int32_t sup_state = 1, std::uint8_t image_type = 0)
    {
        return bios_daemon_child_process(8, 0x201, 93, &body, sup_state, image, target, 5, image_type);
    }
    static lines story(std::initializer_list<std::string_view> names)
    {
        lines told = platform().story(names);
        for (std::string &line : told)
            line = std::regex_replace(line, std::regex(R"(child_process:\d+:)"), "child_process:N:");
        return told;
    }
    static lines messages() { return story({"log"}); }

    bios_programming_req_t body{};
    const char *image = "/bootflash/system.bin";
    const std::string trace = "log(bios_daemon_child_process:N:)";
    const std::string extracted =
        "extract(8, 11, \"/bootflash/system.bin\", \"/vesk/bin/bios.gz\", \"/bootflash/.tmpbios.bin\")";
    const std::string cleaned =
        "cleanup(8, 11, \"/bootflash/system.bin\", \"/vesk/bin/bios.gz\", \"/bootflash/.tmpbios.bin\")";
    const std::string own_flashes = "bios_prog_all_bios_flashes(8, list, 0x201, 93, 1, 5, 5, 0)";
};

TEST_F(ProgrammingChild, ExtractsForwardsAndCleansUpForAnotherModule)
{
    EXPECT_EQ(run(9), 0);
    EXPECT_EQ(
        story({"log", "pfm_get_all_modules_in_chassis", "get_card_module_info", "bios_get_card_id_ent", "extract",
               "bios_prog_in_modules", "bios_prog_all_bios_flashes", "cleanup"}),
        (lines{trace, "pfm_get_all_modules_in_chassis(8, 232)", "get_card_module_info(cleared)",
               "bios_get_card_id_ent(30, 0)", "log(bios_daemon_child_process:N: Module=8 CardId=30)", trace,
               "log(--- starting extraction in active 0 out of 1)",
               "log(pathname=/vesk/bin/bios.gz, bios_temp_file=/bootflash/.tmpbios.bin)", extracted,
               "bios_prog_in_modules(8, pfm_info, [00000009], 0x201, 93)", "log(Got ret=0 from prog modules call)",
               "log(Got retcode = 0 from programming request)", cleaned}));
    EXPECT_EQ(pfm_info[8].card_id, 30);
}

TEST_F(ProgrammingChild, ProgramsItsOwnFlashesForTheOwnModule)
{
    platform().next_result("bios_prog_all_bios_flashes", {0x40710004, 0});
    EXPECT_EQ(run(5), 0x40710004);
    EXPECT_EQ(story({"bios_get_card_id_ent", "bios_prog_in_modules", "bios_prog_all_bios_flashes", "cleanup"}),
              (lines{"bios_get_card_id_ent(200, 0)", own_flashes, cleaned}));
    const lines told = messages();
    EXPECT_EQ(lines(told.end() - 2, told.end()), (lines{"log(Got ret=40710004 from prog self bios call)",
                                                        "log(Got retcode = 40710004 from programming request)"}));
}

TEST_F(ProgrammingChild, PassesNoImagePathWhenNoneIsNamed)
{
    image = nullptr;
    EXPECT_EQ(run(5), 0);
    EXPECT_EQ(story({"extract", "cleanup"}),
              (lines{"extract(8, 11, null, \"/vesk/bin/bios.gz\", \"/bootflash/.tmpbios.bin\")",
                     "cleanup(8, 11, null, \"/vesk/bin/bios.gz\", \"/bootflash/.tmpbios.bin\")"}));
}

TEST_F(ProgrammingChild, EndsWhenTheOwnCardIsUnknown)
{
    platform().next_result("get_card_module_info", {-1, EIO});
    EXPECT_EQ(run(9), 0x40710030);
    EXPECT_EQ(platform().logs().back(), "get sw card id failed");
    EXPECT_EQ(platform().calls("bios_get_card_id_ent"), lines{});
}

TEST_F(ProgrammingChild, EndsWithoutAMessageWhenTheCardHasNoRows)
{
    card_tables.erase(30);
    EXPECT_EQ(run(9), 0x40710012);
    EXPECT_EQ(messages(), lines{trace});
}

TEST_F(ProgrammingChild, UsesTheOwnCardsRowsOnTheTarvikASupervisors)
{
    for (const std::uint32_t own : {183u, 282u, 314u, 316u, 318u}) {
        platform().module_info_card_id = static_cast<std::uint16_t>(own);
        insert_table(own, {row()});
        const std::size_t before = messages().size();
        EXPECT_EQ(run(9), 0);
        EXPECT_EQ(platform().calls("bios_get_card_id_ent").back(),
                  "bios_get_card_id_ent(" + std::to_string(own) + ", 0)");
        const lines told = messages();
        EXPECT_EQ(lines(told.begin() + static_cast<std::ptrdiff_t>(before) + 1,
                        told.begin() + static_cast<std::ptrdiff_t>(before) + 4),
                  (lines{"log(bios_daemon_child_process: **** hack: received card_id=30)",
                         "log(bios_daemon_child_process: **** hack: modified card_id=" + std::to_string(own) + ")",
                         "log(bios_daemon_child_process:N: Module=8 CardId=30)"}));
    }
}

TEST_F(ProgrammingChild, DoesNotIndexTheModuleTableWithANumberThatNoModuleHas)
{
    for (const std::uint32_t module : {0u, 233u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        EXPECT_EQ(run(module), 0x40710012) << module;
        EXPECT_EQ(platform().calls("bios_get_card_id_ent").back(), "bios_get_card_id_ent(0, 0)");
    }
}

TEST_F(ProgrammingChild, OnlyProgramsOnTheStandbySupervisor)
{
    for (const std::int32_t sup_state : {0, 2, -1}) {
        insert_table(30, {row()});
        platform().next_result("bios_prog_all_bios_flashes", {0x4071000c, 0});
        EXPECT_EQ(run(9, sup_state, 3), 0x4071000c);
        EXPECT_EQ(platform().calls("bios_prog_all_bios_flashes").back(),
                  "bios_prog_all_bios_flashes(8, list, 0x201, 93, " + std::to_string(sup_state) + ", 9, 5, 3)");
    }
    EXPECT_EQ(platform().calls("extract"), lines{});
    EXPECT_EQ(platform().calls("cleanup"), lines{});
    EXPECT_EQ(platform().calls("bios_prog_in_modules"), lines{});
    EXPECT_EQ(messages().back(), "log(bios_daemon_child_process:N: Module=8 CardId=30)");
}

TEST_F(ProgrammingChild, ProgramsACardWithoutRowsAndReturnsThatResult)
{
    insert_table(200, {});
    platform().next_result("bios_prog_all_bios_flashes", {0x40710001, 0});
    EXPECT_EQ(run(5), 0x40710001);
    EXPECT_EQ(story({"extract", "bios_prog_all_bios_flashes", "cleanup"}), lines{own_flashes});
}

TEST_F(ProgrammingChild, ExtractsOnlyRowsOfTheImageTypeAndCleansAll)
{
    insert_table(200, {row(), row(12, 1), row(13, 1)});
    EXPECT_EQ(run(5, 1, 1), 0);
    EXPECT_EQ(
        story({"extract", "cleanup"}),
        (lines{"extract(8, 12, \"/bootflash/system.bin\", \"/vesk/bin/bios.gz\", \"/bootflash/.tmpbios.bin\")",
               "extract(8, 13, \"/bootflash/system.bin\", \"/vesk/bin/bios.gz\", \"/bootflash/.tmpbios.bin\")",
               "cleanup(8, 11, \"/bootflash/system.bin\", \"/vesk/bin/bios.gz\", \"/bootflash/.tmpbios.bin\")",
               "cleanup(8, 12, \"/bootflash/system.bin\", \"/vesk/bin/bios.gz\", \"/bootflash/.tmpbios.bin\")",
               "cleanup(8, 13, \"/bootflash/system.bin\", \"/vesk/bin/bios.gz\", "
               "\"/bootflash/.tmpbios.bin\")"}));
    EXPECT_TRUE(platform().logged("--- starting extraction in active 0 out of 3"));
    EXPECT_TRUE(platform().logged("--- starting extraction in active 2 out of 3"));
}

TEST_F(ProgrammingChild, ReportsAnInvalidRowInBothLoops)
{
    insert_table(200, {row(0), row()});
    EXPECT_EQ(run(5), 0);
    lines told = story({"log", "extract", "bios_prog_all_bios_flashes", "cleanup"});
    told.erase(told.begin(), told.begin() + 3);
    EXPECT_EQ(
        told,
        (lines{"log(--- starting extraction in active 0 out of 2)", "log(SKIPPING entry 0 bios id invalid)",
               "log(--- starting extraction in active 1 out of 2)",
               "log(pathname=/vesk/bin/bios.gz, bios_temp_file=/bootflash/.tmpbios.bin)", extracted, own_flashes,
               "log(Got ret=0 from prog self bios call)", "log(Got retcode = 0 from programming request)",
               "log(SKIPPING entry 0 bios id invalid)", cleaned}));
}

TEST_F(ProgrammingChild, GoesOnAfterAFailedExtraction)
{
    insert_table(200, {row(), row()});
    platform().next_result("extract", {0x40710003, 0});
    EXPECT_EQ(run(5), 0);
    EXPECT_TRUE(platform().logged("error: in extracting err=40710003 "));
    EXPECT_EQ(platform().calls("extract").size(), 2u);
    EXPECT_EQ(platform().calls("bios_prog_all_bios_flashes").size(), 1u);
}

TEST_F(ProgrammingChild, EndsTheExtractionAtARowWithoutTheOperation)
{
    bios_flash_entry lacking = row();
    lacking.extract = nullptr;
    insert_table(200, {row(), lacking, row()});
    EXPECT_EQ(run(5), 0);
    EXPECT_EQ(platform().calls("extract").size(), 1u);
    EXPECT_EQ(platform().calls("cleanup").size(), 3u);
    EXPECT_FALSE(platform().logged("--- starting extraction in active 2 out of 3"));
}

TEST_F(ProgrammingChild, ForgetsAFailedCleanUp)
{
    insert_table(200, {row(), row()});
    platform().next_result("cleanup", {0x40710003, 0});
    EXPECT_EQ(run(5), 0);
    EXPECT_EQ(platform().logs().back(), "error: in cleanup err=40710003 ");
    EXPECT_EQ(platform().calls("cleanup").size(), 2u);
}

TEST_F(ProgrammingChild, ReportsARowWithoutTheCleanUpOperation)
{
    bios_flash_entry lacking = row();
    lacking.cleanup = nullptr;
    insert_table(200, {row(), lacking, row()});
    EXPECT_EQ(run(5), 0x40710013);
    EXPECT_EQ(platform().calls("cleanup").size(), 1u);
}

TEST_F(ProgrammingChild, ReportsAProgrammingFailureBeforeAMissingOperation)
{
    bios_flash_entry lacking = row();
    lacking.cleanup = nullptr;
    insert_table(200, {lacking});
    platform().next_result("bios_prog_all_bios_flashes", {0x40710008, 0});
    EXPECT_EQ(run(5), 0x40710008);
}

TEST_F(ProgrammingChild, LacksNoOperationInARowThatIsInvalid)
{
    bios_flash_entry invalid{};
    insert_table(200, {invalid});
    EXPECT_EQ(run(5), 0);
}

TEST_F(ProgrammingChild, ReadsTheCountAgainAfterEachRow)
{
    insert_table(200, {row(), row(), row()});
    platform().when("extract", [] { table_in_use->count = 1; });
    EXPECT_EQ(run(5), 0);
    EXPECT_EQ(platform().calls("extract").size(), 1u);
    EXPECT_EQ(platform().calls("cleanup").size(), 1u);
}

} // namespace
