// The stand-in for modules without the daemon: the bytes of its answers, and the program itself, asked over the
// transport.
#include "version_answers.h"

#include <sys/wait.h>

#include "bios_header.h"
#include "bios_messages.h"
#include "bios_opcodes.h"
#include "flash_folder.h"
#include "message_texts.h"
#include "nor_file_layout.h"
#include "rest_of.h"
#include "tlv.h"
#include "transport_fixture.h"

namespace
{

using namespace chassis_test;

const module_versions VERSIONS = {.flash = "  v3.5.0(09/17/12)", .running = "  v3.1.0(02/11/11)"};

constexpr std::uint32_t LINE_CARD_SLOT = 2;
constexpr std::uint32_t FLASH_BYTES = 4096;
constexpr std::uint32_t SHORT_FORM_BYTES = 260;

template<class record>
record record_at(const std::vector<std::uint8_t> &answer, std::size_t place)
{
    record found = {};
    if (place + sizeof found > answer.size())
        throw std::out_of_range("the answer ends before the record");
    std::memcpy(&found, answer.data() + place, sizeof found);
    return found;
}

bool all_zero(const char *begin, const char *end)
{
    return std::all_of(begin, end, [](char c) { return c == 0; });
}

TEST(ShortVersionAnswer, IsTheFirstRecordAlone)
{
    const auto answer = short_version_answer(VERSIONS);
    ASSERT_EQ(answer.size(), SHORT_FORM_BYTES);
    const auto record = record_at<bios_get_lc_version_t>(answer, 0);
    EXPECT_EQ(record.stat.load(), 0u);
    EXPECT_EQ(record.cur, VERSIONS.flash);
    EXPECT_EQ(record.run, VERSIONS.running);
    EXPECT_TRUE(all_zero(record.cur + VERSIONS.flash.size(), std::end(record.cur)));
    EXPECT_TRUE(all_zero(record.run + VERSIONS.running.size(), std::end(record.run)));
}

TEST(ShortVersionAnswer, CutsATextThatFillsItsField)
{
    const auto answer = short_version_answer({.flash = std::string(500, 'f'), .running = ""});
    ASSERT_EQ(answer.size(), SHORT_FORM_BYTES);
    EXPECT_EQ(std::string(answer.begin() + 4, answer.begin() + 132), std::string(128, 'f'));
    EXPECT_EQ(answer[132], 0);
}

TEST(FullVersionAnswer, OfOneRowHasOnlyTheTlvThatIsIgnored)
{
    const auto answer = full_version_answer(VERSIONS, 1);
    ASSERT_EQ(answer.size(), 396u + 8u);
    const auto fixed = record_at<bios_compat_version_msg_t>(answer, 0);
    EXPECT_EQ(fixed.version.cur, VERSIONS.flash);
    EXPECT_EQ(fixed.swid.swid.load(), 19u);
    EXPECT_STREQ(fixed.swid.swid_str, "swid-bios");
    EXPECT_EQ(fixed.further_rows.count.load(), 1u);
    const std::vector<std::uint8_t> ignored(answer.begin() + 396, answer.end());
    EXPECT_EQ(ignored, (std::vector<std::uint8_t>{0, 1, 0, 1, 0, 0, 0, 0})); // the value and its padding are 0
}

TEST(FullVersionAnswer, HasItsTlvsReallyBehindEachOther)
{
    const auto answer = full_version_answer(VERSIONS, 4);
    ASSERT_EQ(answer.size(), 396u + 3u * 396u + 8u);
    EXPECT_EQ(record_at<be32>(answer, 392).load(), 4u);
    for (std::size_t k = 1; k <= 3; ++k) {
        const std::size_t place = 396 * k;
        EXPECT_EQ(std::vector<std::uint8_t>(answer.begin() + static_cast<std::ptrdiff_t>(place),
                                            answer.begin() + static_cast<std::ptrdiff_t>(place + 4)),
                  (std::vector<std::uint8_t>{0x00, 0x00, 0x01, 0x88}));
        const auto entry = record_at<bios_version_entry>(answer, place + 4);
        EXPECT_EQ(entry.stat.load(), 0u);
        EXPECT_EQ(entry.swid.load(), 19u);
        EXPECT_EQ(entry.swid_str, "swid-bios-" + std::to_string(k + 1));
        EXPECT_EQ(entry.cur, VERSIONS.flash);
        EXPECT_EQ(entry.run, VERSIONS.running);
    }
    EXPECT_EQ(record_at<bios_tlv_header_t>(answer, 396 * 4).type.load(), BIOS_TLV_IGNORED);
}

TEST(GarbageVersionAnswer, IsTheSameForTheSameSeedAndNeverTooLong)
{
    std::mt19937 random(1);
    std::mt19937 again(1);
    std::mt19937 other(2);
    std::size_t longest = 0;
    bool differs = false;
    for (int i = 0; i < 500; ++i) {
        const auto answer = garbage_version_answer(random);
        EXPECT_EQ(answer, garbage_version_answer(again));
        differs |= answer != garbage_version_answer(other);
        longest = std::max(longest, answer.size());
    }
    EXPECT_TRUE(differs);
    EXPECT_LE(longest, GARBAGE_MAX_BYTES);
    EXPECT_GT(longest, std::size_t{1500}); // long ones are among them
}

// What came back for a request.
struct seen_answer {
    std::int32_t result = -1;
    int error = 0;
    std::vector<std::uint8_t> bytes;
};

// The program as the line card of slot 2, this process as the supervisor of slot 1.
class ModuleStandin : public Transport
{
protected:
    void SetUp() override
    {
        Transport::SetUp();
        put_version(1);
    }
    void TearDown() override
    {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            (void)::waitpid(pid_, nullptr, 0);
        }
        if (HasFailure())
            std::cerr << "---- log of the stand-in\n" << log() << "----\n";
        Transport::TearDown();
    }

