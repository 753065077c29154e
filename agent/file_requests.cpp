#include "file_requests.h"

#include <cstring>

namespace
{

using request_body = std::span<const std::uint8_t>;

// A request of an endpoint.
struct asked_transfer {
    file_transfers &transfers;
    mts_address_t from;
    request_body body;

    // Its body is one record.
    template<class Record>
    answer by_record(answer (file_transfers::*serve)(mts_address_t, const Record &)) const
    {
        Record record;
        if (body.size() != sizeof record)
            return AGENT_ERR_REQUEST;
        std::memcpy(&record, body.data(), sizeof record);
        return (transfers.*serve)(from, record);
    }
};

answer put_piece(const asked_transfer &asked)
{
    agent_put_piece_t piece;
    if (asked.body.size() < sizeof piece)
        return AGENT_ERR_REQUEST;
    std::memcpy(&piece, asked.body.data(), sizeof piece);
    return asked.transfers.put_piece(asked.from, piece, asked.body.subspan(sizeof piece));
}

answer list_files(request_body body)
{
    if (!body.empty())
        return AGENT_ERR_REQUEST;
    answer files;
    for (const agent_file_t &file : delivered_files())
        files.add(file);
    return files;
}

answer remove_file(request_body body)
{
    agent_file_req_t request;
    if (body.size() != sizeof request)
        return AGENT_ERR_REQUEST;
    std::memcpy(&request, body.data(), sizeof request);
    const auto name = delivered_name(request.name);
    return name ? remove_delivered_file(*name) : AGENT_ERR_FILE_NAME;
}

} // namespace

bool is_about_files(std::uint32_t opcode)
{
    return opcode >= AGENT_OPC_PUT_FILE && opcode <= AGENT_OPC_REMOVE_FILE;
}

answer answer_about_files(file_transfers &transfers, mts_address_t from, std::uint32_t opcode,
                          std::span<const std::uint8_t> body)
{
    const asked_transfer asked{transfers, from, body};
    switch (opcode) {
    case AGENT_OPC_PUT_FILE:
        return asked.by_record(&file_transfers::begin_put);
    case AGENT_OPC_PUT_PIECE:
        return put_piece(asked);
    case AGENT_OPC_PUT_END:
        return asked.by_record(&file_transfers::end_put);
    case AGENT_OPC_GET_FLASH:
        return asked.by_record(&file_transfers::begin_get_flash);
    case AGENT_OPC_GET_FILE:
        return asked.by_record(&file_transfers::begin_get_file);
    case AGENT_OPC_GET_PIECE:
        return asked.by_record(&file_transfers::get_piece);
    case AGENT_OPC_GET_END:
        return asked.by_record(&file_transfers::end_get);
    case AGENT_OPC_LIST_FILES:
        return list_files(body);
    case AGENT_OPC_REMOVE_FILE:
        return remove_file(body);
    default:
        return AGENT_ERR_REQUEST;
    }
}
