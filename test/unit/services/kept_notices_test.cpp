// The notices that the transport keeps for latecomers: their lines, the files and their turning over, and what
// readers make of anything else.
#include "kept_notices.h"

#include <set>
#include <sys/resource.h>
#include <sys/stat.h>

#include "rest_of.h"
#include "transport_fixture.h"

using namespace chassis_test;

namespace
{

constexpr const char *TIME = "2026-01-31T23:59:59.123456Z";
constexpr std::uint32_t NOTIFY = 4792;

class Notices : public Transport
{
protected:
    std::string file(const char *name = "notices") const { return chassis_ + "/transport/" + name; }
    void write(const std::string &text, const char *name = "notices") const
    {
        fs::create_directories(chassis_ + "/transport");
        std::ofstream(file(name), std::ios::binary) << text;
    }
    void append(const std::string &text) const { std::ofstream(file(), std::ios::binary | std::ios::app) << text; }
    std::string content(const char *name = "notices") const
    {
        std::ifstream stream(file(name), std::ios::binary);
        return rest_of(stream);
    }
};

std::string text_of(const kept_notice &notice)
{
    return {notice.payload.begin(), notice.payload.end()};
}

std::vector<std::string> texts_of(const std::vector<kept_notice> &notices)
{
    std::vector<std::string> texts;
    for (const kept_notice &notice : notices)
        texts.push_back(text_of(notice));
    return texts;
}

std::string line(const std::string &text)
{
    return kept_notice_format({TIME, {CARD_1, DAEMON_SAP}, NOTIFY, {text.begin(), text.end()}}) + "\n";
}

using texts = std::vector<std::string>;

} // namespace

TEST(NoticeLine, HasAFixedForm)
{
    const kept_notice notice = {TIME, {0x101, 1010}, NOTIFY, {0x40, 0x71, 0x00, 0x0c, 0x00, 0x00, 0x00, 0x02}};
    const std::string text = kept_notice_format(notice);
    EXPECT_EQ(text, "2026-01-31T23:59:59.123456Z 00000101.000003f2 4792 4071000c00000002");
    const auto parsed = kept_notice_parse(text);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->time, TIME);
    EXPECT_EQ(parsed->source.node, 0x101U);
    EXPECT_EQ(parsed->source.sap, 1010U);
    EXPECT_EQ(parsed->opcode, NOTIFY);
    EXPECT_EQ(parsed->payload, notice.payload);

    const kept_notice empty = {TIME, {UINT32_MAX, 0}, UINT32_MAX, {}};
    EXPECT_EQ(kept_notice_format(empty), "2026-01-31T23:59:59.123456Z ffffffff.00000000 4294967295 -");
    EXPECT_TRUE(kept_notice_parse(kept_notice_format(empty)));
}

TEST(NoticeLine, IsNotMadeOutOfAnythingElse)
{
    const std::string head = std::string(TIME) + " 00000101.000003f2 4792 ";
    const std::string longest(2 * NOTICE_PAYLOAD_BYTES_MAX, 'a');
    EXPECT_TRUE(kept_notice_parse(head + longest));
    for (const std::string &wrong : {std::string(),
                                     std::string(" "),
                                     std::string(100, '\0'),
                                     head,
                                     head + "4",
                                     head + "4g",
                                     head + "407 1",
                                     head + "40 ",
                                     head + longest + "aa",
                                     head + "--",
                                     std::string(TIME) + " 00000101.000003f2 4792",
                                     std::string(TIME) + " 00000101.000003f2 47x2 40",
                                     std::string(TIME) + " 00000101.000003f2 -1 40",
                                     std::string(TIME) + " 00000101.000003f2 4294967296 40",
                                     std::string(TIME) + " 101.3f2 4792 40",
                                     std::string(TIME) + " 00000101:000003f2 4792 40",
                                     std::string(TIME) + " 0000010g.000003f2 4792 40",
                                     std::string("2026-01-31T23:59:59Z 00000101.000003f2 4792 40"),
                                     std::string("2026-01-31 23:59:59.123456Z 00000101.000003f2 4792 40"),
                                     "x" + head + "40"})
        EXPECT_FALSE(kept_notice_parse(wrong)) << wrong;
}

TEST_F(Notices, AreKeptWhetherAnybodyListensOrNot)
{
    kept_notice_reader reader;
    EXPECT_EQ(reader.take().size(), 0U);
    const std::int32_t listener = bind_endpoint(-1);
    EXPECT_EQ(send_text(handle_, MTS_NODE_LISTENERS, 0, "nobody", NOTIFY), 0);
    ASSERT_EQ(mts_listen(listener, NOTIFY), 0);
    EXPECT_EQ(send_text(handle_, MTS_NODE_LISTENERS, 0, "somebody", NOTIFY), 0);
    EXPECT_EQ(chassis_test::text_of(received(listener, 0).get()), "somebody");
    const auto kept = reader.take();
    EXPECT_EQ(texts_of(kept), (texts{"nobody", "somebody"}));
    ASSERT_FALSE(kept.empty());
    EXPECT_EQ(kept[0].source.node, CARD_1);
    EXPECT_EQ(kept[0].source.sap, DAEMON_SAP);
    EXPECT_EQ(kept[0].opcode, NOTIFY);
    EXPECT_EQ(reader.take().size(), 0U) << "told twice";
    mts_unbind(listener);
}

