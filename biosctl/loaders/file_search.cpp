#include "file_search.h"

#include <algorithm>
#include <vector>

#include "bios_results.h"

namespace
{

constexpr std::uint32_t LOADER_RESULT = 0x40530000;
constexpr std::uint32_t RESULT_KIND = 0xffff0000;

// Whether a failure may mean that the file has fewer bytes. A partition that cannot be mounted and a daemon without
// memory say nothing about the file.
bool may_be_shorter(const file_answer &answer)
{
    return answer.error == 0 && answer.understood && answer.status != BIOS_LOADER_FILE_NO_MEMORY &&
           (answer.status & RESULT_KIND) != LOADER_RESULT;
}

// What was read of a file before is the beginning of what is read now.
bool goes_on(const std::vector<std::uint8_t> &before, const std::vector<std::uint8_t> &now)
{
    return before.size() <= now.size() && std::equal(before.begin(), before.end(), now.begin());
}

} // namespace

file_search find_whole_file(const file_request &request)
{
    file_search search{.answer = request(0), .requests = 1};
    if (!search.answer.has_content()) {
        search.end = file_search_end::failed;
        return search;
    }
    // There are at least `there` bytes, and not `beyond` bytes as far as is known.
    std::uint32_t there = 0;
    std::uint32_t beyond = LOADER_FILE_BYTES_MAX + 1;
    while (beyond - there > 1) {
        const std::uint32_t middle = there + (beyond - there) / 2;
        file_answer answer = request(middle);
        ++search.requests;
        if (answer.has_content()) {
            if (!goes_on(search.answer.content, answer.content)) {
                search.end = file_search_end::changed;
                return search;
            }
            search.answer = std::move(answer);
            there = middle;
            continue;
        }
        const bool first_refusal = search.beyond_status == 0;
        if (!may_be_shorter(answer) || (!first_refusal && answer.status != search.beyond_status)) {
            search.answer = std::move(answer);
            search.end = file_search_end::failed;
            return search;
        }
        search.beyond_status = answer.status;
        beyond = middle;
    }
    return search;
}
