// Where an operator is sent to look, in the lab and on a real card.
#include <string>

#include <gtest/gtest.h>

#include "place_hints.h"

namespace
{

constexpr look_at PLACES[] = {look_at::cards, look_at::card_ids, look_at::states, look_at::log,
                              look_at::log_and_states};

bool names_the_lab(const std::string &text)
{
    for (const char *words : {"chassis status", "chassis log", "chassis up", "chassis directory"}) {
        if (text.find(words) != std::string::npos)
            return true;
    }
    return false;
}

} // namespace

TEST(PlaceHints, NameTheToolOfTheLabInTheLab)
{
    EXPECT_EQ(place_text(look_at::states, "5", surroundings::lab), "chassis status");
    EXPECT_EQ(place_text(look_at::log, "5", surroundings::lab), "chassis log 5");
    EXPECT_EQ(place_text(look_at::log_and_states, "SLOT", surroundings::lab), "chassis log SLOT, chassis status");
    EXPECT_EQ(place_in_brackets(look_at::cards, "5", surroundings::lab), " (chassis status)");
    EXPECT_NE(no_agent_hint(surroundings::lab).find("if the chassis is down, start it with: chassis up"),
              std::string::npos);
}

TEST(PlaceHints, NeverNameItOnACard)
{
    EXPECT_EQ(place_text(look_at::log, "5", surroundings::card), "journalctl -u bios-daemon on the card");
    EXPECT_EQ(place_text(look_at::states, "5", surroundings::card), "biosctl watch");
    EXPECT_EQ(place_text(look_at::cards, "5", surroundings::card), "biosctl show");
    for (const look_at place : PLACES)
        EXPECT_FALSE(names_the_lab(place_in_brackets(place, "5", surroundings::card)));
    for (const std::string &hint : {no_agent_hint(surroundings::card), no_locks_hint(surroundings::card),
                                    no_endpoint_hint(surroundings::card)}) {
        EXPECT_FALSE(names_the_lab(hint)) << hint;
        EXPECT_FALSE(hint.empty());
    }
}

TEST(PlaceHints, NowhereIsNoText)
{
    EXPECT_EQ(place_text(look_at::nowhere), "");
    EXPECT_EQ(place_in_brackets(look_at::nowhere), "");
}

TEST(PlaceHints, TheCardsOfThisBuildAreInTheLab)
{
    EXPECT_EQ(own_surroundings(), surroundings::lab);
}
