#include "message_texts.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <span>

#include "bios_messages.h"
#include "bios_opcodes.h"
#include "mts.h"
#include "printable_text.h"

namespace
{

struct text_place {
    std::uint32_t opcode;
    std::size_t offset; // in the request's body or in the answer
    std::size_t bytes;
};

constexpr text_place REQUEST_TEXTS[] = {
    {MTS_OPC_BIOS_INSTALL_LOADER, offsetof(bios_install_loader_req_t, image_path),
     sizeof(bios_install_loader_req_t::image_path)},
    {MTS_OPC_BIOS_GET_SRC_BIOS_VERSION, offsetof(bios_src_version_req, image_path),
     sizeof(bios_src_version_req::image_path)},
    {MTS_OPC_BIOS_PROGRAMMING_START, offsetof(bios_programming_req_t, uri), sizeof(bios_programming_req_t::uri)},
};

constexpr std::size_t FIRST_SWID = offsetof(bios_compat_version_msg_t, swid);
constexpr text_place ANSWER_TEXTS[] = {
    {MTS_OPC_BIOS_GET_LC_BIOS_VERSION, offsetof(bios_get_lc_version_t, cur), sizeof(bios_get_lc_version_t::cur)},
    {MTS_OPC_BIOS_GET_LC_BIOS_VERSION, offsetof(bios_get_lc_version_t, run), sizeof(bios_get_lc_version_t::run)},
    {MTS_OPC_BIOS_GET_LC_BIOS_VERSION, FIRST_SWID + offsetof(bios_get_lc_version_swid_t, swid_str),
     sizeof(bios_get_lc_version_swid_t::swid_str)},
};

constexpr std::size_t TLV_ALIGNMENT = 4;

using message_bytes = std::span<char>;

void make_field_printable(message_bytes bytes, std::size_t offset, std::size_t length)
{
    if (offset < bytes.size())
        make_printable(bytes.data() + offset, std::min(length, bytes.size() - offset));
}

void make_fields_printable(message_bytes bytes, std::uint32_t opcode, std::span<const text_place> places)
{
    for (const text_place &place : places) {
        if (place.opcode == opcode)
            make_field_printable(bytes, place.offset, place.bytes);
    }
}

// The rows behind the first one of a version answer.
void make_rows_printable(message_bytes bytes)
{
    std::size_t place = sizeof(bios_compat_version_msg_t);
    while (place + sizeof(bios_tlv_header_t) <= bytes.size()) {
        bios_tlv_header_t header;
        std::memcpy(&header, bytes.data() + place, sizeof header);
        place += sizeof header;
        if (header.type.load() == BIOS_TLV_VERSION_ENTRY && header.length.load() == sizeof(bios_version_entry)) {
            make_field_printable(bytes, place + offsetof(bios_version_entry, swid_str),
                                 sizeof(bios_version_entry::swid_str));
            make_field_printable(bytes, place + offsetof(bios_version_entry, cur), sizeof(bios_version_entry::cur));
            make_field_printable(bytes, place + offsetof(bios_version_entry, run), sizeof(bios_version_entry::run));
        }
        place += (header.length.load() + TLV_ALIGNMENT - 1) / TLV_ALIGNMENT * TLV_ALIGNMENT;
    }
}

} // namespace

void make_texts_printable(mts_message_t &message)
{
    const message_bytes bytes(reinterpret_cast<char *>(message.payload), message.header.payload_bytes);
    const std::uint32_t opcode = message.header.opcode;
    if (message.header.kind == mts_frame_kind::response) {
        make_fields_printable(bytes, opcode, ANSWER_TEXTS);
        if (opcode == MTS_OPC_BIOS_GET_LC_BIOS_VERSION)
            make_rows_printable(bytes);
    } else if (bytes.size() > MTS_REQUEST_HEADER_BYTES) {
        make_fields_printable(bytes.subspan(MTS_REQUEST_HEADER_BYTES), opcode, REQUEST_TEXTS);
    }
}