    void write(const std::string &name, const std::string &content) const
    {
        fs::create_directories(fs::path(slot_file(name)).parent_path());
        std::ofstream(slot_file(name)) << content << "\n";
    }

    // The flash, with major.0 in it.
    void put_version(int major) const
    {
        std::string image(FLASH_BYTES, '\xff');
        ASSERT_TRUE(
            bios_header_write({.major = major, .minor = 0, .month = 9, .day = 17, .year = 12}, image.data()));
        std::ofstream(chassis_ + "/image", std::ios::binary) << image;
        fs::remove_all(chassis_ + "/" + flash_folder_path(LINE_CARD_SLOT, 0));
        fs::create_directories(slot_file("flash"));
        ASSERT_EQ(nor_file_create(LINE_CARD_SLOT, 0, {.size_bytes = FLASH_BYTES, .sector_bytes = FLASH_BYTES},
                                  chassis_ + "/image"),
                  0);
    }

    void start(const std::string &answers)
    {
        write("answers", answers);
        const std::string log_file = slot_file("log");
        pid_ = ::fork();
        ASSERT_GE(pid_, 0);
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int output = ::open(log_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            (void)::dup2(output, STDOUT_FILENO);
            (void)::unsetenv(CHASSIS_ENV_DIR_FD);
            (void)::setenv(CHASSIS_ENV_DIR, chassis_.c_str(), 1);
            (void)::setenv(CHASSIS_ENV_SLOT, "2", 1);
            ::execl(MODULE_STANDIN_PROGRAM, "module_standin", nullptr);
            ::_exit(127);
        }
        ASSERT_TRUE(eventually([&] { return log().find("runs \"") != std::string::npos; })) << log();
    }

    seen_answer ask(std::uint32_t opcode = MTS_OPC_BIOS_GET_LC_BIOS_VERSION, std::uint32_t wait_s = 10) const
    {
        seen_answer seen;
        void *response = nullptr;
        std::uint32_t length = 4;
        seen.result = cmi_remote_req_resp(opcode, 3, &length, &response, &length, "ABCD", "ABCD", BIOS_DAEMON_SAP,
                                          CARD_2, handle_, wait_s);
        seen.error = errno;
        const auto *bytes = static_cast<const std::uint8_t *>(response);
        if (response != nullptr)
            seen.bytes.assign(bytes, bytes + length);
        std::free(response);
        return seen;
    }

    std::string slot_file(const std::string &name) const { return chassis_ + "/slots/2/" + name; }
    std::string log() const
    {
        std::ifstream file(slot_file("log"));
        return rest_of(file);
    }

private:
    pid_t pid_ = -1;
};

TEST_F(ModuleStandin, TellsTheVersionInTheFlashAndTheOneAtItsStart)
{
    start("short");
    put_version(2);
    const seen_answer seen = ask();
    ASSERT_EQ(seen.result, 0);
    ASSERT_EQ(seen.bytes.size(), SHORT_FORM_BYTES);
    const auto record = record_at<bios_get_lc_version_t>(seen.bytes, 0);
    EXPECT_STREQ(record.cur, "  v2.0.0(09/17/12)");
    EXPECT_STREQ(record.run, "  v1.0.0(09/17/12)");
}

TEST_F(ModuleStandin, WithAnErasedFlashHasNoVersions)
{
    std::ofstream(slot_file("flash/primary/data"), std::ios::binary) << std::string(FLASH_BYTES, '\xff');
    start("short");
    EXPECT_EQ(ask().bytes, std::vector<std::uint8_t>(SHORT_FORM_BYTES));
}

TEST_F(ModuleStandin, InFullTellsAsManyRowsAsItsFileSays)
{
    start("full");
    EXPECT_EQ(ask().bytes.size(), 396u * 2 + 8); // without the file, two
    write("answer_rows", "5");
    EXPECT_EQ(ask().bytes.size(), 396u * 5 + 8);
    write("answer_rows", "1001"); // out of range: as without the file
    EXPECT_EQ(ask().bytes.size(), 396u * 2 + 8);
}

