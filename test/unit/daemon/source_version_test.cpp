// The source-version report: which rows it walks, what it answers, and what becomes of failures.
#include "source_version.h"

#include <cerrno>
#include <functional>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "bios_daemon_state.h"
#include "cmi.h"
#include "record_forms.h"
#include "version_message.h"

namespace
{

bios_card_table *row_list;   // what the next look-up of the card's rows returns
const void *row_list_in_use; // until it is freed
const void *answered_block;  // payload of the answer, until it is freed

} // namespace

extern "C" {

std::int32_t __real_cmi_response(const void *payload, std::uint32_t length, std::int32_t handle,
                                 mts_message_t *message, std::uint32_t answer_status);
void __real_free(void *block);

bios_card_table *__wrap_bios_get_card_id_ent(std::uint32_t card_id, std::uint32_t)
{
    (void)platform().called("bios_get_card_id_ent", text(card_id));
    row_list_in_use = row_list;
    return std::exchange(row_list, nullptr);
}

std::int32_t __wrap_cmi_response(const void *payload, std::uint32_t length, std::int32_t handle,
                                 mts_message_t *message, std::uint32_t answer_status)
{
    answered_block = payload;
    return __real_cmi_response(payload, length, handle, message, answer_status);
}

void __wrap_free(void *block)
{
    if (block != nullptr && block == row_list_in_use) {
        row_list_in_use = nullptr;
        platform().note("freed(row list)");
    } else if (block != nullptr && block == answered_block) {
        answered_block = nullptr;
        platform().note("freed(answer)");
    }
    __real_free(block);
}

} // extern "C"

namespace
{

constexpr char source[] = "/vesk/bin/bios-x86n.bin.gz";
constexpr char temporary[] = "/bootflash/.tmpbios.bin";
constexpr char extracted[] = R"("/vesk/bin/bios-x86n.bin.gz", "/bootflash/.tmpbios.bin")";

std::int32_t extract(std::int32_t handle, std::uint32_t flash_type, const char *image_path, const char *src_path,
                     const char *tmp_path)
{
    return status(platform().called("extract", joined({text(handle), text(flash_type), quoted(image_path),
                                                       quoted(src_path), quoted(tmp_path)})));
}

std::int32_t clean_up(std::int32_t handle, std::uint32_t flash_type, const char *image_path, const char *src_path,
                      const char *tmp_path)
{
    platform().note("src_version_chk(" + text(src_version_chk) + ")");
    return status(platform().called("cleanup", joined({text(handle), text(flash_type), quoted(image_path),
                                                       quoted(src_path), quoted(tmp_path)})));
}

// Finds version_texts["image 3"] in an image of format 3; the buffer takes 256 bytes.
std::int32_t read_version(const char *image_path, char *version_out, std::uint32_t sw_src_id)
{
    platform().note("src_version_chk(" + text(src_version_chk) + ")");
    const scripted_result result =
        platform().called("image_src_version", joined({quoted(image_path), text(sw_src_id)}));
    (void)std::snprintf(version_out, 256, "%s", platform().version_texts["image " + text(sw_src_id)].c_str());
    return status(result);
}

bios_flash_entry row(std::uint32_t sw_src_id)
{
    bios_flash_entry entry{};
    std::strcpy(entry.sw_id_str, "swid-bios");
    entry.flash_type = 11;
    entry.sw_src_id = sw_src_id;
    entry.tmp_path = temporary;
    entry.src_path = source;
    entry.image_src_version = read_version;
    entry.extract = extract;
    entry.cleanup = clean_up;
    return entry;
}

bios_flash_entry changed(bios_flash_entry entry, const std::function<void(bios_flash_entry &)> &change)
{
    change(entry);
    return entry;
}

const bios_flash_entry alternate_flash = changed(row(9), [](bios_flash_entry &r) { r.flash_instance = 1; });
const bios_flash_entry invalid_flash = changed(row(9), [](bios_flash_entry &r) { r.flash_type = 0; });

bios_flash_entry without_clean_up(std::uint32_t sw_src_id)
{
    return changed(row(sw_src_id), [](bios_flash_entry &r) { r.cleanup = nullptr; });
}

bios_flash_entry without_extract(std::uint32_t sw_src_id)
{
    return changed(row(sw_src_id), [](bios_flash_entry &r) { r.extract = nullptr; });
}

bytes entry_bytes(const bytes &src_id, std::string_view version)
{
    return message_bytes(268)
        .put(4, {0, 0, 0, 11})
        .text(8, "swid-bios")
        .text(136, version)
        .put(264, src_id)
        .content();
}

const bytes first_entry = entry_bytes({0, 0, 0, 3}, "v3.5.0(09/17/12)");
const bytes second_entry = entry_bytes({0, 0, 0, 4}, "v2.1.9");

// Card 271 asks nobody: its images hold v3.5.0(09/17/12) in format 3 and v2.1.9 in format 4. The request wants
// the images of the image tree and no notices.
class SourceVersion : public daemon_test
{
protected:
    SourceVersion()
    {
        src_version_chk = 0;
        platform().module_info_card_id = 271;
        platform().version_texts["image 3"] = "v3.5.0(09/17/12)";
        platform().version_texts["image 4"] = "v2.1.9";
    }
    ~SourceVersion() override
    {
        EXPECT_EQ(row_list_in_use, nullptr) << "the row list was not freed";
        EXPECT_TRUE(platform().story({"cmi_response"}).empty() || answered_block == nullptr) << "leaked answer";
        std::free(std::exchange(row_list, nullptr));
        row_list_in_use = answered_block = nullptr;
        src_version_chk = 0;
    }

