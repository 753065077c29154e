// An answer that is being put together: its status, and its payload record by record.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent_messages.h"
#include "text_field.h"

class answer
{
public:
    answer() = default;
    answer(agent_status status) : status_(status) {} // without payload

    template<class Record>
    void add(const Record &record)
    {
        add_bytes(&record, sizeof record);
    }
    void add_text(std::string_view text) { add_bytes(text.data(), text.size()); }
    void add_bytes(const void *bytes, std::size_t count);

    std::uint32_t status() const { return status_; }
    const std::vector<std::uint8_t> &payload() const { return payload_; }

private:
    agent_status status_ = AGENT_OK;
    std::vector<std::uint8_t> payload_;
};
