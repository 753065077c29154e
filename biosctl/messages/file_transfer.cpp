#include "file_transfer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "agents.h"
#include "output_file.h"
#include "read_all_at.h"
#include "text_field.h"
#include "unique_fd.h"

namespace
{

using bytes = std::vector<std::uint8_t>;

template<class Record>
request_answer ask(std::uint32_t node, std::uint32_t opcode, const Record &body)
{
    return ask_agent(node, opcode, {reinterpret_cast<const std::uint8_t *>(&body), sizeof body});
}

transfer_outcome outcome_of(const request_answer &answer)
{
    return answer.answered ? transfer_outcome{.status = answer.status}
                           : transfer_outcome{.request_error = answer.error};
}

transfer_outcome not_understood()
{
    return {.request_error = EPROTO};
}

// A name that does not fit fills the field without a NUL, which the agent refuses.
agent_file_req_t named(const std::string &name)
{
    agent_file_req_t request{};
    store_text(request.name, name.c_str());
    return request;
}

// A local file that is sent, read from its beginning to its end.
class input_file
{
public:
    explicit input_file(const std::string &path) : file_(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC))
    {
        struct stat status {
        };
        if (!file_ || ::fstat(file_.get(), &status) != 0)
            error_ = errno;
        else if (!S_ISREG(status.st_mode))
            error_ = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        else
            size_bytes_ = static_cast<std::uint64_t>(status.st_size);
    }

    int error() const { return error_; }
    std::uint64_t size_bytes() const { return size_bytes_; }

    // All of the buffer; else error() says why. A file that ends too early has been changed: EIO.
    bool read(std::uint64_t offset, std::uint8_t *bytes_out, std::size_t count)
    {
        const bool is_read = read_all_at(file_.get(), offset, bytes_out, count);
        if (!is_read)
            error_ = errno;
        return is_read;
    }

private:
    unique_fd file_;
    std::uint64_t size_bytes_ = 0;
    int error_ = 0;
};

std::size_t piece_at(std::uint64_t offset, std::uint64_t size_bytes)
{
    return static_cast<std::size_t>(std::min<std::uint64_t>(AGENT_PIECE_BYTES, size_bytes - offset));
}

std::optional<sha256_digest> digest_of(input_file &file)
{
    sha256 sum;
    bytes piece(AGENT_PIECE_BYTES);
    for (std::uint64_t offset = 0; offset < file.size_bytes(); offset += AGENT_PIECE_BYTES) {
        const std::size_t count = piece_at(offset, file.size_bytes());
        if (!file.read(offset, piece.data(), count))
            return std::nullopt;
        sum.add(piece.data(), count);
    }
    return sum.digest();
}

transfer_outcome send_pieces(std::uint32_t node, be64 transfer, input_file &file)
{
    bytes request(sizeof(agent_put_piece_t) + AGENT_PIECE_BYTES);
    for (std::uint64_t offset = 0; offset < file.size_bytes(); offset += AGENT_PIECE_BYTES) {
        const agent_put_piece_t head{transfer, be64::of(offset)};
        std::memcpy(request.data(), &head, sizeof head);
        const std::size_t count = piece_at(offset, file.size_bytes());
        if (!file.read(offset, request.data() + sizeof head, count))
            return {.file_error = file.error()};
        const transfer_outcome sent =
            outcome_of(ask_agent(node, AGENT_OPC_PUT_PIECE, std::span(request).first(sizeof head + count)));
        if (!sent.is_done())
            return sent;
    }
    return {};
}

