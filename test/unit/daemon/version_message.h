// Version reports byte by byte: what a test expects in a message, and what the daemon answered.
#pragma once

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "daemon_test.h"

// A message that is put together at its offsets.
class message_bytes
{
public:
    explicit message_bytes(std::size_t length, std::uint8_t fill = 0) : content_(length, fill) {}
    explicit message_bytes(const bytes &content) : content_(content) {}

    message_bytes &put(std::size_t offset, const bytes &piece)
    {
        if (offset + piece.size() > content_.size())
            std::abort();
        std::copy(piece.begin(), piece.end(), content_.begin() + static_cast<std::ptrdiff_t>(offset));
        return *this;
    }
    message_bytes &text(std::size_t offset, std::string_view piece)
    {
        return put(offset, {piece.begin(), piece.end()});
    }
    message_bytes &append(const bytes &piece)
    {
        content_.insert(content_.end(), piece.begin(), piece.end());
        return *this;
    }
    message_bytes &cut(std::size_t length)
    {
        content_.resize(length);
        return *this;
    }
    const bytes &content() const { return content_; }

private:
    bytes content_;
};

// One flash's versions, 392 bytes.
inline bytes version_entry(const bytes &stat, const bytes &swid, std::string_view label, std::string_view cur,
                           std::string_view run)
{
    return message_bytes(392).put(0, stat).put(4, swid).text(8, label).text(136, cur).text(264, run).content();
}

// A record as it stands in a message, and a message read as a record.
template<class RECORD>
bytes bytes_of(const RECORD &record)
{
    static_assert(std::is_trivially_copyable_v<RECORD>);
    bytes content(sizeof record);
    std::memcpy(content.data(), &record, sizeof record);
    return content;
}

template<class RECORD>
RECORD record_of(const bytes &content)
{
    static_assert(std::is_trivially_copyable_v<RECORD>);
    RECORD record;
    if (content.size() != sizeof record)
        std::abort();
    std::memcpy(&record, content.data(), sizeof record);
    return record;
}

// A line for each 16 bytes, so that a difference between two messages shows its offset.
inline std::string hex_dump(const bytes &content)
{
    std::string text;
    for (std::size_t offset = 0; offset < content.size(); offset += 16) {
        const std::size_t length = std::min<std::size_t>(16, content.size() - offset);
        text += std::to_string(offset) + ": " + dumped(content.data() + offset, length) + "\n";
    }
    return text;
}

// What cmi_response was called with.
struct sent_answer {
    bool without_payload;
    bytes payload;
    std::string rest; // length, handle, message and status: "408, 7, #1, 0x0"
};

inline sent_answer answer_in(const std::string &line)
{
    const std::size_t start = std::strlen("cmi_response(");
    const std::size_t payload_end = line[start] == '[' ? line.find(']') + 1 : line.find(',');
    sent_answer answer = {line[start] != '[', {}, line.substr(payload_end + 2)};
    answer.rest.pop_back();
    for (std::size_t i = start + 1; !answer.without_payload && i + 1 < payload_end; i += 2) {
        if (line[i] == ' ')
            ++i;
        const std::array<char, 3> digits{line[i], line[i + 1], '\0'};
        answer.payload.push_back(static_cast<std::uint8_t>(std::strtoul(digits.data(), nullptr, 16)));
    }
    return answer;
}

inline sent_answer latest_answer()
{
    const lines answers = platform().calls("cmi_response");
    return answers.empty() ? sent_answer{true, {}, "no answer"} : answer_in(answers.back());
}

// The only answer of a test, and its payload as hex_dump prints it.
inline sent_answer the_answer()
{
    EXPECT_EQ(platform().calls("cmi_response").size(), 1u);
    return latest_answer();
}
inline std::string the_answered_bytes()
{
    return hex_dump(the_answer().payload);
}
