// The versions of another module: what it is asked, and what its answer becomes.
#include "module_version.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <random>
#include <vector>

#include "cmi.h"
#include "record_forms.h"
#include "tlv.h"
#include "version_message.h"

namespace
{

// The module's answer as the transport handed it over. Its block is as large as the transport promises and no
// larger, so that a read behind it is noticed.
struct received_answer {
    std::uint8_t *block = nullptr;
    std::size_t length = 0;
};

received_answer received;
bool answers_with_failures; // the module's answer comes with a status that is not 0
bool response_is_held;
const void *answered_block;

std::uint8_t *transport_block(const bytes &content)
{
    auto *block = static_cast<std::uint8_t *>(
        std::calloc(1, std::max<std::size_t>(content.size(), MTS_READABLE_PAYLOAD_BYTES)));
    std::copy(content.begin(), content.end(), block);
    return block;
}

} // namespace

extern "C" {

std::int32_t __real_cmi_remote_req_resp(std::uint32_t opcode, std::uint32_t request_type, const void *request,
                                        void **response_out, std::uint32_t *length, const char *tag_1,
                                        const char *tag_2, std::uint32_t sap, std::uint32_t node,
                                        std::int32_t handle, std::uint32_t wait_limit);
std::int32_t __real_cmi_response(const void *payload, std::uint32_t length, std::int32_t handle,
                                 mts_message_t *message, std::uint32_t answer_status);
void __real_free(void *block);

std::int32_t __wrap_cmi_remote_req_resp(std::uint32_t opcode, std::uint32_t request_type, const void *request,
                                        void **response_out, std::uint32_t *length, const char *tag_1,
                                        const char *tag_2, std::uint32_t sap, std::uint32_t node,
                                        std::int32_t handle, std::uint32_t wait_limit)
{
    platform().note("waits(" + text(wait_limit) + ")");
    const std::int32_t result = __real_cmi_remote_req_resp(opcode, request_type, request, response_out, length,
                                                           tag_1, tag_2, sap, node, handle, wait_limit);
    const int error = errno;
    bytes content;
    if (result != 0 && answers_with_failures)
        content = platform().responses.front();
    else if (*response_out != nullptr)
        content.assign(static_cast<std::uint8_t *>(*response_out),
                       static_cast<std::uint8_t *>(*response_out) + *length);
    else
        return result;
    __real_free(*response_out);
    received = {transport_block(content), content.size()};
    response_is_held = true;
    *response_out = received.block;
    *length = static_cast<std::uint32_t>(content.size());
    errno = error;
    return result;
}

// The cursor is the number of the next record.
std::int32_t __wrap_tlv_aligned_array_get_next_tlv(const void *array, std::uint16_t *type_out,
                                                   std::uint16_t *length_out, const void **value_out,
                                                   std::uint32_t alignment, std::uint32_t *cursor)
{
    const std::uint8_t *start = received.block;
    const auto array_at = static_cast<const std::uint8_t *>(array) - start;
    const scripted_result result = platform().called(
        "tlv_aligned_array_get_next_tlv", joined({"at " + text(array_at), text(alignment), text(*cursor)}));
    const std::uint8_t *const end = start + received.length;
    const std::uint8_t *record = start + array_at + 4;
    for (std::uint32_t skipped = 0;; ++skipped) {
        if (result.value != 0 || end - record < 4)
            return -1;
        const auto length = static_cast<std::uint16_t>(record[2] << 8 | record[3]);
        if (end - record - 4 < length)
            return -1;
        if (skipped == *cursor) {
            *type_out = static_cast<std::uint16_t>(record[0] << 8 | record[1]);
            *length_out = length;
            *value_out = record + 4;
            ++*cursor;
            return 0;
        }
        record += 4 + (length + 3) / 4 * 4;
    }
}

std::int32_t __wrap_cmi_response(const void *payload, std::uint32_t length, std::int32_t handle,
                                 mts_message_t *message, std::uint32_t answer_status)
{
    answered_block = payload;
    return __real_cmi_response(payload, length, handle, message, answer_status);
}

void __wrap_free(void *block)
{
    if (response_is_held && block == received.block) {
        response_is_held = false;
        platform().note("freed(response)");
    } else if (block != nullptr && block == answered_block) {
        answered_block = nullptr;
        platform().note("freed(answer)");
    }
    __real_free(block);
}

} // extern "C"

