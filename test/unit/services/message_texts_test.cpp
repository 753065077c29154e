// Texts of messages that end in the daemon's log: what cannot be printed is gone before the daemon sees it.
#include "message_texts.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "bios_messages.h"
#include "bios_opcodes.h"
#include "mts.h"
#include "text_field.h"

namespace
{

constexpr const char *FORGED = "a\n2026 forged\x1b[2J\x9b\x7f\xc2\x85z";
constexpr const char *HARMLESS = "a?2026 forged?[2J????z";

mts_held_message message_with(mts_frame_kind kind, std::uint32_t opcode, const std::string &payload)
{
    mts_frame_header header{};
    header.kind = kind;
    header.opcode = opcode;
    header.payload_bytes = static_cast<std::uint32_t>(payload.size());
    mts_held_message message = mts_message_for(header);
    std::memcpy(message->payload, payload.data(), payload.size());
    return message;
}

std::string payload_of(const mts_message &message)
{
    return {reinterpret_cast<const char *>(message.payload), message.header.payload_bytes};
}

template<class Record>
std::string bytes_of(const Record &record)
{
    return {reinterpret_cast<const char *>(&record), sizeof record};
}

template<class Record>
std::string request_with(const Record &body)
{
    return std::string(MTS_REQUEST_HEADER_BYTES, '\n') + bytes_of(body);
}

// A request, and that it has become another one.
template<class Record>
void expect_request(std::uint32_t opcode, const Record &sent, const Record &wanted)
{
    const mts_held_message message = message_with(mts_frame_kind::request, opcode, request_with(sent));
    make_texts_printable(*message);
    EXPECT_TRUE(payload_of(*message) == request_with(wanted)) << opcode;
}

bios_version_entry entry_with(const char *text)
{
    bios_version_entry entry{be32::of(10), be32::of(10), {}, {}, {}};
    store_text(entry.swid_str, text);
    store_text(entry.cur, text);
    store_text(entry.run, text);
    return entry;
}

std::string version_answer_with(const char *text)
{
    bios_compat_version_msg_t answer{};
    answer.version.stat = be32::of(10);
    store_text(answer.version.cur, text);
    store_text(answer.version.run, text);
    answer.swid.swid = be32::of(10);
    store_text(answer.swid.swid_str, text);
    answer.further_rows.count = be32::of(10);
    bios_tlv_header_t ignored{};
    ignored.type.store(BIOS_TLV_IGNORED);
    ignored.length.store(1);
    bios_tlv_header_t row{};
    row.type.store(BIOS_TLV_VERSION_ENTRY);
    row.length.store(sizeof(bios_version_entry));
    return bytes_of(answer) + bytes_of(ignored) + std::string("\n\n\n\n") + bytes_of(row) +
           bytes_of(entry_with(text));
}

} // namespace

TEST(MessageTexts, OfRequestsArePrintable)
{
    bios_install_loader_req_t loader{{}, be32::of(10)};
    bios_install_loader_req_t harmless_loader = loader;
    store_text(loader.image_path, FORGED);
    store_text(harmless_loader.image_path, HARMLESS);
    expect_request(MTS_OPC_BIOS_INSTALL_LOADER, loader, harmless_loader);

    bios_src_version_req source{10, {}, {10, 10}};
    bios_src_version_req harmless_source = source;
    store_text(source.image_path, FORGED);
    store_text(harmless_source.image_path, HARMLESS);
    expect_request(MTS_OPC_BIOS_GET_SRC_BIOS_VERSION, source, harmless_source);

    bios_programming_req_t programming{be32::of(10), be32::of(10), {10, 10, 10, 10}, {}, {}, 10};
    bios_programming_req_t harmless_programming = programming;
    store_text(programming.uri, FORGED);
    store_text(harmless_programming.uri, HARMLESS);
    expect_request(MTS_OPC_BIOS_PROGRAMMING_START, programming, harmless_programming);
}

TEST(MessageTexts, WithoutAnEndArePrintableUpToTheEndOfTheirField)
{
    bios_install_loader_req_t sent{{}, be32::of(10)};
    bios_install_loader_req_t wanted = sent;
    std::memset(sent.image_path, '\n', sizeof sent.image_path);
    std::memset(wanted.image_path, '?', sizeof wanted.image_path);
    expect_request(MTS_OPC_BIOS_INSTALL_LOADER, sent, wanted);
}

TEST(MessageTexts, BehindTheirNulStayAsTheyAre)
{
    bios_install_loader_req_t sent{{}, be32::of(10)};
    std::memset(sent.image_path, '\n', sizeof sent.image_path);
    sent.image_path[0] = '\0';
    expect_request(MTS_OPC_BIOS_INSTALL_LOADER, sent, sent);
}

TEST(MessageTexts, OfAVersionAnswerArePrintable)
{
    const mts_held_message message =
        message_with(mts_frame_kind::response, MTS_OPC_BIOS_GET_LC_BIOS_VERSION, version_answer_with(FORGED));
    make_texts_printable(*message);
    EXPECT_TRUE(payload_of(*message) == version_answer_with(HARMLESS));
}

// Every length, also those that end within a field or a header.
TEST(MessageTexts, OfAMessageThatIsCutShortAreTouchedWithinIt)
{
    const std::string request = request_with(bios_programming_req_t{});
    const std::string whole_answer = version_answer_with(FORGED);
    for (std::size_t bytes = 0; bytes <= whole_answer.size(); ++bytes) {
        const mts_held_message answer =
            message_with(mts_frame_kind::response, MTS_OPC_BIOS_GET_LC_BIOS_VERSION, whole_answer.substr(0, bytes));
        std::memset(answer->payload + bytes, '\n', 64);
        make_texts_printable(*answer);
        EXPECT_EQ(std::string(64, '\n'), std::string(reinterpret_cast<char *>(answer->payload) + bytes, 64));
    }
    for (std::size_t bytes = 0; bytes <= request.size(); ++bytes) {
        const mts_held_message message =
            message_with(mts_frame_kind::request, MTS_OPC_BIOS_PROGRAMMING_START, std::string(bytes, '\n'));
        std::memset(message->payload + bytes, '\n', 64);
        make_texts_printable(*message);
        EXPECT_EQ(std::string(64, '\n'), std::string(reinterpret_cast<char *>(message->payload) + bytes, 64));
    }
}

TEST(MessageTexts, OfOtherMessagesStayAsTheyAre)
{
    const std::string text(2000, '\n');
    for (const auto kind : {mts_frame_kind::request, mts_frame_kind::response, mts_frame_kind::unsolicited}) {
        const mts_held_message message = message_with(kind, MTS_OPC_BIOS_GET_LOADER_IMAGE, text);
        make_texts_printable(*message);
        EXPECT_TRUE(payload_of(*message) == text);
    }
}
