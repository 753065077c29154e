// Lines of an event log that are left out by its readers: they are found, and count for nothing.
#include "flash_event_faults.h"

#include "flash_fixture.h"

#include "flash_event_chain.h"
#include "flash_event_log.h"

namespace
{

using findings = std::vector<flash_line_finding>;

class EventFaults : public chassis_flash_fixture
{
protected:
    void SetUp() override
    {
        chassis_flash_fixture::SetUp();
        create_flash();
        create_flash(1);
    }
    static void append(unsigned count, unsigned instance = 0)
    {
        for (unsigned k = 0; k < count; ++k)
            (void)flash_event_append(open_flash_folder(TEST_SLOT, instance),
                                     {.slot = TEST_SLOT, .instance = instance, .kind = flash_event_kind::begun});
    }
    static findings found() { return flash_event_log_faults(TEST_SLOT, 0); }
    static std::vector<std::uint64_t> sequences()
    {
        std::vector<std::uint64_t> all;
        for (const flash_event &event : flash_event_history_of(TEST_SLOT, 0).events)
            all.push_back(event.sequence);
        return all;
    }
    std::string line(unsigned number, unsigned instance = 0) const
    {
        std::istringstream text(text_of_flash_file("events", instance));
        std::string one;
        for (unsigned k = 0; k < number; ++k)
            std::getline(text, one);
        return one + "\n";
    }
    void add(const std::string &text) const { std::ofstream(flash_file("events"), std::ios::app) << text; }
};

} // namespace

TEST_F(EventFaults, AWholeLogHasNone)
{
    EXPECT_EQ(found(), findings());
    append(5);
    EXPECT_EQ(found(), findings());
    std::filesystem::rename(flash_file("events"), flash_file("events.1"));
    append(5);
    EXPECT_EQ(found(), findings());
}

TEST_F(EventFaults, LinesThatAreNoEvents)
{
    append(2);
    add("nothing\n\n{}\n");
    append(1);
    add(std::string(2, '\0') + "\n");
    EXPECT_EQ(found(), (findings{{flash_line_fault::no_event, false, 4, 3, 0}}));
    EXPECT_EQ(sequences(), (std::vector<std::uint64_t>{1, 2, 3}));
}

TEST_F(EventFaults, LinesThatAreThereTwiceAndDoNotTakeTheNumbersBack)
{
    append(5);
    add(line(2));
    append(1);
    EXPECT_EQ(sequences(), (std::vector<std::uint64_t>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(flash_event_chain_breaks(flash_event_history_of(TEST_SLOT, 0).events), std::vector<chain_break>{});
    EXPECT_EQ(found(), (findings{{flash_line_fault::twice, false, 1, 6, 2}}));
    add(line(2));
    EXPECT_EQ(flash_event_last_of(TEST_SLOT, 0)->sequence, 6U);
}

TEST_F(EventFaults, LinesOfAnotherFlashCountForNothing)
{
    append(2);
    append(9, 1);
    add(line(9, 1));
    append(1);
    EXPECT_EQ(sequences(), (std::vector<std::uint64_t>{1, 2, 3}));
    EXPECT_EQ(found(), (findings{{flash_line_fault::other_flash, false, 1, 3, 9}}));
}

TEST_F(EventFaults, LinesThatAreNotInTheirPlaces)
{
    append(3);
    write_flash_file("events", line(1) + line(3) + line(2));
    EXPECT_EQ(found(), (findings{{flash_line_fault::out_of_order, false, 1, 3, 2}}));
}

TEST_F(EventFaults, ALastLineThatIsNotWhole)
{
    append(1);
    add("{\"time\"");
    EXPECT_EQ(found(), (findings{{flash_line_fault::unfinished, false, 1, 2, 0}}));
    append(1);
    EXPECT_EQ(found(), (findings{{flash_line_fault::no_event, false, 1, 2, 0}}));
}

TEST_F(EventFaults, OfBothFilesEach)
{
    append(2);
    add("nothing\n");
    std::filesystem::rename(flash_file("events"), flash_file("events.1"));
    append(1);
    std::ifstream older(flash_file("events.1"));
    std::string first;
    std::getline(older, first);
    add(first + "\n");
    EXPECT_EQ(found(),
              (findings{{flash_line_fault::no_event, true, 1, 3, 0}, {flash_line_fault::twice, false, 1, 2, 1}}));
}
