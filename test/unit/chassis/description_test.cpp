// The description of a chassis: what it may say, and that everything else is refused with file, line and reason.
#include "description.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "card_families.h"
#include "launcher_error.h"
#include "rest_of.h"
#include "temporary_folder.h"

namespace
{

constexpr const char *CARD = "[[card]]\nslot = 3\nkind = \"linecard\"\ncard_id = 90\n"; // 4 lines
constexpr const char *FAMILY_CARD = "[[card]]\nslot = 3\nkind = \"linecard\"\n";        // 3 lines, no card id

class Description : public testing::Test
{
protected:
    chassis_description load(const std::string &text) const
    {
        std::ofstream(file()) << text;
        return load_description(file());
    }
    card_description only_card(const std::string &text) const
    {
        const chassis_description chassis = load(text);
        EXPECT_EQ(chassis.cards.size(), 1u);
        return chassis.cards.at(0);
    }
    // What is said of a wrong description, without the folder; empty when it is accepted.
    std::string refusal(const std::string &text) const
    {
        try {
            (void)load(text);
            return {};
        } catch (const launcher_error &failure) {
            const std::string what = failure.what();
            return what.starts_with(folder_.path("")) ? what.substr(folder_.path("").size()) : what;
        }
    }
    std::string file() const { return folder_.path("lab.toml"); }

private:
    temporary_folder folder_{"chassis-description"};
};

TEST_F(Description, OfACardHasDefaultsForWhatIsNotSaid)
{
    const chassis_description chassis = load(CARD);
    EXPECT_EQ(chassis.name, "");
    EXPECT_EQ(chassis.way, isolation::automatic);
    EXPECT_EQ(chassis.wait_limit_s, std::nullopt);
    const card_description card = only_card(CARD);
    EXPECT_EQ(card.slot, 3u);
    EXPECT_EQ(card.name, "card 3");
    EXPECT_EQ(card.card_id, 90u);
    EXPECT_EQ(card.sup_state, 0u);
    EXPECT_EQ(card.hw_change_bit, 0u);
    EXPECT_EQ(card.flash_bytes, 8u << 20);
    EXPECT_EQ(card.sector_bytes, 64u << 10);
    EXPECT_TRUE(card.serves);
    EXPECT_EQ(card.answers, answer_form::daemon);
    EXPECT_EQ(card.answer_rows, std::nullopt);
    EXPECT_EQ(card.answer_seed, std::nullopt);
}

TEST_F(Description, WaitLimitIsOfTheWholeChassis)
{
    EXPECT_EQ(load(std::string("[chassis]\nwait_limit_s = 5\n") + CARD).wait_limit_s, 5u);
    EXPECT_EQ(refusal(std::string("[chassis]\nwait_limit_s = 0\n") + CARD),
              "lab.toml:2: wait_limit_s is from 1 to 86400");
    EXPECT_EQ(refusal(std::string("[chassis]\nwait_limit_s = 1.5\n") + CARD),
              "lab.toml:2: wait_limit_s is a number");
    EXPECT_EQ(refusal(std::string(CARD) + "wait_limit_s = 5\n"), "lab.toml:5: unknown key wait_limit_s");
}

TEST_F(Description, RefusalShowsNoControlCharacter)
{
    EXPECT_EQ(refusal(std::string(CARD) + "\"\\u001B[2J\" = 1\n"), "lab.toml:5: unknown key ?[2J");
    EXPECT_EQ(refusal(std::string(CARD) + "\"\\u009B2J\" = 1\n"), "lab.toml:5: unknown key ??2J");
    const std::string of_a_value = refusal(std::string(CARD) + "serves = tr\rue\n");
    EXPECT_TRUE(of_a_value.starts_with("lab.toml:5: ")) << of_a_value;
    EXPECT_EQ(of_a_value.find('\r'), std::string::npos) << of_a_value;
}

TEST_F(Description, RefusesALetterThatNoKeyHas)
{
    EXPECT_TRUE(refusal(std::string(CARD) + "Gr\u00f6\u00dfe = 1\n").starts_with("lab.toml:5: "));
    EXPECT_TRUE(refusal(std::string(CARD) + "\u00e9 = 1\n").starts_with("lab.toml:5: "));
    EXPECT_TRUE(refusal(std::string(CARD) + "serves = true \ufefd\n").starts_with("lab.toml:5: "));
}

std::string repeated(const std::string &text, unsigned times)
{
    std::string all;
    while (times-- > 0)
        all += text;
    return all;
}

// What the library takes apart or frees by recursion does not end the process.
TEST_F(Description, RefusesWhatIsNestedTooDeeply)
{
    EXPECT_EQ(refusal("a" + repeated(".a", 150'000) + " = 1\n"), "lab.toml: has more than 4000 dots");
    EXPECT_EQ(refusal("[a" + repeated(".a", 150'000) + "]\n"), "lab.toml: has more than 4000 dots");
    EXPECT_EQ(refusal("a" + repeated(".a", 4'000) + " = 1\n"), "lab.toml:1: unknown key a");
    EXPECT_NE(refusal("x = " + repeated("[", 100'000)).find("nest"), std::string::npos);
    EXPECT_NE(refusal("x = " + repeated("{a=", 100'000)).find("nest"), std::string::npos);
    EXPECT_NE(refusal("x = " + repeated("[{a" + repeated(".a", 14) + "=", 280)).find("nest"), std::string::npos);
}

TEST_F(Description, RefusesAFileThatIsTooLarge)
{
    EXPECT_EQ(refusal(CARD + std::string((1 << 20) - std::string(CARD).size(), '\n')), "");
    EXPECT_EQ(refusal(CARD + std::string(1 << 20, '\n')), "lab.toml: is larger than 1048576 bytes");
    EXPECT_THROW((void)load_description("/dev/zero"), launcher_error);
    EXPECT_THROW((void)load_description("/tmp"), launcher_error);
}

TEST_F(Description, FamilyTellsTheCardIdAndTheChangeBit)
{
    card_description card = only_card(std::string(FAMILY_CARD) + "family = \"x86n-tarvik-a_cr\"\n");
    EXPECT_EQ(card.card_id, 282u);
    EXPECT_EQ(card.hw_change_bit, 0u);
    card = only_card(std::string(FAMILY_CARD) + "family = \"x86n-tarvik-c-pfcr-sandyb\"\n");
    EXPECT_EQ(card.card_id, 182u);
    EXPECT_EQ(card.hw_change_bit, 3u);
}

TEST_F(Description, ChangeBitIsFreeWhereTheFamilyDoesNotTellIt)
{
    const std::string with_bit = std::string(FAMILY_CARD) + "hw_change_bit = 7\n";
    EXPECT_EQ(only_card(with_bit + "family = \"x86n-o2\"\n").hw_change_bit, 7u);
    EXPECT_EQ(only_card(with_bit + "card_id = 182\n").hw_change_bit, 7u);
    EXPECT_EQ(refusal(with_bit + "family = \"x86n-tarvik-c\"\n"),
              "lab.toml:4: the family x86n-tarvik-c tells the hw_change_bit already");
}

TEST_F(Description, CardIsIdentifiedExactlyOnce)
{
    EXPECT_EQ(refusal(FAMILY_CARD), "lab.toml:1: card_id or family is missing");
    EXPECT_EQ(refusal(std::string(CARD) + "family = \"x86n\"\n"), "lab.toml:5: either card_id or family");
}

TEST_F(Description, UnknownFamilyIsRefused)
{
    EXPECT_EQ(refusal(std::string(FAMILY_CARD) + "family = \"x87\"\n"),
              "lab.toml:4: there is no family x87; show them with: chassis families");
    EXPECT_EQ(refusal(std::string(FAMILY_CARD) + "family = 17\n"), "lab.toml:4: family is a text in quotes");
}

TEST_F(Description, NamesEveryFormOfAnswers)
{
    const auto form_of = [&](const std::string &name) {
        return only_card(CARD + ("answers = \"" + name + "\"\n")).answers;
    };
    EXPECT_EQ(form_of("daemon"), answer_form::daemon);
    EXPECT_EQ(form_of("short"), answer_form::short_form);
    EXPECT_EQ(form_of("full"), answer_form::full);
    EXPECT_EQ(form_of("garbage"), answer_form::garbage);
    EXPECT_EQ(form_of("silent"), answer_form::silent);
    EXPECT_EQ(refusal(std::string(CARD) + "answers = \"loud\"\n"),
              "lab.toml:5: answers is one of \"daemon\", \"short\", \"full\", \"garbage\", \"silent\"");
    EXPECT_EQ(refusal(std::string(CARD) + "answers = true\n"), "lab.toml:5: answers is a text in quotes");
}

TEST_F(Description, CardThatDoesNotServeHasNoStandIn)
{
    EXPECT_EQ(refusal(std::string(CARD) + "serves = false\nanswers = \"short\"\n"),
              "lab.toml:6: a card with serves = false runs no stand-in either");
    EXPECT_FALSE(only_card(std::string(CARD) + "serves = false\n").serves);
}

TEST_F(Description, RowsAndSeedGoWithTheirForms)
{
    EXPECT_EQ(only_card(std::string(CARD) + "answers = \"full\"\nanswer_rows = 1000\n").answer_rows, 1000u);
    EXPECT_EQ(only_card(std::string(CARD) + "answers = \"garbage\"\nanswer_seed = 0\n").answer_seed, 0u);
    EXPECT_EQ(refusal(std::string(CARD) + "answers = \"short\"\nanswer_rows = 2\n"),
              "lab.toml:6: answer_rows goes with answers = \"full\"");
    EXPECT_EQ(refusal(std::string(CARD) + "answer_seed = 2\n"),
              "lab.toml:5: answer_seed goes with answers = \"garbage\"");
    for (const char *rows : {"0", "1001", "-1"})
        EXPECT_EQ(refusal(CARD + ("answers = \"full\"\nanswer_rows = " + std::string(rows) + "\n")),
                  "lab.toml:6: answer_rows is from 1 to 1000");
}

TEST_F(Description, BootLoaderAndKsImageAreFilesBesideIt)
{
    EXPECT_EQ(only_card(CARD).boot_loader, "");
    EXPECT_EQ(only_card(CARD).ks_image, "");
    const std::string folder = std::filesystem::path(file()).parent_path().string();
    for (const char *name : {"loader.sro", "ks.sro"})
        std::ofstream(folder + "/" + name) << name;
    const card_description card =
        only_card(std::string(CARD) + "boot_loader = \"loader.sro\"\nks_image = \"ks.sro\"\n");
    EXPECT_EQ(card.boot_loader, folder + "/loader.sro");
    EXPECT_EQ(card.ks_image, folder + "/ks.sro");
    for (const std::string key : {"boot_loader", "ks_image"}) {
        EXPECT_NE(refusal(CARD + key + " = \"absent.sro\"\n").find("lab.toml:5: " + key + ": "), std::string::npos);
        EXPECT_EQ(refusal(CARD + key + " = 1\n"), "lab.toml:5: " + key + " is a text in quotes");
    }
}

TEST_F(Description, WhatIsUnknownOrTwiceThereIsRefused)
{
    EXPECT_EQ(refusal(std::string(CARD) + "answer = \"short\"\n"), "lab.toml:5: unknown key answer");
    EXPECT_EQ(refusal(std::string(CARD) + "[rack]\n"), "lab.toml:5: unknown key rack");
    EXPECT_EQ(refusal(std::string(CARD) + CARD), "lab.toml:6: slot 3 has a card already");
    EXPECT_EQ(refusal("[chassis]\n"), "lab.toml: has no [[card]]");
}

TEST_F(Description, ThereIsOneActiveSupervisorAtMost)
{
    const std::string active = "[[card]]\ncard_id = 90\nkind = \"supervisor\"\nrole = \"active\"\n";
    EXPECT_EQ(refusal(active + "slot = 1\n" + active + "slot = 2\n"),
              "lab.toml:9: slot 1 is the active supervisor already");
    EXPECT_EQ(refusal(std::string(CARD) + "role = \"active\"\n"),
              "lab.toml:5: only a supervisor has the role active");
}

TEST_F(Description, OfTheDemosHasEveryFamilyInSlots1To16)
{
    std::ifstream demo(FAMILIES_DEMO);
    std::string text = rest_of(demo);
    ASSERT_NE(text, "");
    // The images are made by the demo's script; without them all the rest is as it stands there.
    std::string without_files;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
        const std::string line = text.substr(begin, end - begin);
        if (!line.starts_with("flash_image") && !line.starts_with("image_tree"))
            without_files += line;
        begin = end;
    }
    const chassis_description chassis = load(without_files);
    ASSERT_EQ(chassis.cards.size(), 16u);
    for (unsigned slot = 1; slot <= 16; ++slot)
        EXPECT_EQ(chassis.cards[slot - 1].slot, slot);
    EXPECT_EQ(chassis.cards[0].sup_state, 1u);
    EXPECT_EQ(chassis.cards[1].sup_state, 2u);
    for (std::size_t i = 0; i < CARD_FAMILIES.size(); ++i) {
        const card_description &card = chassis.cards[i + 1];
        EXPECT_EQ(card.card_id, CARD_FAMILIES[i].card_id) << card.name;
        EXPECT_EQ(card.hw_change_bit, CARD_FAMILIES[i].hw_change_bit.value_or(0)) << card.name;
    }
}

} // namespace
