// What biosctl says of an event log that is not as it was written.
#include <gtest/gtest.h>

#include "event_log_check.h"
#include "flash_event_chain.h"

namespace
{

using texts = std::vector<std::string>;

std::vector<flash_event> log_of(unsigned count, std::uint64_t first = 1)
{
    std::vector<flash_event> events;
    std::string chain;
    for (std::uint64_t sequence = first; sequence < first + count; ++sequence) {
        flash_event event{.time = "2026-01-31T23:59:59.123Z", .slot = 3, .sequence = sequence, .pid = 41};
        event.chain = chain = flash_event_chain(chain, event);
        events.push_back(std::move(event));
    }
    return events;
}

known_head head_of(const flash_event &event)
{
    return {.told_by_slot = 2, .sequence = event.sequence, .chain = event.chain};
}

} // namespace

TEST(EventLogCheck, AWholeLogHasNoFaults)
{
    const auto events = log_of(4);
    EXPECT_EQ(event_log_faults(events, std::nullopt), texts());
    EXPECT_EQ(event_log_faults(events, head_of(events.back())), texts());
    EXPECT_EQ(event_log_faults(events, head_of(events[1])), texts()) << "the supervisor was told before";
    EXPECT_EQ(event_log_faults({}, std::nullopt), texts());
}

TEST(EventLogCheck, LinesThatAreMissingInItsMidst)
{
    auto events = log_of(6);
    events.erase(events.begin() + 2, events.begin() + 4);
    EXPECT_EQ(event_log_faults(events, std::nullopt), texts{"2 lines before line 5 are missing"});
}

TEST(EventLogCheck, ALineThatWasChanged)
{
    auto events = log_of(4);
    events[1].kind = flash_event_kind::equal;
    EXPECT_EQ(event_log_faults(events, std::nullopt), texts{"line 2 was changed"});
}

TEST(EventLogCheck, LinesThatAreMissingAtItsBeginningUnlessItWasTurnedOver)
{
    auto events = log_of(4);
    events.erase(events.begin());
    EXPECT_EQ(event_log_faults(events, std::nullopt), texts{"1 line before line 2 is missing"});
    EXPECT_EQ(event_log_faults(log_of(8000, 5000), std::nullopt), texts());
}

TEST(EventLogCheck, ALogThatIsShorterThanASupervisorKnowsIt)
{
    const auto events = log_of(6);
    EXPECT_EQ(event_log_faults(std::span(events).first(4), head_of(events.back())),
              texts{"2 lines at the end are missing (the agent of slot 2 knows line 6)"});
    EXPECT_EQ(event_log_faults({}, head_of(events.front())),
              texts{"1 line at the end is missing (the agent of slot 2 knows line 1)"});
}

TEST(EventLogCheck, ALogThatWasWrittenAnew)
{
    auto events = log_of(6);
    const known_head head = head_of(events[3]);
    events = log_of(3);
    for (std::uint64_t sequence = 4; sequence <= 6; ++sequence) {
        flash_event event{.time = "2026-02-01T00:00:00.000Z", .slot = 3, .sequence = sequence, .pid = 1};
        event.chain = flash_event_chain(events.back().chain, event);
        events.push_back(event);
    }
    EXPECT_EQ(event_log_faults(events, head), texts{"it was written anew (the agent of slot 2 knows line 4)"});
}

TEST(EventLogCheck, ALogFromBeforeThereWasAChainIsShownAsItIs)
{
    auto events = log_of(4);
    for (flash_event &event : events)
        event.chain.clear();
    events.erase(events.begin() + 1);
    EXPECT_EQ(event_log_faults(events, std::nullopt), texts());
}

TEST(EventLogCheck, LinesThatTheAgentHasLeftOut)
{
    const auto events = log_of(4);
    const auto texts_of = [&](const told_log_fault &fault) {
        return event_log_faults(events, std::nullopt, std::span(&fault, 1));
    };
    EXPECT_EQ(texts_of({AGENT_LOG_NO_EVENT, false, 1, 7, 0}), texts{"line 7 of the file is no event"});
    EXPECT_EQ(texts_of({AGENT_LOG_NO_EVENT, true, 3, 7, 0}),
              texts{"3 lines are no events, the first is line 7 of the older file"});
    EXPECT_EQ(texts_of({AGENT_LOG_TWICE, false, 1, 9, 12}), texts{"event 12 (line 9 of the file) is there twice"});
    EXPECT_EQ(texts_of({AGENT_LOG_TWICE, false, 2, 9, 12}),
              texts{"2 events are there twice, the first is event 12 (line 9 of the file)"});
    EXPECT_EQ(texts_of({AGENT_LOG_OTHER_FLASH, false, 1, 9, 12}),
              texts{"event 12 (line 9 of the file) is of another flash"});
    EXPECT_EQ(texts_of({AGENT_LOG_OUT_OF_ORDER, false, 1, 9, 12}),
              texts{"event 12 (line 9 of the file) is not in its place"});
    EXPECT_EQ(texts_of({AGENT_LOG_UNFINISHED, false, 1, 9, 0}),
              texts{"line 9 of the file, the last one, is not whole"});
    EXPECT_EQ(texts_of({AGENT_LOG_LOST_FULL, false, 3, 0, 17}),
              texts{"3 events behind event 17 could not be written: the card's disk was full"});
    EXPECT_EQ(texts_of({AGENT_LOG_LOST, false, 1, 0, 17}), texts{"1 event behind event 17 could not be written"});
}