namespace
{

constexpr std::size_t entry_bytes = 392;
const bytes swid_11 = {0, 0, 0, 11};
const std::string unending(128, 'u'); // a text that fills its field
const std::string cut_text(127, 'u');

// What a line card answers: its first row at fixed places, further rows as TLVs.
class module_answer
{
public:
    module_answer()
        : message_(message_bytes(396)
                       .put(0, {0x01, 0x02, 0x03, 0x84})
                       .text(4, "v3.6.0(01/02/13)")
                       .text(132, "v3.5.0(09/17/12)")
                       .put(260, {0, 0, 0, 19})
                       .text(264, "lc-bios"))
    {
    }
    module_answer &count(const bytes &word)
    {
        message_.put(392, word);
        return *this;
    }
    module_answer &tlv(const bytes &header, bytes value)
    {
        value.resize((value.size() + 3) / 4 * 4);
        message_.append(header).append(value);
        return *this;
    }
    module_answer &row(const bytes &value) { return tlv({0x00, 0x00, 0x01, 0x88}, value); }
    module_answer &put(std::size_t offset, const bytes &piece)
    {
        message_.put(offset, piece);
        return *this;
    }
    module_answer &text(std::size_t offset, std::string_view piece)
    {
        message_.text(offset, piece);
        return *this;
    }
    bytes content() const { return message_.content(); }
    bytes cut(std::size_t length) const { return message_bytes(message_).cut(length).content(); }

private:
    message_bytes message_;
};

const bytes first_entry =
    version_entry({0x01, 0x02, 0x03, 0x84}, swid_11, "lc-bios", "v3.6.0(01/02/13)", "v3.5.0(09/17/12)");
const bytes sent_second = version_entry({0, 0, 0, 5}, {0, 0, 0, 19}, "lc-fpga", "v2.0.1", "v2.0.0");
const bytes second_entry = version_entry({0, 0, 0, 5}, swid_11, "lc-fpga", "v2.0.1", "v2.0.0");
const bytes sent_third = version_entry({0xff, 0xff, 0xff, 0xff}, {1, 2, 3, 4}, "lc-boot", "v1.1", "v1.0");
const bytes third_entry = version_entry({0xff, 0xff, 0xff, 0xff}, swid_11, "lc-boot", "v1.1", "v1.0");
const bytes gap(entry_bytes);

// The supervisor in slot 5 is asked for the line card in slot 9.
class ModuleVersion : public daemon_test
{
protected:
    ModuleVersion()
    {
        platform().insert_module(5, 1, 271);
        platform().insert_module(9, 2, 30);
    }
    ~ModuleVersion() override
    {
        EXPECT_FALSE(response_is_held) << "the response was not freed";
        received = {};
        answers_with_failures = response_is_held = false;
        answered_block = nullptr;
    }