    static void has_rows(const std::vector<bios_flash_entry> &rows)
    {
        void *block = std::malloc(sizeof(bios_card_table) + rows.size() * sizeof(bios_flash_entry));
        row_list = new (block) bios_card_table{static_cast<std::uint32_t>(rows.size())};
        std::copy(rows.begin(), rows.end(), row_list->entries());
    }
    std::uint32_t report()
    {
        return static_cast<std::uint32_t>(
            bios_return_src_version(7, &wanted, platform().message(4789, request(bytes_of(wanted)))));
    }
    static lines walk() { return platform().story({"extract", "image_src_version", "cleanup"}); }
    static lines notices() { return platform().calls("mts_send"); }
    static std::string notice(const std::string &percent)
    {
        return "mts_send(7, 0x501, 94, 4698, [" + percent + "], 4, 0, 0, 0)";
    }
    static std::string header() { return dumped(the_answer().payload.data(), 8); }

    bios_src_version_req wanted{1, "", {0xfe000000, 0}};
    const std::string extract_line = "extract(7, 11, null, " + std::string(extracted) + ")";
    const std::string clean_up_line = "cleanup(7, 11, null, " + std::string(extracted) + ")";
    static std::string read_line(const std::string &format)
    {
        return R"(image_src_version("/bootflash/.tmpbios.bin", )" + format + ")";
    }
};

TEST_F(SourceVersion, UnpacksReadsAndCleansUpARow)
{
    has_rows({row(3)});
    wanted.progress_addr.node = 0x501;
    wanted.progress_addr.sap = 94;
    EXPECT_EQ(report(), 0u);
    const lines told = platform().story({"log", "get_card_module_info", "bios_get_card_id_ent", "mts_send",
                                         "extract", "image_src_version", "cleanup", "src_version_chk"});
    EXPECT_EQ(told, (lines{"log(get the sw card id.....)", "get_card_module_info(cleared)", "log(sw card id = 271)",
                           "log(case 2)", "bios_get_card_id_ent(271)",
                           "log(--- starting extraction in active 0 out of 1\\n)", extract_line,
                           "log(pathname=/vesk/bin/bios-x86n.bin.gz, bios_src=/bootflash/.tmpbios.bin\\n)",
                           "src_version_chk(1)", read_line("3"),
                           "log((0) swid=11 swidstr=swid-bios src_id = 3 ver=v3.5.0(09/17/12)\\n)",
                           "src_version_chk(1)", clean_up_line}));
    EXPECT_EQ(the_answer().rest, "276, 7, #1, 0x0");
    EXPECT_EQ(src_version_chk, 1u);
}

TEST_F(SourceVersion, AnswersOneEntryForEachPrimaryFlash)
{
    has_rows({row(3), row(4)});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(
        the_answered_bytes(),
        hex_dump(
            message_bytes(8).put(0, {0, 0, 0, 0, 0, 0, 0, 2}).append(first_entry).append(second_entry).content()));
    EXPECT_EQ(the_answer().rest, "544, 7, #1, 0x0");
    EXPECT_TRUE(platform().logged("(1) swid=11 swidstr=swid-bios src_id = 4 ver=v2.1.9\\n"));
}

TEST_F(SourceVersion, PutsTheRowsFlashKindAndFormatIntoTheEntry)
{
    has_rows({changed(row(0x01020304), [](bios_flash_entry &r) { r.flash_type = 0x0a0b0c0d; })});
    EXPECT_EQ(report(), 0u);
    const bytes payload = the_answer().payload;
    EXPECT_EQ(dumped(payload.data() + 8, 8), "[00000000 0a0b0c0d]");
    EXPECT_EQ(dumped(payload.data() + 8 + 264, 4), "[01020304]");
}

TEST_F(SourceVersion, CutsTextsAtTheirFieldsEnd)
{
    platform().version_texts["image 3"] = std::string(200, 'v');
    has_rows({changed(row(3), [](bios_flash_entry &r) { std::memset(r.sw_id_str, 'L', 129); })});
    EXPECT_EQ(report(), 0u);
    const bytes payload = the_answer().payload;
    EXPECT_EQ(hex_dump({payload.begin() + 8, payload.end()}), hex_dump(message_bytes(268)
                                                                           .put(4, {0, 0, 0, 11})
                                                                           .text(8, std::string(128, 'L'))
                                                                           .text(136, std::string(128, 'v'))
                                                                           .put(264, {0, 0, 0, 3})
                                                                           .content()));
}

TEST_F(SourceVersion, CutsTheTemporaryPathAt255Characters)
{
    const std::string long_path = "/" + std::string(300, 'p');
    has_rows({changed(row(3), [&long_path](bios_flash_entry &r) { r.tmp_path = long_path.c_str(); })});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(platform().calls("image_src_version"),
              lines{"image_src_version(\"" + long_path.substr(0, 255) + "\", 3)"});
}

TEST_F(SourceVersion, FreesTheRowListBeforeItAnswersAndTheAnswerAfterwards)
{
    has_rows({row(3)});
    EXPECT_EQ(report(), 0u);
    EXPECT_THAT(platform().story({"cmi_response", "freed"}),
                testing::ElementsAre("freed(row list)", testing::StartsWith("cmi_response(["), "freed(answer)"));
}

// Where the image comes from.

TEST_F(SourceVersion, HandsTheNamedImageToEveryExtractionAndCleanUp)
{
    wanted.def = 0;
    std::strcpy(wanted.image_path, "/bootflash/system.bin");
    has_rows({row(3)});
    EXPECT_EQ(report(), 0u);
    const std::string arguments = "(7, 11, \"/bootflash/system.bin\", " + std::string(extracted) + ")";
    EXPECT_EQ(platform().story({"extract", "cleanup"}), (lines{"extract" + arguments, "cleanup" + arguments}));
}

TEST_F(SourceVersion, TakesTheImageTreeForAnyOtherDef)
{
    for (const std::uint32_t def : {1u, 0x01000000u, 0x80000000u, 0xffffffffu}) {
        wanted.def = def;
        std::strcpy(wanted.image_path, "/bootflash/system.bin");
        has_rows({row(3)});
        EXPECT_EQ(report(), 0u);
    }
    EXPECT_EQ(platform().calls("extract"), lines(4, extract_line));
    EXPECT_EQ(platform().calls("cleanup"), lines(4, clean_up_line));
}

TEST_F(SourceVersion, HandsOnAnEmptyImagePath)
{
    wanted.def = 0;
    has_rows({row(3)});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(platform().calls("extract"), lines{"extract(7, 11, \"\", " + std::string(extracted) + ")"});
}

TEST_F(SourceVersion, CutsAnImagePathThatFillsItsField)
{
    wanted.def = 0;
    std::memset(wanted.image_path, 'x', sizeof wanted.image_path);
    wanted.progress_addr.node = 0x79797979; // would be read as more of the path
    wanted.progress_addr.sap = 0x79797979;
    has_rows({row(3)});
    const auto body = std::make_unique<bios_src_version_req>(wanted);
    EXPECT_EQ(bios_return_src_version(7, body.get(), platform().message(4789)), 0);
    const std::string arguments = "(7, 11, \"" + std::string(255, 'x') + "\", " + std::string(extracted) + ")";
    EXPECT_EQ(platform().story({"extract", "cleanup"}), (lines{"extract" + arguments, "cleanup" + arguments}));
}

TEST_F(SourceVersion, HandsOnAnImagePathOf255Characters)
{
    wanted.def = 0;
    std::memset(wanted.image_path, 'x', 255);
    has_rows({row(3)});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(platform().calls("extract"),
              lines{"extract(7, 11, \"" + std::string(255, 'x') + "\", " + std::string(extracted) + ")"});
}

// Before there are rows.

TEST_F(SourceVersion, IsAnsweredWithoutPayloadWhenTheCardIsNotKnown)
{
    platform().next_result("get_card_module_info", {-1, EIO});
    EXPECT_EQ(report(), 0x40710006u);
    EXPECT_EQ(platform().story({"log", "get_card_module_info", "bios_get_card_id_ent", "cmi_response"}),
              (lines{"log(get the sw card id.....)", "get_card_module_info(cleared)",
                     "log(SYSERR_BIOS_PFM_GET_MODULES_FAILED.)", "cmi_response(null, 8, 7, #1, 0x0)"}));
}

TEST_F(SourceVersion, TakesAnyOtherResultForAFailureOfTheModuleInformation)
{
    platform().next_result("get_card_module_info", {1, 0});
    EXPECT_EQ(report(), 0x40710006u);
    EXPECT_EQ(platform().calls("bios_get_card_id_ent"), lines{});
}

TEST_F(SourceVersion, IsAnsweredWithoutPayloadWhenTheCardHasNoRows)
{
    EXPECT_EQ(report(), 0x40710012u);
    EXPECT_EQ(platform().story({"log", "bios_get_card_id_ent", "cmi_response", "mts_send"}),
              (lines{"log(get the sw card id.....)", "log(sw card id = 271)", "log(case 2)",
                     "bios_get_card_id_ent(271)", "cmi_response(null, 8, 7, #1, 0x0)"}));
}

TEST_F(SourceVersion, TellsThreeCardsApartInTheLogAlone)
{
    for (const int card_id : {39, 40, 44, 38, 41, 43, 45, 0, 65535}) {
        platform().module_info_card_id = static_cast<std::uint16_t>(card_id);
        EXPECT_EQ(report(), 0x40710012u);
        const bool first_case = card_id == 39 || card_id == 40 || card_id == 44;
        EXPECT_EQ(platform().logs().back(), first_case ? "case 1" : "case 2") << card_id;
        EXPECT_TRUE(platform().logged("sw card id = " + std::to_string(card_id)));
        EXPECT_EQ(platform().calls("bios_get_card_id_ent").back(),
                  line_of("bios_get_card_id_ent", std::to_string(card_id)));
    }
}

TEST_F(SourceVersion, IsAnsweredWithTheFullLengthAndNoPayloadWhenMemoryRunsOut)
{
    has_rows({row(3), row(4)});
    platform().fail_allocation_of(8 + 268 * 2);
    EXPECT_EQ(report(), 12u);
    EXPECT_EQ(platform().story({"cmi_response", "freed"}),
              (lines{"freed(row list)", "cmi_response(null, 544, 7, #1, 0x0)"}));
    EXPECT_EQ(walk(), lines{});
}

TEST_F(SourceVersion, IsAHeaderAloneForACardWithoutRows)
{
    has_rows({});
    wanted.progress_addr.node = 0x501;
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(platform().story({"cmi_response", "freed"}),
              (lines{"freed(row list)", "cmi_response([00000000 00000000], 8, 7, #1, 0x0)", "freed(answer)"}));
    EXPECT_EQ(notices(), lines{});
}

// Progress notices.

class SourceVersionProgress : public SourceVersion
{
protected:
    SourceVersionProgress()
    {
        wanted.progress_addr.node = 0x501;
        wanted.progress_addr.sap = 94;
    }
};

TEST_F(SourceVersionProgress, IsSentBeforeEachRowButTheFirst)
{
    has_rows({row(3), row(4), row(3), row(4)});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(platform().story({"mts_send", "extract"}),
              (lines{extract_line, notice("19000000"), extract_line, notice("32000000"), extract_line,
                     notice("4b000000"), extract_line}));
}

TEST_F(SourceVersionProgress, IsRoundedDown)
{
    has_rows({row(3), row(3), row(3)});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(notices(), (lines{notice("21000000"), notice("42000000")}));
}

TEST_F(SourceVersionProgress, IsNotSentWhileItIs0)
{
    has_rows(std::vector<bios_flash_entry>(201, alternate_flash));
    EXPECT_EQ(report(), 0u);
    EXPECT_THAT(notices(), testing::SizeIs(198)); // 100 * 3 / 201 is the first that is not 0
    EXPECT_EQ(notices().front(), notice("01000000"));
    EXPECT_EQ(notices().back(), notice("63000000"));
}

TEST_F(SourceVersionProgress, IsNotSentForOneRow)
{
    has_rows({row(3)});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(notices(), lines{});
}

TEST_F(SourceVersionProgress, IsSentBeforeRowsThatAreSkipped)
{
    has_rows({row(3), alternate_flash, invalid_flash});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(notices(), (lines{notice("21000000"), notice("42000000")}));
}

TEST_F(SourceVersionProgress, IsNotSentToTheListenersWithSap0)
{
    wanted.progress_addr.node = 0xfe000000;
    wanted.progress_addr.sap = 0;
    has_rows({row(3), row(4)});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(notices(), lines{});
}

TEST_F(SourceVersionProgress, IsSentToAddressesThatAreOnlyHalfThatOne)
{
    wanted.progress_addr.node = 0xfe000000;
    wanted.progress_addr.sap = 94;
    has_rows({row(3), row(4)});
    EXPECT_EQ(report(), 0u);
    wanted.progress_addr.node = 0x501;
    wanted.progress_addr.sap = 0;
    has_rows({row(3), row(4)});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(notices(), (lines{"mts_send(7, 0xfe000000, 94, 4698, [32000000], 4, 0, 0, 0)",
                                "mts_send(7, 0x501, 0, 4698, [32000000], 4, 0, 0, 0)"}));
}

TEST_F(SourceVersionProgress, MayFail)
{
    platform().every_result("mts_send", {-1, ECONNREFUSED});
    has_rows({row(3), row(4), row(3)});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(notices().size(), 2u);
    EXPECT_EQ(header(), "[00000000 00000003]");
}

// Rows that are left out.

TEST_F(SourceVersion, PassesOverAlternateFlashesInSilence)
{
    has_rows({alternate_flash, row(4), changed(row(3), [](bios_flash_entry &r) { r.flash_instance = 255; })});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(walk(), (lines{extract_line, read_line("4"), clean_up_line}));
    EXPECT_EQ(header(), "[00000000 00000001]");
    EXPECT_EQ(the_answer().rest, "812, 7, #1, 0x0");
    const bytes payload = the_answer().payload;
    EXPECT_EQ(hex_dump({payload.begin() + 8, payload.begin() + 276}), hex_dump(second_entry));
    const lines told = platform().logs();
    EXPECT_EQ(lines(told.begin() + 3, told.end()),
              (lines{"--- starting extraction in active 1 out of 3\\n",
                     "pathname=/vesk/bin/bios-x86n.bin.gz, bios_src=/bootflash/.tmpbios.bin\\n",
                     "(0) swid=11 swidstr=swid-bios src_id = 4 ver=v2.1.9\\n"}));
}

TEST_F(SourceVersion, LeavesOutRowsOfNoFlashKind)
{
    const bios_flash_entry bare = changed(invalid_flash, [](bios_flash_entry &r) {
        r.extract = nullptr;
        r.cleanup = nullptr;
    });
    has_rows({invalid_flash, bare, row(4)});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(walk(), (lines{extract_line, read_line("4"), clean_up_line}));
    const lines told = platform().logs();
    EXPECT_EQ(lines(told.begin() + 3, told.begin() + 7),
              (lines{"--- starting extraction in active 0 out of 3\\n", "SKIPPING entry 0 bios id invalid\\n",
                     "--- starting extraction in active 1 out of 3\\n", "SKIPPING entry 1 bios id invalid\\n"}));
    EXPECT_EQ(header(), "[00000000 00000001]");
    EXPECT_EQ(the_answer().rest, "812, 7, #1, 0x0");
}

TEST_F(SourceVersion, EndsAtARowWithoutExtraction)
{
    has_rows({row(3), without_extract(4), row(4)});
    EXPECT_EQ(report(), 0x40710013u);
    EXPECT_EQ(walk(), (lines{extract_line, read_line("3"), clean_up_line}));
    EXPECT_EQ(header(), "[40710013 00000001]");
    EXPECT_EQ(the_answer().rest, "812, 7, #1, 0x0");
    const bytes payload = the_answer().payload;
    EXPECT_EQ(hex_dump({payload.begin() + 8, payload.begin() + 276}), hex_dump(first_entry));
    EXPECT_EQ(platform().calls("freed").size(), 2u);
}

TEST_F(SourceVersion, EndsAtARowWithoutCleanUpAndDoesNotCountIt)
{
    has_rows({row(3), without_clean_up(4), row(4)});
    EXPECT_EQ(report(), 0x40710013u);
    EXPECT_EQ(walk(), (lines{extract_line, read_line("3"), clean_up_line, extract_line, read_line("4")}));
    EXPECT_EQ(header(), "[40710013 00000001]");
    EXPECT_TRUE(platform().logged("(1) swid=11 swidstr=swid-bios src_id = 4 ver=v2.1.9\\n"));
    EXPECT_EQ(src_version_chk, 1u);
}

// Extractions that fail.

TEST_F(SourceVersion, GoesOnAfterAnImageThatCannotBeUnpacked)
{
    platform().next_result("extract", {0x40710003, 0});
    has_rows({row(3), row(4)});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(walk(), (lines{extract_line, clean_up_line, extract_line, read_line("4"), clean_up_line}));
    EXPECT_TRUE(platform().logged("error: in extracting err=40710003 \\n"));
    EXPECT_EQ(header(), "[00000000 00000001]");
    const bytes payload = the_answer().payload;
    EXPECT_EQ(hex_dump({payload.begin() + 8, payload.begin() + 276}), hex_dump(second_entry));
    EXPECT_TRUE(platform().logged("(0) swid=11 swidstr=swid-bios src_id = 4 ver=v2.1.9\\n"));
}

TEST_F(SourceVersion, IsASuccessWhenNothingCouldBeUnpackedButAllWasCleanedUp)
{
    platform().every_result("extract", {-2, 0});
    src_version_chk = 77;
    has_rows({row(3), row(4)});
    EXPECT_EQ(report(), 0u);
    EXPECT_TRUE(platform().logged("error: in extracting err=fffffffe \\n"));
    EXPECT_EQ(header(), "[00000000 00000000]");
    EXPECT_EQ(the_answer().rest, "544, 7, #1, 0x0");
    EXPECT_EQ(src_version_chk, 77u) << "no version was read";
}

TEST_F(SourceVersion, IsTheCleanUpsFailureWhenTheLastExtractionFailedToo)
{
    platform().next_result("extract", {0, 0});
    platform().next_result("extract", {0x40710003, 0});
    platform().next_result("cleanup", {0, 0});
    platform().next_result("cleanup", {0x40710004, 0});
    has_rows({row(3), row(4), alternate_flash, invalid_flash});
    EXPECT_EQ(report(), 0x40710004u);
    const lines told = platform().logs();
    const auto failed = std::find(told.begin(), told.end(), "error: in extracting err=40710003 \\n");
    ASSERT_NE(failed, told.end());
    EXPECT_EQ(*(failed + 1), "error: in cleanup err=40710004 \\n");
    EXPECT_EQ(header(), "[40710004 00000001]");
}

TEST_F(SourceVersion, ForgetsAFailedCleanUpWhenALaterRowIsRead)
{
    platform().next_result("extract", {0x40710003, 0});
    platform().next_result("cleanup", {0x40710004, 0});
    has_rows({row(3), row(4)});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(header(), "[00000000 00000001]");
}

TEST_F(SourceVersion, ForgetsAFailedCleanUpWhenALaterExtractionFailsAndIsCleanedUp)
{
    platform().every_result("extract", {0x40710003, 0});
    platform().next_result("cleanup", {0x40710004, 0});
    has_rows({row(3), row(4)});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(header(), "[00000000 00000000]");
}

TEST_F(SourceVersion, GoesOnAfterAFailedExtractionThatCannotBeCleanedUp)
{
    platform().every_result("extract", {0x40710003, 0});
    platform().next_result("cleanup", {0x40710004, 0});
    has_rows({row(3), without_clean_up(3)});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(walk(), (lines{extract_line, clean_up_line, extract_line}));
    EXPECT_EQ(header(), "[00000000 00000000]");
}

// Versions that cannot be read.

TEST_F(SourceVersion, EndsAsASuccessWhenAVersionCannotBeReadAndIsCleanedUp)
{
    platform().next_result("image_src_version", {0, 0});
    platform().next_result("image_src_version", {-61, 0});
    has_rows({row(3), row(4), row(3)});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(walk(),
              (lines{extract_line, read_line("3"), clean_up_line, extract_line, read_line("4"), clean_up_line}));
    EXPECT_EQ(platform().logs().back(), "error: in getting source version err=ffffffc3 \\n");
    EXPECT_EQ(header(), "[00000000 00000001]");
    EXPECT_EQ(the_answer().rest, "812, 7, #1, 0x0");
    EXPECT_EQ(src_version_chk, 0u);
    EXPECT_EQ(platform().calls("src_version_chk").back(), "src_version_chk(0)") << "already 0 at the clean-up";
}

TEST_F(SourceVersion, EndsWithTheReadersResultWhenTheRowHasNoCleanUp)
{
    platform().next_result("image_src_version", {-22, 0});
    has_rows({without_clean_up(3), row(4)});
    EXPECT_EQ(report(), 0xffffffeau);
    EXPECT_EQ(walk(), (lines{extract_line, read_line("3")}));
    EXPECT_EQ(header(), "[ffffffea 00000000]");
    EXPECT_EQ(src_version_chk, 0u);
}

TEST_F(SourceVersion, EndsWithTheCleanUpsFailureWhenAVersionCannotBeRead)
{
    platform().next_result("image_src_version", {-61, 0});
    platform().next_result("cleanup", {0x40710004, 0});
    has_rows({row(3), row(4)});
    EXPECT_EQ(report(), 0x40710004u);
    const lines told = platform().logs();
    EXPECT_EQ(lines(told.end() - 2, told.end()),
              (lines{"error: in getting source version err=ffffffc3 \\n", "error: in cleanup err=40710004 \\n"}));
    EXPECT_EQ(header(), "[40710004 00000000]");
    EXPECT_EQ(src_version_chk, 0u);
}

TEST_F(SourceVersion, IgnoresAFailedCleanUpAfterAVersionWasRead)
{
    platform().every_result("cleanup", {0x40710004, 0});
    has_rows({row(3), row(4)});
    EXPECT_EQ(report(), 0u);
    const lines told = platform().logs();
    EXPECT_EQ(std::count(told.begin(), told.end(), "error: in cleanup err=40710004 \\n"), 2);
    EXPECT_EQ(header(), "[00000000 00000002]");
}

TEST_F(SourceVersion, IsItsOwnResultWhateverBecomesOfTheAnswer)
{
    platform().every_result("cmi_response", {-1, ECONNREFUSED});
    has_rows({row(3)});
    EXPECT_EQ(report(), 0u);
    EXPECT_EQ(platform().calls("freed").size(), 2u);
}

} // namespace