TEST_F(Notices, AreThereWhenTheMessageArrives)
{
    const std::int32_t listener = bind_endpoint(-1);
    ASSERT_EQ(mts_listen(listener, NOTIFY), 0);
    card_process sender(chassis_, 2, 600, [](std::int32_t handle) {
        return send_text(handle, MTS_NODE_LISTENERS, 0, "from card 2", NOTIFY);
    });
    ASSERT_TRUE(received(listener));
    EXPECT_EQ(texts_of(kept_notice_reader().take()), texts{"from card 2"});
    mts_unbind(listener);
}

TEST_F(Notices, OnlyWhatIsSentToListenersAndTheEndsOfProgrammingsAreKept)
{
    EXPECT_EQ(send_text(handle_, CARD_1, DAEMON_SAP, "to one", NOTIFY), 0);
    EXPECT_TRUE(received(handle_, 0));
    EXPECT_FALSE(fs::exists(file()));
    EXPECT_EQ(send_text(handle_, CARD_1, DAEMON_SAP, "\0\0\0\0", 4793), 0);
    EXPECT_EQ(kept_notice_reader().take().size(), 1U) << "the end of a programming";
}

// A supervisor's process that waited is gone: it tells nobody of this end, but of the next one.
TEST_F(Notices, TheEndOfAProgrammingForWhichNobodyWaitsIsNotKept)
{
    (void)send_text(handle_, CARD_1, DAEMON_SAP + 1, "\0\0\0\0", 4793);
    EXPECT_EQ(kept_notice_reader().take().size(), 0U);
}

TEST_F(Notices, EmptyAndLongOnes)
{
    EXPECT_EQ(mts_send(handle_, MTS_NODE_LISTENERS, 0, NOTIFY, nullptr, 0, 0, 0, 0), 0);
    const std::string longest(NOTICE_PAYLOAD_BYTES_MAX, 'l');
    EXPECT_EQ(send_text(handle_, MTS_NODE_LISTENERS, 0, longest, NOTIFY), 0);
    EXPECT_EQ(send_text(handle_, MTS_NODE_LISTENERS, 0, longest + "l", NOTIFY), 0);
    EXPECT_EQ(texts_of(kept_notice_reader().take()), (texts{"", longest}));
}

