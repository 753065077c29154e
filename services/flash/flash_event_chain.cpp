#include "flash_event_chain.h"

#include "sha256.h"

std::string flash_event_chain(const std::string &before, const flash_event &event)
{
    flash_event unlinked = event;
    unlinked.chain.clear();
    const std::string line = flash_event_format(unlinked);
    sha256 sum;
    sum.add(before.data(), before.size());
    sum.add(line.data(), line.size());
    return sha256_text(sum.digest());
}

std::vector<chain_break> flash_event_chain_breaks(std::span<const flash_event> events)
{
    std::vector<chain_break> breaks;
    const flash_event *before = nullptr;
    bool has_begun = false;
    for (const flash_event &event : events) {
        has_begun = has_begun || !event.chain.empty();
        const bool is_known_start = before != nullptr || event.sequence == 1;
        if (has_begun && before != nullptr && event.sequence != before->sequence + 1)
            breaks.push_back({event.sequence, chain_fault::missing, event.sequence - before->sequence - 1});
        else if (has_begun && is_known_start &&
                 event.chain != flash_event_chain(before != nullptr ? before->chain : "", event))
            breaks.push_back({event.sequence, chain_fault::changed, 0});
        before = &event;
    }
    return breaks;
}
