// The records of the messages, in both directions: as bytes and as fields.
#include "bios_messages.h"

#include "version_message.h"

namespace
{

// A field of 128 characters; a text that fills it has no terminator.
const std::string full_field(128, 'x');

template<std::size_t SIZE>
std::string text_of(const char (&field)[SIZE])
{
    return {field, ::strnlen(field, SIZE)};
}

template<std::size_t SIZE>
void fill(char (&field)[SIZE], std::string_view text)
{
    text.copy(field, SIZE);
}

TEST(BigEndian, IsReadAndWrittenWithTheHighByteFirst)
{
    EXPECT_EQ(bytes_of(be32::of(0x01020384)), (bytes{0x01, 0x02, 0x03, 0x84}));
    EXPECT_EQ(bytes_of(be32::of(0xfffefdfc)), (bytes{0xff, 0xfe, 0xfd, 0xfc}));
    EXPECT_EQ(record_of<be32>({0x84, 0x03, 0x02, 0x01}).load(), 0x84030201u);
    be16 half{};
    half.store(0x0188);
    EXPECT_EQ(bytes_of(half), (bytes{0x01, 0x88}));
    EXPECT_EQ(record_of<be16>({0x88, 0x01}).load(), 0x8801u);
}

const bytes lock_request = {0, 0, 0, 2, 0, 0, 9, 2};
const bytes lock_reply = {0, 0, 0, 3, 0, 0, 9, 2, 0x80, 0, 0, 16};

TEST(ModuleLockMessages, AreOperationNodeAndResult)
{
    const auto request = record_of<bios_module_lock_req_t>(lock_request);
    EXPECT_EQ(request.operation.load(), 2u);
    EXPECT_EQ(request.node_id.load(), 0x902u);
    EXPECT_EQ(bytes_of(bios_module_lock_req_t{be32::of(2), be32::of(0x902)}), lock_request);
    const auto reply = record_of<bios_module_lock_reply_t>(lock_reply);
    EXPECT_EQ(reply.operation.load(), 3u);
    EXPECT_EQ(reply.node_id.load(), 0x902u);
    EXPECT_EQ(reply.result.load(), 0x80000010u);
    EXPECT_EQ(bytes_of(bios_module_lock_reply_t{be32::of(3), be32::of(0x902), be32::of(0x80000010)}), lock_reply);
}

// The two sides of the source-version query. Numbers of the request are in the sender's order: a card with an
// x86 processor, the low byte first.
const bytes source_request = message_bytes(268)
                                 .put(0, {1, 0, 0, 0})
                                 .text(4, "/bootflash/system.bin")
                                 .put(260, {0x01, 0x05, 0, 0})
                                 .put(264, {93, 0, 0, 0})
                                 .content();

TEST(SourceVersionRequest, Has268Bytes)
{
    const auto request = record_of<bios_src_version_req>(source_request);
    EXPECT_EQ(request.def, 1u);
    EXPECT_STREQ(request.image_path, "/bootflash/system.bin");
    EXPECT_EQ(sizeof request.image_path, 256u);
    EXPECT_EQ(request.progress_addr.node, 0x501u);
    EXPECT_EQ(request.progress_addr.sap, 93u);

    bios_src_version_req written{};
    written.def = 1;
    fill(written.image_path, "/bootflash/system.bin");
    written.progress_addr.node = 0x501;
    written.progress_addr.sap = 93;
    EXPECT_EQ(hex_dump(bytes_of(written)), hex_dump(source_request));
}

TEST(SourceVersionRequest, WantsNoNoticesWithTheseEightBytes)
{
    const auto request =
        record_of<bios_src_version_req>(message_bytes(268).put(260, {0, 0, 0, 0xfe, 0, 0, 0, 0}).content());
    EXPECT_EQ(request.progress_addr.node, 0xfe000000u);
    EXPECT_EQ(request.progress_addr.sap, 0u);
}

const bytes source_header = {0x40, 0x71, 0x00, 0x13, 0, 0, 0, 2};
const bytes source_entry = message_bytes(268)
                               .put(0, {0, 0, 0, 0, 0, 0, 0, 11})
                               .text(8, "swid-bios")
                               .text(136, "v3.5.0(09/17/12)")
                               .put(264, {0, 0, 1, 3})
                               .content();

TEST(SourceVersionReply, HasAHeaderOf8BytesAndEntriesOf268)
{
    const auto header = record_of<bios_src_version_reply>(source_header);
    EXPECT_EQ(header.status.load(), 0x40710013u);
    EXPECT_EQ(header.count.load(), 2u);
    EXPECT_EQ(bytes_of(bios_src_version_reply{be32::of(0x40710013), be32::of(2)}), source_header);

    const auto entry = record_of<bios_src_version_entry>(source_entry);
    EXPECT_EQ(entry.reserved.load(), 0u);
    EXPECT_EQ(entry.swid.load(), 11u);
    EXPECT_EQ(text_of(entry.swid_str), "swid-bios");
    EXPECT_EQ(text_of(entry.ver), "v3.5.0(09/17/12)");
    EXPECT_EQ(entry.src_id.load(), 0x103u);

    bios_src_version_entry written{};
    written.swid.store(11);
    fill(written.swid_str, "swid-bios");
    fill(written.ver, "v3.5.0(09/17/12)");
    written.src_id.store(0x103);
    EXPECT_EQ(hex_dump(bytes_of(written)), hex_dump(source_entry));
}

TEST(SourceVersionReply, HasTextsThatFillTheirFields)
{
    bios_src_version_entry entry{};
    fill(entry.swid_str, full_field);
    fill(entry.ver, full_field);
    EXPECT_EQ(hex_dump(bytes_of(entry)),
              hex_dump(message_bytes(268).text(8, full_field).text(136, full_field).content()));
}

const bytes one_flash = version_entry({0x40, 0x71, 0, 0x25}, {0, 0, 0, 19}, "swid-bios", "v3.6.0", "v3.5.0");

TEST(VersionEntry, Has392Bytes)
{
    const auto entry = record_of<bios_version_entry>(one_flash);
    EXPECT_EQ(entry.stat.load(), 0x40710025u);
    EXPECT_EQ(entry.swid.load(), 19u);
    EXPECT_EQ(text_of(entry.swid_str), "swid-bios");
    EXPECT_EQ(text_of(entry.cur), "v3.6.0");
    EXPECT_EQ(text_of(entry.run), "v3.5.0");

    bios_version_entry written{};
    written.stat.store(0x40710025);
    written.swid.store(19);
    fill(written.swid_str, "swid-bios");
    fill(written.cur, "v3.6.0");
    fill(written.run, "v3.5.0");
    EXPECT_EQ(hex_dump(bytes_of(written)), hex_dump(one_flash));
}

TEST(VersionEntry, HasTextsThatFillTheirFields)
{
    bios_version_entry entry{};
    fill(entry.swid_str, full_field);
    fill(entry.run, full_field);
    EXPECT_EQ(hex_dump(bytes_of(entry)),
              hex_dump(message_bytes(392).text(8, full_field).text(264, full_field).content()));
}

TEST(ModuleVersionRequest, BeginsWithTheModule)
{
    EXPECT_EQ(record_of<bios_mod_version_req_t>({0, 0, 1, 9}).module_num.load(), 0x109u);
    EXPECT_EQ(bytes_of(bios_mod_version_req_t{be32::of(9)}), (bytes{0, 0, 0, 9}));
}

TEST(NewVersionMessage, HasAHeaderOf16BytesBeforeItsEntries)
{
    const bytes header = {0xee, 0xee, 0xee, 0xee, 0, 0, 0, 9, 0, 0, 1, 2, 0, 0, 0, 19};
    const auto message = record_of<bios_new_vers_message>(header);
    EXPECT_EQ(message.module_num.load(), 9u);
    EXPECT_EQ(message.num_entries.load(), 0x102u);
    EXPECT_EQ(message.bios_id.load(), 19u);
    EXPECT_EQ(bytes_of(bios_new_vers_message{be32::of(0xeeeeeeee), be32::of(9), be32::of(0x102), be32::of(19)}),
              header);
}

TEST(VersionFailureAnswer, BeginsWithAllOnes)
{
    const bytes answer = {0xff, 0xff, 0xff, 0xff, 0, 0, 0, 9, 0, 0, 0, 0, 0xee, 0xee, 0xee, 0xee};
    const auto failure = record_of<bios_version_failure_t>(answer);
    EXPECT_EQ(failure.failure.load(), 0xffffffffu);
    EXPECT_EQ(failure.module_num.load(), 9u);
    EXPECT_EQ(failure.zero.load(), 0u);
    EXPECT_EQ(bytes_of(bios_version_failure_t{be32::of(0xffffffff), be32::of(9), {}, be32::of(0xeeeeeeee)}),
              answer);
}

const bytes compat_message = message_bytes(396)
                                 .put(0, {0x40, 0x71, 0, 0x25})
                                 .text(4, "v3.6.0")
                                 .text(132, "v3.5.0")
                                 .put(260, {0, 0, 0, 19})
                                 .text(264, "swid-bios")
                                 .put(392, {0, 0, 1, 2})
                                 .content();

TEST(CompatVersionMessage, IsThreeRecordsOneBehindTheOther)
{
    const auto message = record_of<bios_compat_version_msg_t>(compat_message);
    EXPECT_EQ(message.version.stat.load(), 0x40710025u);
    EXPECT_EQ(text_of(message.version.cur), "v3.6.0");
    EXPECT_EQ(text_of(message.version.run), "v3.5.0");
    EXPECT_EQ(message.swid.swid.load(), 19u);
    EXPECT_EQ(text_of(message.swid.swid_str), "swid-bios");
    EXPECT_EQ(message.further_rows.count.load(), 0x102u);

    bios_compat_version_msg_t written{};
    written.version.stat.store(0x40710025);
    fill(written.version.cur, "v3.6.0");
    fill(written.version.run, "v3.5.0");
    written.swid.swid.store(19);
    fill(written.swid.swid_str, "swid-bios");
    written.further_rows.count.store(0x102);
    EXPECT_EQ(hex_dump(bytes_of(written)), hex_dump(compat_message));
    EXPECT_EQ(bytes_of(written.version).size(), 260u);
    EXPECT_EQ(bytes_of(written.swid).size(), 132u);
    EXPECT_EQ(bytes_of(written.further_rows).size(), 4u);
}

TEST(VersionTlv, HasAHeaderOfTypeAndLength)
{
    const auto header = record_of<bios_tlv_header_t>({0x00, 0x00, 0x01, 0x88});
    EXPECT_EQ(header.type.load(), BIOS_TLV_VERSION_ENTRY);
    EXPECT_EQ(header.length.load(), 392u);
    EXPECT_EQ(record_of<bios_tlv_header_t>({0x00, 0x01, 0x00, 0x01}).type.load(), BIOS_TLV_IGNORED);
    bios_tlv_header_t written{};
    written.type.store(0x0102);
    written.length.store(0x0304);
    EXPECT_EQ(bytes_of(written), (bytes{1, 2, 3, 4}));
}

const bytes programming_body = message_bytes(529)
                                   .put(0, {0, 0, 0, 9})
                                   .put(4, {0, 0, 1, 0})
                                   .put(8, {0xee, 0xee, 0xee, 0xee})
                                   .text(12, "bootflash:system.bin")
                                   .text(240, "/bootflash/system.bin")
                                   .put(528, {3})
                                   .content();

TEST(ProgrammingRequest, Has529Bytes)
{
    const auto request = record_of<bios_programming_req_t>(programming_body);
    EXPECT_EQ(request.programming_mod_num.load(), 9u);
    EXPECT_EQ(request.def.load(), 0x100u);
    EXPECT_STREQ(request.uri, "bootflash:system.bin");
    EXPECT_STREQ(request.local_path, "/bootflash/system.bin");
    EXPECT_EQ(request.type, 3u);

    bios_programming_req_t written{};
    written.programming_mod_num.store(9);
    written.def.store(0x100);
    std::fill(std::begin(written.reserved), std::end(written.reserved), std::uint8_t{0xee});
    fill(written.uri, "bootflash:system.bin");
    fill(written.local_path, "/bootflash/system.bin");
    written.type = 3;
    EXPECT_EQ(hex_dump(bytes_of(written)), hex_dump(programming_body));
}

TEST(ProgrammingReports, AreWordsWithTheHighByteFirst)
{
    EXPECT_EQ(bytes_of(bios_programming_reply_t{}), (bytes{0, 0, 0, 0}));
    const bytes notify = {0x40, 0x71, 0x00, 0x0c, 0, 0, 0, 9};
    EXPECT_EQ(bytes_of(bios_programming_notify_t{be32::of(0x4071000c), be32::of(9)}), notify);
    EXPECT_EQ(record_of<bios_programming_notify_t>(notify).result.load(), 0x4071000cu);
    EXPECT_EQ(record_of<bios_programming_notify_t>(notify).programming_mod_num.load(), 9u);
    EXPECT_EQ(bytes_of(bios_programming_done_t{be32::of(0x4071000c)}), (bytes{0x40, 0x71, 0x00, 0x0c}));
    EXPECT_EQ(record_of<bios_programming_done_t>({0x40, 0x71, 0, 9}).result.load(), 0x40710009u);
    const bytes progress = {0, 0, 0, 2, 0, 0, 0, 57, 0, 0, 0, 1};
    EXPECT_EQ(bytes_of(bios_programming_progress_t{be32::of(BIOS_PHASE_WRITE), be32::of(57), be32::of(1)}),
              progress);
    EXPECT_EQ(record_of<bios_programming_progress_t>(progress).percent.load(), 57u);
}

} // namespace
