// One chassis with a card of every family, as its description for demonstrations has it: each card tells versions
// of its own family, and the operator's view of them all.
#include <filesystem>

#include <nlohmann/json.hpp>

#include "chassis_fixture.h"

namespace
{

namespace files = std::filesystem;

constexpr unsigned FLASH_KIB = 1024; // of the description
constexpr unsigned FAMILIES = 15;
constexpr unsigned FIRST_SLOT = 1;
constexpr unsigned LAST_SLOT = 16;
constexpr int DONE = 0;
constexpr int FAILED = 1;

// The first family has both supervisors, each other one a line card.
unsigned family_of(unsigned slot)
{
    return slot <= 2 ? 0 : slot - 2;
}

// Each family has a major version of its own, so that one taken for another is seen.
const test_image &old_of(unsigned family)
{
    return image(std::to_string(family + 1) + ".1", FLASH_KIB);
}

const test_image &new_of(unsigned family)
{
    return image(std::to_string(family + 1) + ".5", FLASH_KIB);
}

// As the command line tells it: without the blanks in front.
std::string told(const test_image &image)
{
    return image.version.substr(image.version.find('v'));
}

class Families : public chassis_test
{
protected:
    // up_to_date: the flashes of all cards but slot 1's family hold what ships for them.
    void start(bool up_to_date)
    {
        const finished_program listed = chassis({"families", "--json"});
        ASSERT_EQ(listed.exit_code, DONE) << listed.errors;
        const nlohmann::json families = nlohmann::json::parse(listed.output);
        ASSERT_EQ(families.size(), FAMILIES);
        files::create_directory(workspace() + "/old");
        std::vector<shipped_image> shipped;
        for (unsigned family = 0; family < FAMILIES; ++family) {
            const nlohmann::json &each = families[family];
            const test_image &in_flash = up_to_date && family != 0 ? new_of(family) : old_of(family);
            files::copy_file(in_flash.path,
                             workspace() + "/old/bios-" + each["family"].get<std::string>() + ".bin");
            shipped.push_back({each["image"], &new_of(family)});
        }
        make_image_tree(workspace() + "/image_tree", shipped);
        files::copy_file(std::string(CHASSIS_DEMO_FOLDER) + "/families.toml", workspace() + "/families.toml");
        std::vector<unsigned> slots;
        for (unsigned slot = FIRST_SLOT; slot <= LAST_SLOT; ++slot)
            slots.push_back(slot);
        up_from(workspace() + "/families.toml", slots);
    }
    nlohmann::json shown(const std::vector<std::string> &words) const
    {
        const finished_program finished = biosctl(words);
        EXPECT_EQ(finished.exit_code, DONE) << finished.errors;
        return nlohmann::json::parse(finished.output);
    }
    static void expect_card(const nlohmann::json &card, unsigned slot, const test_image &flash,
                            const test_image &running, const std::string &verdict)
    {
        SCOPED_TRACE("slot " + std::to_string(slot) + ": " + card.dump());
        EXPECT_EQ(card.at("module"), slot);
        EXPECT_TRUE(card.at("reasons").empty());
        ASSERT_EQ(card.at("flashes").size(), 1U);
        const nlohmann::json &only = card["flashes"][0];
        EXPECT_EQ(only.at("label"), "primary");
        EXPECT_EQ(only.at("source"), told(new_of(family_of(slot))));
        EXPECT_EQ(only.at("flash"), told(flash));
        EXPECT_EQ(only.at("running"), told(running));
        EXPECT_EQ(only.at("verdict"), verdict);
    }
};

} // namespace

TEST_F(Families, EachCardShowsTheVersionsOfItsFamily)
{
    start(false);
    const nlohmann::json report = shown({"show", "--json"});
    EXPECT_EQ(report.at("serving_slot"), 1);
    EXPECT_EQ(report.at("all_in_step"), false);
    ASSERT_EQ(report.at("cards").size(), LAST_SLOT);
    for (unsigned slot = FIRST_SLOT; slot <= LAST_SLOT; ++slot) {
        const test_image &old = old_of(family_of(slot));
        expect_card(report["cards"][slot - 1], slot, old, old, "update available");
    }
    EXPECT_EQ(biosctl({"audit"}).exit_code, FAILED);
    for (unsigned slot = FIRST_SLOT; slot <= LAST_SLOT; ++slot)
        EXPECT_EQ(flash_of(slot) == old_of(family_of(slot)).bytes, true) << "slot " << slot << " was written to";
}

TEST_F(Families, AuditSucceedsWhenTheLastCardsAreProgrammedAndRestarted)
{
    start(true);
    EXPECT_EQ(biosctl({"audit"}).exit_code, FAILED);
    EXPECT_EQ(biosctl({"audit", "1"}).exit_code, FAILED);
    EXPECT_EQ(biosctl({"audit", "3"}).exit_code, DONE);

    for (const unsigned slot : {1U, 2U}) {
        const std::string name = std::to_string(slot);
        const finished_program programmed = biosctl({"program", name});
        ASSERT_EQ(programmed.exit_code, DONE) << programmed.errors;
        EXPECT_EQ(flash_of(slot) == new_of(0).bytes, true);
        const nlohmann::json pending = shown({"show", name, "--json"});
        ASSERT_EQ(pending.at("cards").size(), 1U);
        expect_card(pending["cards"][0], slot, new_of(0), old_of(0), "reboot pending");
        EXPECT_EQ(biosctl({"audit", name}).exit_code, FAILED);

        ASSERT_EQ(chassis({"restart", name}).exit_code, DONE);
        const nlohmann::json restarted = shown({"show", name, "--json"});
        ASSERT_EQ(restarted.at("cards").size(), 1U);
        expect_card(restarted["cards"][0], slot, new_of(0), new_of(0), "in step");
        EXPECT_EQ(biosctl({"audit", name}).exit_code, DONE);
    }

    const finished_program audit = biosctl({"audit", "--json"});
    EXPECT_EQ(audit.exit_code, DONE) << audit.output;
    const nlohmann::json report = nlohmann::json::parse(audit.output);
    EXPECT_EQ(report.at("all_in_step"), true);
    ASSERT_EQ(report.at("cards").size(), LAST_SLOT);
    for (unsigned slot = FIRST_SLOT; slot <= LAST_SLOT; ++slot)
        expect_card(report["cards"][slot - 1], slot, new_of(family_of(slot)), new_of(family_of(slot)), "in step");
}
