// The versions of the own card, in the supervisor's form and in the line card's.
#include "self_version.h"

#include <cerrno>
#include <new>
#include <utility>
#include <vector>

#include "bios_daemon_state.h"
#include "record_forms.h"
#include "version_message.h"

namespace
{

bool versions_are_scripted = true; // else those of the card

} // namespace

extern "C" {

std::int32_t __real_mod_get_bios_version(std::int32_t handle, std::uint32_t row_index, std::uint32_t type,
                                         char *out);

// Finds version_texts["cur 1"] and version_texts["run 1"] for row 1; all 128 bytes are written.
std::int32_t __wrap_mod_get_bios_version(std::int32_t handle, std::uint32_t row_index, std::uint32_t type,
                                         char *out)
{
    if (!versions_are_scripted)
        return __real_mod_get_bios_version(handle, row_index, type, out);
    const scripted_result result =
        platform().called("mod_get_bios_version", joined({text(handle), text(row_index), text(type)}));
    std::string version = platform().version_texts[(type == 0 ? "cur " : "run ") + text(row_index)];
    version.resize(128);
    version.copy(out, 128);
    return status(result);
}

} // extern "C"

namespace
{

std::int32_t read_flash(std::int32_t handle, std::uint32_t flash_type, std::uint32_t flash_select,
                        char *version_out)
{
    (void)platform().called("read_flash", joined({text(handle), text(flash_type), text(flash_select)}));
    (void)std::snprintf(version_out, 128, "v3.6.0");
    return 0;
}

bios_flash_entry row(std::string_view label, std::uint32_t flash_type = 11)
{
    bios_flash_entry entry{};
    label.copy(entry.sw_id_str, sizeof entry.sw_id_str - 1);
    entry.flash_type = flash_type;
    entry.get_flash_version = read_flash;
    return entry;
}

const std::string full_field(128, 'x');

// The card in slot 5. Its rows are the global self_card_id_tbl, as in the daemon.
class SelfVersion : public daemon_test
{
protected:
    SelfVersion()
    {
        for (int i = 0; i < 4; ++i) {
            platform().version_texts["cur " + text(i)] = "v3.6." + text(i);
            platform().version_texts["run " + text(i)] = "v3.5." + text(i);
        }
    }
    ~SelfVersion() override
    {
        std::free(std::exchange(self_card_id_tbl, nullptr));
        std::free(std::exchange(bios_flash_instance, nullptr));
        std::memset(running_version, 0, sizeof running_version);
        bios_programming_in_progress = 0;
        bios_cmd_program_in_progress = 0;
        versions_are_scripted = true;
    }

