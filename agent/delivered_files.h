// The files that were delivered to this card, in its folder slots/SLOT/images/.
//
//   NAME        a file that has arrived whole
//   .part.ID    one that is arriving; removed with its partial_file, or when the next agent starts
//   .digests    a record for each delivered file: what it was when it got its name. A file without a record, or
//   with
//               one that is not its own, was not delivered: somebody else has put it there or changed it
//
// No link in the folder is followed.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "piece_source.h"
#include "unique_fd.h"

// The text of a name field; none when a delivered file must not have this name.
std::optional<std::string> delivered_name(const char (&field)[AGENT_FILE_NAME_BYTES]);

// In order of the names, at most AGENT_FILES_MAX.
std::vector<agent_file_t> delivered_files();

// AGENT_OK, AGENT_ERR_NO_FILE, or AGENT_ERR_UNREADABLE when it could not be removed.
agent_status remove_delivered_file(const std::string &name);

// AGENT_OK and the source, AGENT_ERR_NO_FILE or AGENT_ERR_UNREADABLE.
agent_status open_delivered_file(const std::string &name, piece_source &source_out);

// Removes what a dead agent has left. REQUIRES: no partial_file.
void remove_partial_files();

// A file that is arriving.
class partial_file
{
public:
    // AGENT_OK, with room for the file kept where the file system can do so; else the object is of no use.
    agent_status make(std::uint64_t id, std::uint64_t size_bytes);
    partial_file() = default;
    ~partial_file();
    partial_file(const partial_file &) = delete;
    partial_file &operator=(const partial_file &) = delete;

    // Writes bytes behind those that were written before.
    agent_status add(std::uint64_t offset, std::span<const std::uint8_t> bytes);

    // Gives the file its name, in the place of one that has it. Both are on the disk when this returns AGENT_OK.
    //   file  what has arrived; its name is a delivered_name
    agent_status deliver(const agent_file_t &file);

private:
    unique_fd folder_;
    unique_fd file_;
    std::string name_; // empty: there is nothing to remove
};