TEST_F(ModuleStandin, InFullIsUnderstoodByTheIterator)
{
    write("answer_rows", "3");
    start("full");
    void *response = nullptr;
    std::uint32_t length = 4;
    ASSERT_EQ(cmi_remote_req_resp(MTS_OPC_BIOS_GET_LC_BIOS_VERSION, 3, &length, &response, &length, "ABCD", "ABCD",
                                  BIOS_DAEMON_SAP, CARD_2, handle_, 10),
              0);
    const std::unique_ptr<void, decltype(&std::free)> owner(response, &std::free);
    const auto *answer = static_cast<const bios_compat_version_msg_t *>(response);
    std::vector<std::pair<unsigned, unsigned>> found;
    std::uint32_t cursor = 0;
    std::uint16_t type = 0;
    std::uint16_t value_bytes = 0;
    const void *value = nullptr;
    while (tlv_aligned_array_get_next_tlv(&answer->further_rows, &type, &value_bytes, &value, 1, &cursor) == 0)
        found.emplace_back(type, value_bytes);
    EXPECT_EQ(found, (std::vector<std::pair<unsigned, unsigned>>{{0, 392}, {0, 392}, {1, 1}}));
}

namespace
{

// A daemon's endpoint gets texts that it may write into a log.
std::vector<std::uint8_t> as_received(const std::vector<std::uint8_t> &answer)
{
    mts_frame_header header{};
    header.kind = mts_frame_kind::response;
    header.opcode = MTS_OPC_BIOS_GET_LC_BIOS_VERSION;
    header.payload_bytes = static_cast<std::uint32_t>(answer.size());
    const mts_held_message message = mts_message_for(header);
    std::copy(answer.begin(), answer.end(), message->payload);
    make_texts_printable(*message);
    return {message->payload, message->payload + answer.size()};
}

} // namespace

TEST_F(ModuleStandin, WithGarbageRepeatsItselfAfterItsSeed)
{
    write("answer_seed", "7");
    start("garbage");
    EXPECT_NE(log().find("seed of garbage 7\n"), std::string::npos);
    std::mt19937 random(7);
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(ask().bytes, as_received(garbage_version_answer(random)));
}

TEST_F(ModuleStandin, WithGarbageTellsTheSeedThatItChose)
{
    start("garbage");
    const std::string text = log();
    const std::string label = "seed of garbage ";
    ASSERT_NE(text.find(label), std::string::npos);
    std::mt19937 random(static_cast<std::uint32_t>(std::stoul(text.substr(text.find(label) + label.size()))));
    EXPECT_EQ(ask().bytes, as_received(garbage_version_answer(random)));
}

TEST_F(ModuleStandin, SilentReceivesAndNeverAnswers)
{
    start("silent");
    for (const std::uint32_t opcode :
         {std::uint32_t{MTS_OPC_BIOS_GET_LC_BIOS_VERSION}, std::uint32_t{MTS_OPC_BIOS_PROGRAMMING_START}}) {
        const seen_answer seen = ask(opcode, 1);
        EXPECT_EQ(seen.result, -1);
        EXPECT_EQ(seen.error, MTS_ERRNO_TIMED_OUT); // not ECONNRESET: it is alive
        EXPECT_NE(log().find("keeps silent to opcode " + std::to_string(opcode)), std::string::npos);
    }
    write("answers", "short"); // and takes the next request in turn
    EXPECT_EQ(ask().result, 0);
}

TEST_F(ModuleStandin, RejectsEveryOtherOpcode)
{
    start("short");
    for (std::uint32_t opcode = 4698; opcode <= 4796; ++opcode) {
        if (opcode == MTS_OPC_BIOS_GET_LC_BIOS_VERSION)
            continue;
        const seen_answer seen = ask(opcode);
        EXPECT_EQ(seen.result, -1) << opcode;
        EXPECT_EQ(seen.error, EOPNOTSUPP) << opcode;
    }
    EXPECT_EQ(ask().result, 0);
}

TEST_F(ModuleStandin, GoesOnAfterMessagesThatNobodyWaitsFor)
{
    start("short");
    EXPECT_EQ(send_text(handle_, CARD_2, BIOS_DAEMON_SAP, "", MTS_OPC_BIOS_GET_LC_BIOS_VERSION), 0);
    EXPECT_EQ(send_text(handle_, CARD_2, BIOS_DAEMON_SAP, "x", MTS_OPC_BIOS_PROGRAMMING_DONE), 0);
    EXPECT_EQ(ask().result, 0);
}

TEST_F(ModuleStandin, RejectsWhileItsFileSaysNoFormOfAStandin)
{
    start("short");
    for (const char *name : {"daemon", "loud", ""}) {
        write("answers", name);
        EXPECT_EQ(ask().error, EOPNOTSUPP) << name;
    }
    write("answers", "full");
    EXPECT_EQ(ask().result, 0);
}

} // namespace