    static std::int32_t collect(std::uint32_t module = 9) { return collect_as(module, module); }
    static std::int32_t collect_as(std::uint32_t module_num, std::uint32_t module)
    {
        return bios_get_version_info_from_mod(7, module_num, platform().message(4790), nullptr, module);
    }
    static std::int32_t collect_from(const bytes &response)
    {
        platform().responses.push_back(response);
        return collect();
    }
    static std::string asked(const std::string &node)
    {
        return "cmi_remote_req_resp(4794, 3, length, 4, \"ABCD\", \"ABCD\", 1010, " + node + ", 7, 1800)";
    }
    // Header and entries of the supervisor's answer for module 9.
    static bytes answer(const bytes &num_entries, const bytes &bios_id, const std::vector<bytes> &entries)
    {
        message_bytes message = message_bytes(16).put(4, {0, 0, 0, 9}).put(8, num_entries).put(12, bios_id);
        for (const bytes &entry : entries)
            message.append(entry);
        return message.content();
    }
    static void expect_failure(const sent_answer &sent, const std::string &module)
    {
        ASSERT_EQ(sent.payload.size(), 16u);
        EXPECT_EQ(dumped(sent.payload.data(), 12), "[ffffffff " + module + " 00000000]"); // word 3 is undefined
        EXPECT_THAT(sent.rest, testing::MatchesRegex("16, 7, #[0-9]+, 0x0"));
    }
    static void expect_failure_answer(const std::string &module = "00000009")
    {
        expect_failure(the_answer(), module);
    }
};

// The request.

TEST_F(ModuleVersion, IsAskedOfTheModulesDaemon)
{
    EXPECT_EQ(collect_from(module_answer().content()), 0);
    const lines told = platform().story({"log", "cmi_remote_req_resp"});
    ASSERT_GE(told.size(), 4u);
    EXPECT_EQ(lines(told.begin(), told.begin() + 4),
              (lines{"log(mod=9 dest_node=902\\n)", asked("0x902"), "log(resp = 0\\n)",
                     "log(Got message length = 396\\n)"}));
}

TEST_F(ModuleVersion, IsAskedAtNode1OfSupervisorsAndNode2OfOtherCards)
{
    platform().insert_module(6, 4, 271);
    for (const std::uint32_t module : {5u, 6u, 9u, 232u}) {
        platform().responses.push_back(module_answer().content());
        EXPECT_EQ(collect(module), 0);
    }
    EXPECT_EQ(platform().calls("cmi_remote_req_resp"),
              (lines{asked("0x501"), asked("0x601"), asked("0x902"), asked("0xe802")}));
    EXPECT_TRUE(platform().logged("mod=232 dest_node=e802\\n"));
}

TEST_F(ModuleVersion, IsAskedAtNode0WhenTheModulesCannotBeRead)
{
    platform().next_result("pfm_get_all_modules_in_chassis", {-1, EIO});
    EXPECT_EQ(collect_from(module_answer().content()), 0);
    EXPECT_EQ(platform().calls("cmi_remote_req_resp"), lines{asked("0x0")});
    EXPECT_TRUE(platform().logged("mod=9 dest_node=0\\n"));
    EXPECT_EQ(the_answer().rest, "408, 7, #1, 0x0");
}

TEST_F(ModuleVersion, IsAnsweredForTheNumberThatWasAskedFor)
{
    platform().responses.push_back(module_answer().content());
    EXPECT_EQ(collect_as(0x01020304, 9), 0);
    EXPECT_EQ(platform().calls("cmi_remote_req_resp"), lines{asked("0x902")});
    EXPECT_EQ(dumped(the_answer().payload.data() + 4, 4), "[01020304]");
}

class NoModulesNumber : public ModuleVersion, public testing::WithParamInterface<std::uint32_t>
{
};

TEST_P(NoModulesNumber, IsAskedAtNode0AndAnsweredAsAFailure)
{
    platform().next_result("cmi_remote_req_resp", {-1, ECONNREFUSED});
    EXPECT_EQ(collect(GetParam()), -1);
    EXPECT_EQ(platform().calls("cmi_remote_req_resp"), lines{asked("0x0")});
    std::array<char, 9> module;
    (void)std::snprintf(module.data(), module.size(), "%08x", GetParam());
    expect_failure_answer(module.data());
    EXPECT_TRUE(
        platform().logged("mod=" + std::to_string(static_cast<std::int32_t>(GetParam())) + " dest_node=0\\n"));
}

INSTANTIATE_TEST_SUITE_P(OutsideTheChassis, NoModulesNumber,
                         testing::Values(0u, 233u, 256u, 257u, 0x10009u, 0x7fffffffu, 0x80000000u, 0xffffffffu));

// Modules that do not answer.

TEST_F(ModuleVersion, IsAFailureWhenTheModuleCannotBeAsked)
{
    platform().next_result("cmi_remote_req_resp", {-1, 62});
    EXPECT_EQ(collect(), -1);
    EXPECT_EQ(platform().logs(), (lines{"mod=9 dest_node=902\\n", "resp = -1\\n",
                                        "Could not send bios upgrade cmd to the modules err=62 retcode=-1\\n"}));
    expect_failure_answer();
}

TEST_F(ModuleVersion, IsTheModulesStatusWhenItAnswersWithOne)
{
    platform().next_result("cmi_remote_req_resp", {0x40710013, 0});
    EXPECT_EQ(collect(), 0x40710013);
    EXPECT_TRUE(platform().logged("resp = 1081147411\\n"));
    EXPECT_THAT(platform().logs().back(), testing::EndsWith(" retcode=1081147411\\n"));
    expect_failure_answer();
}

TEST_F(ModuleVersion, FreesWhatCameWithAFailure)
{
    answers_with_failures = true;
    platform().responses.push_back(module_answer().content());
    platform().next_result("cmi_remote_req_resp", {5, 0});
    EXPECT_EQ(collect(), 5);
    EXPECT_THAT(platform().story({"cmi_response", "freed"}),
                testing::ElementsAre(testing::StartsWith("cmi_response("), "freed(response)"));
    expect_failure_answer();
}

TEST_F(ModuleVersion, IsAFailureWhenNothingIsAnswered)
{
    EXPECT_EQ(collect(), -1);
    EXPECT_EQ(platform().logs().back(), "Got message length = 0\\n");
    expect_failure_answer();
}

TEST_F(ModuleVersion, IsAFailureForAnyAnswerBelow260Bytes)
{
    for (std::size_t length = 0; length < 260; ++length) {
        SCOPED_TRACE(std::to_string(length) + " bytes");
        EXPECT_EQ(collect_from(module_answer().cut(length)), -1);
        EXPECT_EQ(platform().logs().back(), "Got message length = " + text(static_cast<int>(length)) + "\\n");
        expect_failure(latest_answer(), "00000009");
        EXPECT_FALSE(response_is_held);
    }
    EXPECT_EQ(platform().calls("cmi_response").size(), 260u);
}

// The short form.

TEST_F(ModuleVersion, IsOneEntryForTheShortForm)
{
    EXPECT_EQ(collect_from(module_answer().cut(260)), 0);
    const bytes entry =
        version_entry({0x01, 0x02, 0x03, 0x84}, swid_11, "swid-bios", "v3.6.0(01/02/13)", "v3.5.0(09/17/12)");
    EXPECT_EQ(the_answered_bytes(), hex_dump(answer({0, 0, 0, 1}, {0, 0, 0, 11}, {entry})));
    EXPECT_EQ(the_answer().rest, "408, 7, #1, 0x0");
    EXPECT_EQ(platform().logs(), (lines{"mod=9 dest_node=902\\n", "resp = 0\\n", "Got message length = 260\\n",
                                        "Total msg_length is 408\\n"}));
    EXPECT_THAT(platform().calls("freed"), testing::UnorderedElementsAre("freed(answer)", "freed(response)"));
    EXPECT_EQ(platform().calls("tlv_aligned_array_get_next_tlv"), lines{});
}

TEST_F(ModuleVersion, CutsUnendingTextsOfTheShortForm)
{
    EXPECT_EQ(collect_from(module_answer().text(4, unending).text(132, unending).cut(260)), 0);
    const bytes entry = version_entry({0x01, 0x02, 0x03, 0x84}, swid_11, "swid-bios", cut_text, cut_text);
    EXPECT_EQ(the_answered_bytes(), hex_dump(answer({0, 0, 0, 1}, {0, 0, 0, 11}, {entry})));
}

TEST_F(ModuleVersion, IsAFailureWhenThereIsNoMemoryForTheShortForm)
{
    platform().fail_allocation_of(408);
    EXPECT_EQ(collect_from(module_answer().cut(260)), -1);
    EXPECT_EQ(platform().logs().back(), "Total msg_length is 408\\n");
    expect_failure_answer();
    EXPECT_EQ(platform().calls("freed"), lines{"freed(response)"});
}

// The full form.

TEST_F(ModuleVersion, IsOneEntryForAModuleWithOneRow)
{
    EXPECT_EQ(collect_from(module_answer().content()), 0);
    EXPECT_EQ(the_answered_bytes(), hex_dump(answer({0, 0, 0, 1}, {0, 0, 0, 19}, {first_entry})));
    EXPECT_EQ(the_answer().rest, "408, 7, #1, 0x0");
    const lines told = platform().logs();
    EXPECT_EQ(lines(told.begin() + 2, told.end()), (lines{"Got message length = 396\\n", "Num Entry from Mod 0 \\n",
                                                          "Num elem in Sup 1\\n", "Total length is 408\\n"}));
    EXPECT_EQ(platform().calls("tlv_aligned_array_get_next_tlv"), lines{});
    EXPECT_THAT(platform().story({"cmi_response", "freed"}),
                testing::ElementsAre(testing::StartsWith("cmi_response("), "freed(answer)", "freed(response)"));
}

TEST_F(ModuleVersion, HasTheModulesOwnBiosIdAndFlashKind11)
{
    EXPECT_EQ(collect_from(module_answer().put(260, {0xa1, 0xb2, 0xc3, 0xd4}).content()), 0);
    EXPECT_EQ(the_answered_bytes(), hex_dump(answer({0, 0, 0, 1}, {0xa1, 0xb2, 0xc3, 0xd4}, {first_entry})));
}

TEST_F(ModuleVersion, CutsUnendingTextsOfTheFirstRow)
{
    EXPECT_EQ(collect_from(module_answer().text(4, unending).text(132, unending).text(264, unending).content()), 0);
    const bytes entry = version_entry({0x01, 0x02, 0x03, 0x84}, swid_11, cut_text, cut_text, cut_text);
    EXPECT_EQ(the_answered_bytes(), hex_dump(answer({0, 0, 0, 1}, {0, 0, 0, 19}, {entry})));
}

TEST_F(ModuleVersion, CopiesNothingBehindTheEndOfAText)
{
    const std::string_view hidden("v1.0\0hidden", 11);
    EXPECT_EQ(collect_from(module_answer().text(4, std::string(128, '\0')).text(4, hidden).content()), 0);
    const bytes entry = version_entry({0x01, 0x02, 0x03, 0x84}, swid_11, "lc-bios", "v1.0", "v3.5.0(09/17/12)");
    EXPECT_EQ(the_answered_bytes(), hex_dump(answer({0, 0, 0, 1}, {0, 0, 0, 19}, {entry})));
}

TEST_F(ModuleVersion, HasAFurtherEntryForEachTlv)
{
    EXPECT_EQ(collect_from(module_answer().count({0, 0, 0, 2}).row(sent_second).row(sent_third).content()), 0);
    EXPECT_EQ(the_answered_bytes(),
              hex_dump(answer({0, 0, 0, 3}, {0, 0, 0, 19}, {first_entry, second_entry, third_entry})));
    EXPECT_EQ(the_answer().rest, "1192, 7, #1, 0x0");
    const lines told = platform().story({"log", "tlv_aligned_array_get_next_tlv"});
    EXPECT_EQ(
        lines(told.begin() + 3, told.end()),
        (lines{"log(Num Entry from Mod 33554432 \\n)", "log(Num elem in Sup 3\\n)", "log(Total length is 1192\\n)",
               "tlv_aligned_array_get_next_tlv(at 392, 1, 0)", "log(swid=19 swid_str=lc-fpga ver=v2.0.1\\n)",
               "tlv_aligned_array_get_next_tlv(at 392, 1, 1)", "log(swid=16909060 swid_str=lc-boot ver=v1.1\\n)"}));
}

TEST_F(ModuleVersion, PrintsTheCountAsItArrived)
{
    EXPECT_EQ(collect_from(module_answer().count({0, 0, 0, 1}).row(sent_second).content()), 0);
    EXPECT_TRUE(platform().logged("Num Entry from Mod 16777216 \\n"));
    EXPECT_TRUE(platform().logged("Num elem in Sup 2\\n"));
    EXPECT_TRUE(platform().logged("Total length is 800\\n"));
}

TEST_F(ModuleVersion, CutsUnendingTextsOfFurtherRows)
{
    const bytes sent = version_entry({0, 0, 0, 0}, {0, 0, 0, 19}, unending, unending, unending);
    EXPECT_EQ(collect_from(module_answer().count({0, 0, 0, 1}).row(sent).content()), 0);
    const bytes entry = version_entry({0, 0, 0, 0}, swid_11, cut_text, cut_text, cut_text);
    EXPECT_EQ(the_answered_bytes(), hex_dump(answer({0, 0, 0, 2}, {0, 0, 0, 19}, {first_entry, entry})));
    // A message has at most 255 characters.
    EXPECT_EQ(platform().logs().back(), ("swid=19 swid_str=" + unending + " ver=" + unending).substr(0, 255));
}

TEST_F(ModuleVersion, TakesNoMoreTlvsThanTheCountSays)
{
    EXPECT_EQ(collect_from(module_answer().count({0, 0, 0, 1}).row(sent_second).row(sent_third).content()), 0);
    EXPECT_EQ(the_answered_bytes(), hex_dump(answer({0, 0, 0, 2}, {0, 0, 0, 19}, {first_entry, second_entry})));
    EXPECT_EQ(platform().calls("tlv_aligned_array_get_next_tlv").size(), 1u);
}

TEST_F(ModuleVersion, CountsTheEntriesThatNoTlvFills)
{
    EXPECT_EQ(collect_from(module_answer().count({0, 0, 0, 3}).row(sent_second).content()), 0);
    EXPECT_EQ(the_answered_bytes(),
              hex_dump(answer({0, 0, 0, 4}, {0, 0, 0, 19}, {first_entry, second_entry, gap, gap})));
    EXPECT_EQ(platform().calls("tlv_aligned_array_get_next_tlv").size(), 2u) << "the first that fails is the last";
}

TEST_F(ModuleVersion, StopsAtTheFirstTlvThatIsNotThere)
{
    platform().next_result("tlv_aligned_array_get_next_tlv", {1, 0});
    EXPECT_EQ(collect_from(module_answer().count({0, 0, 0, 2}).row(sent_second).row(sent_third).content()), 0);
    EXPECT_EQ(the_answered_bytes(), hex_dump(answer({0, 0, 0, 3}, {0, 0, 0, 19}, {first_entry, gap, gap})));
    EXPECT_EQ(platform().calls("tlv_aligned_array_get_next_tlv").size(), 1u);
}

TEST_F(ModuleVersion, LeavesAGapForAVersionOfAnotherLength)
{
    for (const std::uint8_t low : {std::uint8_t{0x84}, std::uint8_t{0x8c}}) {
        bytes value = sent_third;
        value.resize(0x100u + low);
        platform().responses.push_back(
            module_answer().count({0, 0, 0, 2}).tlv({0, 0, 1, low}, value).row(sent_second).content());
        EXPECT_EQ(collect(), 0);
        EXPECT_EQ(hex_dump(latest_answer().payload),
                  hex_dump(answer({0, 0, 0, 3}, {0, 0, 0, 19}, {first_entry, gap, second_entry})));
    }
    EXPECT_TRUE(platform().logged("ERROR: length mismatch 388 and 392\\n"));
    EXPECT_TRUE(platform().logged("ERROR: length mismatch 396 and 392\\n"));
}

TEST_F(ModuleVersion, LeavesAGapForAVersionOfNoLength)
{
    EXPECT_EQ(collect_from(module_answer().count({0, 0, 0, 1}).tlv({0, 0, 0, 0}, {}).content()), 0);
    EXPECT_EQ(the_answered_bytes(), hex_dump(answer({0, 0, 0, 2}, {0, 0, 0, 19}, {first_entry, gap})));
    EXPECT_EQ(platform().logs().back(), "ERROR: length mismatch 0 and 392\\n");
}

TEST_F(ModuleVersion, LeavesAGapForTypesThatAreIgnored)
{
    EXPECT_EQ(collect_from(module_answer()
                               .count({0, 0, 0, 5})
                               .tlv({0, 1, 0, 1}, {0x55})
                               .tlv({0, 2, 1, 0x88}, sent_third)
                               .tlv({0xff, 0xff, 0, 1}, {0x55})
                               .tlv({1, 0, 1, 0x88}, sent_third)
                               .row(sent_second)
                               .content()),
              0);
    EXPECT_EQ(the_answered_bytes(),
              hex_dump(answer({0, 0, 0, 6}, {0, 0, 0, 19}, {first_entry, gap, gap, gap, gap, second_entry})));
    const lines told = platform().logs();
    EXPECT_EQ(lines(told.end() - 2, told.end()),
              (lines{"Total length is 2368\\n", "swid=19 swid_str=lc-fpga ver=v2.0.1\\n"}));
}

TEST_F(ModuleVersion, ReportsType1OfAnotherLength)
{
    EXPECT_EQ(collect_from(module_answer()
                               .count({0, 0, 0, 4})
                               .tlv({0, 1, 0, 0}, {})
                               .tlv({0, 1, 0, 2}, {0x55, 0x55})
                               .tlv({0, 1, 1, 0x88}, sent_third)
                               .row(sent_second)
                               .content()),
              0);
    EXPECT_EQ(the_answered_bytes(),
              hex_dump(answer({0, 0, 0, 5}, {0, 0, 0, 19}, {first_entry, gap, gap, gap, second_entry})));
    const lines told = platform().logs();
    EXPECT_EQ(lines(told.end() - 4, told.end()),
              (lines{"ERROR: Unexpected size 0 for type 1 \\n", "ERROR: Unexpected size 2 for type 1 \\n",
                     "ERROR: Unexpected size 392 for type 1 \\n", "swid=19 swid_str=lc-fpga ver=v2.0.1\\n"}));
}

// A card with three rows sends its TLVs 4 bytes apart: the second lies over the first but for its first word.
TEST_F(ModuleVersion, OfACardWithThreeRowsIsTheFirstRowAndWhatIsLeftOfTheOthers)
{
    bytes sent = module_answer().count({0, 0, 0, 2}).content();
    sent.resize(1188);
    const auto at = [&sent](std::ptrdiff_t offset) { return sent.begin() + offset; };
    const bytes header = {0x00, 0x00, 0x01, 0x88};
    std::copy(header.begin(), header.end(), at(396));
    std::copy(sent_second.begin(), sent_second.end(), at(400));
    std::copy(header.begin(), header.end(), at(400));
    std::copy(sent_third.begin(), sent_third.end(), at(404));
    EXPECT_EQ(collect_from(sent), 0);
    const bytes left_over = version_entry({0x00, 0x00, 0x01, 0x88}, swid_11, "\x01\x02\x03\x04lc-boot", "", "");
    EXPECT_EQ(the_answered_bytes(), hex_dump(answer({0, 0, 0, 3}, {0, 0, 0, 19}, {first_entry, left_over, gap})));
    EXPECT_EQ(platform().logs().back(), "ERROR: length mismatch 0 and 392\\n");
}

// Answers that end within the full form.

TEST_F(ModuleVersion, IsTheFullFormWithZerosBehindAnAnswerOf261To395Bytes)
{
    const module_answer whole = module_answer().put(260, {0xa1, 0xb2, 0xc3, 0xd4});
    for (std::size_t length = 261; length < 396; ++length) {
        SCOPED_TRACE(std::to_string(length) + " bytes");
        EXPECT_EQ(collect_from(whole.cut(length)), 0);
        const bytes seen = message_bytes(whole.cut(length)).cut(396).content();
        const bytes entry = message_bytes(first_entry).put(8, {seen.begin() + 264, seen.begin() + 392}).content();
        EXPECT_EQ(hex_dump(latest_answer().payload),
                  hex_dump(answer({0, 0, 0, 1}, {seen.begin() + 260, seen.begin() + 264}, {entry})));
        EXPECT_EQ(platform().logs().back(), "Total length is 408\\n");
        EXPECT_FALSE(response_is_held);
    }
}

TEST_F(ModuleVersion, ReadsTheCountOfAnAnswerThatEndsWithinIt)
{
    EXPECT_EQ(collect_from(module_answer().count({0, 0, 1, 0xff}).cut(395)), 0);
    EXPECT_TRUE(platform().logged("Num elem in Sup 257\\n"));
    EXPECT_EQ(the_answer().rest, "100760, 7, #1, 0x0");
    EXPECT_EQ(platform().calls("tlv_aligned_array_get_next_tlv").size(), 1u);
}

// Memory.

TEST_F(ModuleVersion, IsAFailureWhenThereIsNoMemoryForTheAnswer)
{
    platform().fail_allocation_of(800);
    EXPECT_EQ(collect_from(module_answer().count({0, 0, 0, 1}).row(sent_second).content()), -1);
    EXPECT_EQ(platform().logs().back(), "ERROR: could not allocated the mesg err=12\\n");
    expect_failure_answer();
    EXPECT_EQ(platform().calls("freed"), lines{"freed(response)"});
    EXPECT_EQ(platform().calls("tlv_aligned_array_get_next_tlv"), lines{});
}

TEST_F(ModuleVersion, HasRoomForAThousandRows)
{
    EXPECT_EQ(collect_from(module_answer().count({0, 0, 0x03, 0xe7}).row(sent_second).content()), 0);
    EXPECT_EQ(the_answer().rest, "392016, 7, #1, 0x0");
    EXPECT_EQ(dumped(the_answer().payload.data() + 8, 4), "[000003e8]");
}

class HostileCount : public ModuleVersion, public testing::WithParamInterface<bytes>
{
};

TEST_P(HostileCount, IsAnsweredLikeAFailedAllocation)
{
    EXPECT_EQ(collect_from(module_answer().count(GetParam()).row(sent_second).content()), -1);
    EXPECT_THAT(platform().logs().back(), testing::StartsWith("ERROR: could not allocated the mesg err="));
    expect_failure_answer();
    EXPECT_EQ(platform().calls("freed"), lines{"freed(response)"});
    EXPECT_EQ(platform().calls("tlv_aligned_array_get_next_tlv"), lines{});
}

// No entry at all; 2^31 entries; the lengths 320 (in 32 bits), 2^32 less a little, and just above the largest of a
// message.
INSTANTIATE_TEST_SUITE_P(Counts, HostileCount,
                         testing::Values(bytes{0xff, 0xff, 0xff, 0xff}, bytes{0xff, 0xff, 0xff, 0xfe},
                                         bytes{0x7f, 0xff, 0xff, 0xff}, bytes{0x80, 0x00, 0x00, 0x00},
                                         bytes{0x00, 0xa7, 0x2f, 0x05}, bytes{0x00, 0xa7, 0x2f, 0x04},
                                         bytes{0x00, 0x02, 0x9c, 0xc6}));

// Whatever a module sends, it is answered once and nothing is lost.
TEST_F(ModuleVersion, SurvivesAnyAnswer)
{
    const std::uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    constexpr std::size_t rounds = 200;
    for (std::size_t round = 0; round < rounds; ++round) {
        bytes sent(random() % 1300);
        std::generate(sent.begin(), sent.end(), [&random] { return static_cast<std::uint8_t>(random()); });
        for (std::size_t at = 392; at < sent.size() && at < 396; ++at)
            sent[at] &= at < 395 ? 0 : 7;
        for (std::size_t at = 396; at + 4 <= sent.size(); at += 4 + sent[at + 3] / 4 * 4)
            std::copy_n(bytes{0, static_cast<std::uint8_t>(random() % 3), 0}.begin(), 3, &sent[at]);
        platform().responses.push_back(sent);
        ASSERT_EQ(collect(), sent.size() < 260 ? -1 : 0) << sent.size() << " bytes";
        ASSERT_FALSE(response_is_held);
    }
    EXPECT_EQ(platform().calls("cmi_response").size(), rounds);
}

} // namespace