// The pieces of a copy into a file that is being written, and their digest.
transfer_outcome fetch_pieces(std::uint32_t node, const begun_transfer &transfer, output_file &file, sha256 &sum)
{
    for (std::uint64_t offset = 0; offset < transfer.size_bytes; offset += AGENT_PIECE_BYTES) {
        const std::size_t count = piece_at(offset, transfer.size_bytes);
        const request_answer answer = ask(node, AGENT_OPC_GET_PIECE,
                                          agent_get_piece_t{be64::of(transfer.id), be64::of(offset),
                                                            be32::of(static_cast<std::uint32_t>(count))});
        if (const transfer_outcome got = outcome_of(answer); !got.is_done())
            return got;
        if (answer.payload.size() != count)
            return not_understood();
        if (const int error = file.write(answer.payload); error != 0)
            return {.file_error = error};
        sum.add(answer.payload.data(), count);
    }
    return {};
}

transfer_outcome fetch(std::uint32_t node, const request_answer &begun, const std::string &path, bool overwrite)
{
    if (const transfer_outcome asked = outcome_of(begun); !asked.is_done())
        return asked;
    const auto transfer = decode_transfer(begun.payload);
    if (!transfer || transfer->size_bytes > AGENT_FILE_BYTES_MAX)
        return not_understood();
    output_file file(path);
    sha256 sum;
    const transfer_outcome fetched = fetch_pieces(node, *transfer, file, sum);
    // After a failure, too: the agent need not wait for what does not come.
    const request_answer end = ask(node, AGENT_OPC_GET_END, agent_transfer_req_t{be64::of(transfer->id)});
    if (!fetched.is_done())
        return fetched;
    if (const transfer_outcome ended = outcome_of(end); !ended.is_done())
        return ended;
    const auto digest = decode_digest(end.payload);
    if (!digest)
        return not_understood();
    if (*digest != sum.digest())
        return {.status = AGENT_ERR_DIGEST};
    return {.file_error = file.finish(overwrite)};
}

// What has to be known before anything is fetched.
transfer_outcome check_place(const std::string &path, bool overwrite)
{
    return {.file_error = check_output_file(path, overwrite)};
}

} // namespace

transfer_outcome send_file(std::uint32_t node, const std::string &path, const std::string &name)
{
    input_file file(path);
    const auto digest = file.error() == 0 ? digest_of(file) : std::nullopt;
    if (!digest)
        return {.file_error = file.error()};
    agent_file_t announced{};
    std::ranges::copy(named(name).name, announced.name);
    announced.size_bytes = be64::of(file.size_bytes());
    std::ranges::copy(*digest, announced.sha256);
    const request_answer begun = ask(node, AGENT_OPC_PUT_FILE, announced);
    if (const transfer_outcome asked = outcome_of(begun); !asked.is_done())
        return asked;
    const auto transfer = decode_transfer(begun.payload);
    if (!transfer)
        return not_understood();
    const be64 id = be64::of(transfer->id);
    const transfer_outcome sent = send_pieces(node, id, file);
    // After a failure, too: the agent need not wait for what does not come.
    const request_answer end = ask(node, AGENT_OPC_PUT_END, agent_transfer_req_t{id});
    return sent.is_done() ? outcome_of(end) : sent;
}

transfer_outcome fetch_flash(std::uint32_t node, unsigned instance, const std::string &path, bool overwrite)
{
    if (const transfer_outcome place = check_place(path, overwrite); !place.is_done())
        return place;
    return fetch(node, ask(node, AGENT_OPC_GET_FLASH, agent_flash_req_t{be32::of(instance)}), path, overwrite);
}

transfer_outcome fetch_file(std::uint32_t node, const std::string &name, const std::string &path, bool overwrite)
{
    if (const transfer_outcome place = check_place(path, overwrite); !place.is_done())
        return place;
    return fetch(node, ask(node, AGENT_OPC_GET_FILE, named(name)), path, overwrite);
}

transfer_outcome remove_file(std::uint32_t node, const std::string &name)
{
    return outcome_of(ask(node, AGENT_OPC_REMOVE_FILE, named(name)));
}

std::optional<std::vector<delivered_file>> ask_for_files(std::uint32_t node)
{
    const request_answer answer = ask_agent(node, AGENT_OPC_LIST_FILES, {});
    return answer.answered && answer.status == AGENT_OK ? decode_files(answer.payload) : std::nullopt;
}