TEST_F(Notices, AreTheUsersAlone)
{
    EXPECT_EQ(send_text(handle_, MTS_NODE_LISTENERS, 0, "x", NOTIFY), 0);
    struct stat status {
    };
    ASSERT_EQ(::stat(file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(Notices, CannotBeWrittenAndAreSentAllTheSame)
{
    const std::int32_t listener = bind_endpoint(-1);
    ASSERT_EQ(mts_listen(listener, NOTIFY), 0);
    const auto is_sent = [&] {
        errno = 0;
        return send_text(handle_, MTS_NODE_LISTENERS, 0, "x", NOTIFY) == 0 && received(listener, 0) != nullptr;
    };
    write("", "other");
    fs::create_symlink(file("other"), file());
    EXPECT_TRUE(is_sent());
    EXPECT_EQ(content("other"), "") << "a planted link was followed";
    fs::remove(file());
    ASSERT_EQ(::mkfifo(file().c_str(), 0600), 0);
    EXPECT_TRUE(is_sent());
    EXPECT_EQ(kept_notice_reader().take().size(), 0U);
    fs::remove(file());
    fs::create_directory(file());
    EXPECT_TRUE(is_sent());
    fs::remove_all(chassis_ + "/transport");
    std::ofstream(chassis_ + "/transport") << "no folder";
    EXPECT_TRUE(is_sent());
    EXPECT_EQ(kept_notice_reader().take().size(), 0U);
    mts_unbind(listener);
}

TEST_F(Notices, OfAFullDiskAreSentAndTheNextLineIsWhole)
{
    // The file may not grow beyond half a line: what a full disk leaves.
    card_process sender(chassis_, 2, 600, [&](std::int32_t handle) {
        (void)std::signal(SIGXFSZ, SIG_IGN);
        const rlimit half = {line("first").size() / 2, RLIM_INFINITY};
        const rlimit whole = {RLIM_INFINITY, RLIM_INFINITY};
        (void)::setrlimit(RLIMIT_FSIZE, &half);
        const int sent = send_text(handle, MTS_NODE_LISTENERS, 0, "first", NOTIFY);
        (void)::setrlimit(RLIMIT_FSIZE, &whole);
        return sent == 0 ? send_text(handle, MTS_NODE_LISTENERS, 0, "second", NOTIFY) : 1;
    });
    EXPECT_EQ(sender.exit_code(), 0);
    EXPECT_EQ(content().find('\n'), line("first").size() / 2) << content();
    EXPECT_EQ(texts_of(kept_notice_reader().take()), texts{"second"});
}

TEST_F(Notices, ATornLastLineIsTakenWhenItIsWhole)
{
    const std::string second = line("second");
    write(line("first") + second.substr(0, 20));
    kept_notice_reader reader;
    EXPECT_EQ(texts_of(reader.take()), texts{"first"});
    append(second.substr(20, 30));
    EXPECT_EQ(reader.take().size(), 0U);
    append(second.substr(50) + line("third"));
    EXPECT_EQ(texts_of(reader.take()), (texts{"second", "third"}));
}

TEST_F(Notices, GarbageIsPassedOver)
{
    std::string garbage(300'000, '\0');
    for (std::size_t place = 0; place < garbage.size(); ++place)
        garbage[place] = static_cast<char>(place * 7919 % 251);
    write(line("first") + garbage + "\n" + line("second") + std::string(200'000, 'g') + "\n\n\n" + line("third"));
    kept_notice_reader reader;
    EXPECT_EQ(texts_of(reader.take()), (texts{"first", "second", "third"}));
    append(std::string(200'000, 'h'));
    EXPECT_EQ(reader.take().size(), 0U);
    append(line("end of garbage") + line("fourth"));
    EXPECT_EQ(texts_of(reader.take()), texts{"fourth"});
}

TEST_F(Notices, OfAHugeFileAreThoseAtItsEnd)
{
    write(line("first"));
    fs::resize_file(file(), std::uintmax_t{8} << 30); // with a hole that reads as zeros
    append("\n" + line("last"));
    EXPECT_EQ(texts_of(kept_notice_reader().take()), texts{"last"});
}

TEST_F(Notices, OfAnEmptiedFileAreReadAnew)
{
    write(line("first") + line("second"));
    kept_notice_reader reader;
    EXPECT_EQ(reader.take().size(), 2U);
    fs::resize_file(file(), 0);
    append(line("third"));
    EXPECT_EQ(texts_of(reader.take()), texts{"third"});
}

TEST_F(Notices, AreTurnedOverToOneOlderFile)
{
    const auto send = [&](const std::string &text) {
        EXPECT_EQ(send_text(handle_, MTS_NODE_LISTENERS, 0, text, NOTIFY), 0);
    };
    write("oldest\n", "notices.1");
    write(line("first") + std::string(NOTICES_FILE_BYTES_MAX, 'g') + "\n");
    kept_notice_reader early;
    EXPECT_EQ(texts_of(early.take()), texts{"first"});
    append(line("second")); // by a process that had the file open
    send("third");
    EXPECT_EQ(content().size(), line("third").size());
    EXPECT_NE(content("notices.1").find(line("second")), std::string::npos);
    EXPECT_EQ(texts_of(early.take()), (texts{"second", "third"}));
    EXPECT_EQ(texts_of(kept_notice_reader().take()), (texts{"first", "second", "third"}));
    send("fourth");
    EXPECT_EQ(texts_of(early.take()), texts{"fourth"});
}

TEST_F(Notices, OfAReaderThatMissedATurn)
{
    write(line("first"));
    kept_notice_reader reader;
    EXPECT_EQ(texts_of(reader.take()), texts{"first"});
    write(line("second"), "fresh"); // turned over twice: the first file is gone
    fs::rename(file("fresh"), file("notices.1"));
    write(line("third"), "fresh");
    fs::rename(file("fresh"), file());
    EXPECT_EQ(texts_of(reader.take()), (texts{"second", "third"}));
    EXPECT_EQ(reader.take().size(), 0U);
}

TEST_F(Notices, OlderFileAlone)
{
    write(line("first"), "notices.1");
    kept_notice_reader reader;
    EXPECT_EQ(texts_of(reader.take()), texts{"first"});
    EXPECT_EQ(reader.take().size(), 0U) << "told twice";
    write(line("second"));
    EXPECT_EQ(texts_of(reader.take()), texts{"second"});
}

// Several processes write beside each other while the file is turned over; no line is broken.
TEST_F(Notices, OfSeveralSendersAreWholeLines)
{
    write(std::string(NOTICES_FILE_BYTES_MAX - 8192, 'g') + "\n");
    const auto send_many = [](std::int32_t handle) {
        for (int number = 0; number < 100; ++number) {
            const std::string text = std::to_string(::getpid()) + "." + std::to_string(number);
            if (send_text(handle, MTS_NODE_LISTENERS, 0, text, NOTIFY) != 0)
                return 1;
        }
        return 0;
    };
    card_process first(chassis_, 1, 601, send_many);
    card_process second(chassis_, 2, 602, send_many);
    card_process third(chassis_, 4, 603, send_many);
    EXPECT_EQ(first.exit_code() + second.exit_code() + third.exit_code(), 0);
    const auto kept = texts_of(kept_notice_reader().take());
    EXPECT_EQ(kept.size(), 300U);
    EXPECT_EQ(std::set<std::string>(kept.begin(), kept.end()).size(), 300U);
    EXPECT_TRUE(fs::exists(file("notices.1")));
    EXPECT_LT(fs::file_size(file()), 32U * 1024);
}