    // The table says count, whatever number of rows stands behind it.
    static void has_rows(const std::vector<bios_flash_entry> &rows, std::uint32_t count)
    {
        std::free(self_card_id_tbl);
        void *block = std::malloc(sizeof(bios_card_table) + rows.size() * sizeof(bios_flash_entry));
        self_card_id_tbl = new (block) bios_card_table{count};
        std::copy(rows.begin(), rows.end(), self_card_id_tbl->entries());
        bios_flash_instance = static_cast<char *>(std::realloc(bios_flash_instance, 128 * rows.size()));
        std::memset(bios_flash_instance, 0, 128 * rows.size());
    }
    static void has_rows(const std::vector<bios_flash_entry> &rows)
    {
        has_rows(rows, static_cast<std::uint32_t>(rows.size()));
    }
    static std::int32_t report_own_module(std::uint32_t module = 5)
    {
        return bios_get_new_self_version_info(7, module, platform().message(4790), nullptr, self_card_id_tbl);
    }
    static std::int32_t report_to_supervisor()
    {
        return bios_get_self_version_info(7, platform().message(4794), nullptr, self_card_id_tbl);
    }
    static lines reads_of_rows(int count)
    {
        lines expected;
        for (int i = 0; i < count; ++i) {
            expected.push_back("mod_get_bios_version(7, " + text(i) + ", 0)");
            expected.push_back("mod_get_bios_version(7, " + text(i) + ", 1)");
        }
        return expected;
    }
};

// For the own module: header and one entry for each row.

bytes own_module_header(std::uint8_t rows)
{
    return message_bytes(16).put(4, {0, 0, 0, 5, 0, 0, 0, rows, 0, 0, 0, 19}).content();
}

// Row i as the own module's answer describes it.
bytes own_entry(int i, std::string_view label, const bytes &swid)
{
    return version_entry({0, 0, 0, 0}, swid, label, "v3.6." + text(i), "v3.5." + text(i));
}

// Word 0 is undefined.
std::string answered_behind_word_0()
{
    return hex_dump(message_bytes(the_answer().payload).put(0, {0, 0, 0, 0}).content());
}

TEST_F(SelfVersion, OfTheOwnModuleIsAHeaderAloneForACardWithoutRows)
{
    has_rows({row("swid-bios")}, 0);
    EXPECT_EQ(report_own_module(), 0);
    EXPECT_EQ(answered_behind_word_0(), hex_dump(own_module_header(0)));
    EXPECT_EQ(the_answer().rest, "16, 7, #1, 0x0");
    EXPECT_EQ(platform().calls("mod_get_bios_version"), lines{});
    EXPECT_EQ(platform().logs(),
              (lines{"Length of the message is = 16 BIOS ID = 19\\n", "module_num 5 num_entries 0 \\n"}));
}

TEST_F(SelfVersion, OfTheOwnModuleHasAnEntryForItsRow)
{
    has_rows({row("swid-bios")});
    EXPECT_EQ(report_own_module(), 0);
    EXPECT_EQ(
        answered_behind_word_0(),
        hex_dump(message_bytes(own_module_header(1)).append(own_entry(0, "swid-bios", {0, 0, 0, 11})).content()));
    EXPECT_EQ(the_answer().rest, "408, 7, #1, 0x0");
    EXPECT_EQ(platform().story({"log", "mod_get_bios_version"}),
              (lines{"log(Length of the message is = 408 BIOS ID = 19\\n)", "log(module_num 5 num_entries 1 \\n)",
                     "log( instance # 0\\n)", "mod_get_bios_version(7, 0, 0)", "mod_get_bios_version(7, 0, 1)",
                     "log(The versions cur=v3.6.0 run=v3.5.0 stat=0\\n)"}));
}

TEST_F(SelfVersion, OfTheOwnModuleHasEachRowsLabelAndFlashKind)
{
    has_rows({row("swid-bios"), row("swid-fpga", 0x01020304)});
    EXPECT_EQ(report_own_module(), 0);
    EXPECT_EQ(answered_behind_word_0(), hex_dump(message_bytes(own_module_header(2))
                                                     .append(own_entry(0, "swid-bios", {0, 0, 0, 11}))
                                                     .append(own_entry(1, "swid-fpga", {1, 2, 3, 4}))
                                                     .content()));
    EXPECT_EQ(the_answer().rest, "800, 7, #1, 0x0");
}

TEST_F(SelfVersion, OfTheOwnModuleHasThreeEntriesOneBehindTheOther)
{
    has_rows({row("a", 1), row("b", 2), row("c", 3)});
    EXPECT_EQ(report_own_module(), 0);
    EXPECT_EQ(answered_behind_word_0(), hex_dump(message_bytes(own_module_header(3))
                                                     .append(own_entry(0, "a", {0, 0, 0, 1}))
                                                     .append(own_entry(1, "b", {0, 0, 0, 2}))
                                                     .append(own_entry(2, "c", {0, 0, 0, 3}))
                                                     .content()));
    EXPECT_EQ(the_answer().rest, "1192, 7, #1, 0x0");
    EXPECT_EQ(platform().calls("mod_get_bios_version"), reads_of_rows(3));
    EXPECT_TRUE(platform().logged(" instance # 2\\n"));
}

TEST_F(SelfVersion, OfTheOwnModuleNamesTheModuleThatWasAskedFor)
{
    has_rows({row("swid-bios")});
    EXPECT_EQ(report_own_module(0x01020384), 0);
    EXPECT_EQ(dumped(the_answer().payload.data() + 4, 4), "[01020384]");
    EXPECT_TRUE(platform().logged("module_num 16909188 num_entries 1 \\n"));
}

TEST_F(SelfVersion, OfTheOwnModuleHasTheStatusOfTheSecondRead)
{
    platform().next_result("mod_get_bios_version", {0x40710025, 0});
    platform().next_result("mod_get_bios_version", {0x01020384, 0});
    has_rows({row("swid-bios")});
    EXPECT_EQ(report_own_module(), 0);
    EXPECT_EQ(dumped(the_answer().payload.data() + 16, 4), "[01020384]");
}

TEST_F(SelfVersion, OfTheOwnModuleHasTextsThatFillTheirFields)
{
    platform().version_texts["cur 0"] = platform().version_texts["run 0"] = full_field;
    has_rows({row(full_field + "y")});
    EXPECT_EQ(report_own_module(), 0);
    EXPECT_EQ(answered_behind_word_0(),
              hex_dump(message_bytes(own_module_header(1))
                           .append(version_entry({0, 0, 0, 0}, {0, 0, 0, 11}, full_field, full_field, full_field))
                           .content()));
    // A message has at most 255 characters.
    EXPECT_EQ(platform().logs().back(), ("The versions cur=" + full_field + " run=" + full_field).substr(0, 255));
}

TEST_F(SelfVersion, OfTheOwnModuleIsNotAnsweredWithoutMemory)
{
    platform().fail_allocation_of(408);
    has_rows({row("swid-bios")});
    EXPECT_EQ(report_own_module(), -1);
    EXPECT_EQ(platform().logs(), lines{"ERROR!!! Couldn't allocate: bios_new_vers_message\\n"});
    EXPECT_EQ(platform().calls("cmi_response"), lines{});
}

TEST_F(SelfVersion, IsASuccessWhateverBecomesOfTheAnswer)
{
    platform().every_result("cmi_response", {-1, ECONNREFUSED});
    has_rows({row("swid-bios")});
    EXPECT_EQ(report_own_module(), 0);
    EXPECT_EQ(report_to_supervisor(), 0);
}

// For the supervisor that asks: the first row at fixed places, the others as TLVs 4 bytes apart.

const bytes version_header = {0x00, 0x00, 0x01, 0x88};

std::string sizes_log(const std::string &total)
{
    return "Size of bios_get_lc_version_t = 260 size of bios_get_lc_version_swid_t = 132 Size of  "
           "tlv_aligned_array_t = 4 sizeof bios_compat_version_msg_t 396 , total m_len = " +
           total + " ";
}

message_bytes line_card_answer(std::size_t length, std::uint8_t further_rows)
{
    return message_bytes(length)
        .text(4, "v3.6.0")
        .text(132, "v3.5.0")
        .put(260, {0, 0, 0, 19})
        .text(264, "swid-bios")
        .put(392, {0, 0, 0, further_rows});
}

// Row k as a TLV's value.
bytes tlv_value(int k, std::string_view label)
{
    return version_entry({0, 0, 0, 0}, {0, 0, 0, 19}, label, "v3.6." + text(k), "v3.5." + text(k));
}

// The answer up to a length; what lies behind the last value is undefined.
std::string answered_up_to(std::size_t length)
{
    return hex_dump(message_bytes(the_answer().payload).cut(length).content());
}

TEST_F(SelfVersion, ForTheSupervisorIsTheFirstRowAlsoOfACardWithoutRows)
{
    has_rows({row("swid-bios", 42)}, 0);
    EXPECT_EQ(report_to_supervisor(), 0);
    EXPECT_EQ(the_answered_bytes(), hex_dump(line_card_answer(396, 0).content()));
    EXPECT_EQ(the_answer().rest, "396, 7, #1, 0x0");
    EXPECT_EQ(platform().logs(), (lines{sizes_log("396"), "Length of the message is = 396\\n",
                                        "The versions cur=v3.6.0 run=v3.5.0 stat=0 extra_tlvs= 0\\n"}));
}

TEST_F(SelfVersion, ForTheSupervisorHasNoTlvForOneRow)
{
    has_rows({row("swid-bios", 42)});
    EXPECT_EQ(report_to_supervisor(), 0);
    EXPECT_EQ(the_answered_bytes(), hex_dump(line_card_answer(396, 0).content()));
    EXPECT_EQ(the_answer().rest, "396, 7, #1, 0x0");
    EXPECT_EQ(platform().story({"log", "mod_get_bios_version"}),
              (lines{"log(" + sizes_log("396") + ")", "log(Length of the message is = 396\\n)",
                     "mod_get_bios_version(7, 0, 0)", "mod_get_bios_version(7, 0, 1)",
                     "log(The versions cur=v3.6.0 run=v3.5.0 stat=0 extra_tlvs= 0\\n)"}));
}

TEST_F(SelfVersion, ForTheSupervisorHasAWellFormedTlvForTwoRows)
{
    has_rows({row("swid-bios", 42), row("swid-fpga", 43)});
    EXPECT_EQ(report_to_supervisor(), 0);
    EXPECT_EQ(
        the_answered_bytes(),
        hex_dump(line_card_answer(792, 1).put(396, version_header).put(400, tlv_value(1, "swid-fpga")).content()));
    EXPECT_EQ(the_answer().rest, "792, 7, #1, 0x0");
    EXPECT_EQ(platform().logs(), (lines{sizes_log("792"), "Length of the message is = 792\\n",
                                        "The versions cur=v3.6.0 run=v3.5.0 stat=0 extra_tlvs= 1\\n",
                                        "The versions extra_tlvs = 1 cur=v3.6.1 run=v3.5.1 stat=0\\n"}));
}

TEST_F(SelfVersion, ForTheSupervisorHasOverlappingTlvsForThreeRows)
{
    has_rows({row("swid-bios"), row("b"), row("c")});
    EXPECT_EQ(report_to_supervisor(), 0);
    EXPECT_EQ(answered_up_to(796), hex_dump(line_card_answer(796, 2)
                                                .put(396, version_header)
                                                .put(400, version_header)
                                                .put(404, tlv_value(2, "c"))
                                                .content()));
    EXPECT_EQ(the_answer().rest, "1188, 7, #1, 0x0");
    EXPECT_EQ(platform().calls("mod_get_bios_version"), reads_of_rows(3));
    EXPECT_TRUE(platform().logged("The versions extra_tlvs = 2 cur=v3.6.1 run=v3.5.1 stat=0\\n"));
    EXPECT_EQ(platform().logs().back(), "The versions extra_tlvs = 2 cur=v3.6.2 run=v3.5.2 stat=0\\n");
}

TEST_F(SelfVersion, ForTheSupervisorHasOverlappingTlvsForFourRows)
{
    has_rows({row("swid-bios"), row("b"), row("c"), row("d")});
    EXPECT_EQ(report_to_supervisor(), 0);
    EXPECT_EQ(answered_up_to(800), hex_dump(line_card_answer(800, 3)
                                                .put(396, version_header)
                                                .put(400, version_header)
                                                .put(404, version_header)
                                                .put(408, tlv_value(3, "d"))
                                                .content()));
    EXPECT_EQ(the_answer().rest, "1584, 7, #1, 0x0");
}

TEST_F(SelfVersion, ForTheSupervisorHasTheStatusOfTheSecondReads)
{
    for (const int result : {0x40710025, 0x01020384, 0x40710026, 0x00000105})
        platform().next_result("mod_get_bios_version", {result, 0});
    has_rows({row("swid-bios"), row("swid-fpga")});
    EXPECT_EQ(report_to_supervisor(), 0);
    EXPECT_EQ(dumped(the_answer().payload.data(), 4), "[01020384]");
    EXPECT_EQ(dumped(the_answer().payload.data() + 400, 4), "[00000105]");
    EXPECT_TRUE(platform().logged("The versions cur=v3.6.0 run=v3.5.0 stat=16909188 extra_tlvs= 1\\n"));
    // As it stands in the message: 05010000 read by an x86 processor.
    EXPECT_TRUE(platform().logged("The versions extra_tlvs = 1 cur=v3.6.1 run=v3.5.1 stat=83951616\\n"));
}

TEST_F(SelfVersion, ForTheSupervisorHasTextsThatFillTheirFields)
{
    for (const char *name : {"cur 0", "run 0", "cur 1", "run 1"})
        platform().version_texts[name] = full_field;
    has_rows({row(full_field + "y"), row(full_field + "y")});
    EXPECT_EQ(report_to_supervisor(), 0);
    EXPECT_EQ(the_answered_bytes(),
              hex_dump(line_card_answer(792, 1)
                           .text(4, full_field)
                           .text(132, full_field)
                           .text(264, full_field)
                           .put(396, version_header)
                           .put(400, version_entry({0, 0, 0, 0}, {0, 0, 0, 19}, full_field, full_field, full_field))
                           .content()));
    const lines told = platform().logs();
    EXPECT_EQ(lines(told.end() - 2, told.end()),
              (lines{("The versions cur=" + full_field + " run=" + full_field).substr(0, 255),
                     ("The versions extra_tlvs = 1 cur=" + full_field + " run=" + full_field).substr(0, 255)}));
}

TEST_F(SelfVersion, ForTheSupervisorIsNotAnsweredWithoutMemory)
{
    platform().fail_allocation_of(792);
    has_rows({row("swid-bios"), row("swid-fpga")});
    EXPECT_EQ(static_cast<std::uint32_t>(report_to_supervisor()), 0xbf8effd8u);
    EXPECT_EQ(platform().logs(), lines{sizes_log("792")});
    EXPECT_EQ(platform().story({"cmi_response", "mod_get_bios_version"}), lines{});
}

// With the card's own versions.

class OwnCardsVersion : public SelfVersion
{
protected:
    OwnCardsVersion()
    {
        versions_are_scripted = false;
        has_rows({row("swid-bios")});
        std::strcpy(running_version, "v3.5.0");
    }
};

TEST_F(OwnCardsVersion, TellsWhatIsInTheFlashFromWhatRuns)
{
    EXPECT_EQ(report_own_module(), 0);
    const bytes entry = version_entry({0, 0, 0, 0}, {0, 0, 0, 11}, "swid-bios", "v3.6.0", "v3.5.0");
    EXPECT_EQ(answered_behind_word_0(), hex_dump(message_bytes(own_module_header(1)).append(entry).content()));
    EXPECT_EQ(platform().calls("read_flash"), lines{"read_flash(7, 11, 0)"});
}

TEST_F(OwnCardsVersion, TellsTheSupervisorWhatIsInTheFlashFromWhatRuns)
{
    EXPECT_EQ(report_to_supervisor(), 0);
    EXPECT_EQ(the_answered_bytes(), hex_dump(line_card_answer(396, 0).content()));
    EXPECT_EQ(platform().calls("read_flash"), lines{"read_flash(7, 11, 0)"});
}

TEST_F(OwnCardsVersion, IsTheRunningOneWhileAFlashIsWritten)
{
    bios_programming_in_progress = 1;
    EXPECT_EQ(report_own_module(), 0);
    const bytes entry = version_entry({0, 0, 0, 0}, {0, 0, 0, 11}, "swid-bios", "v3.5.0", "v3.5.0");
    EXPECT_EQ(answered_behind_word_0(), hex_dump(message_bytes(own_module_header(1)).append(entry).content()));
    EXPECT_EQ(platform().calls("read_flash"), lines{});
}

TEST_F(OwnCardsVersion, IsReadAfreshForEachRequest)
{
    EXPECT_EQ(report_to_supervisor(), 0);
    std::strcpy(running_version, "v4.0.0");
    EXPECT_EQ(report_to_supervisor(), 0);
    EXPECT_EQ(platform().calls("read_flash").size(), 2u);
    EXPECT_EQ(hex_dump(latest_answer().payload), hex_dump(line_card_answer(396, 0).text(132, "v4.0.0").content()));
}

} // namespace
