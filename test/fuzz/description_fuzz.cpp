// Descriptions of a chassis. A description is refused with one line for the person at the terminal, or what is read
// from it keeps the rules.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "description.h"
#include "flash_geometry.h"
#include "fuzz_input.h"
#include "launcher_error.h"
#include "open_descriptor_check.h"
#include "pfm.h"
#include "scratch_folder.h"

namespace
{

constexpr std::size_t IMAGE_BYTES = 3000;

// A folder with what a description can name.
class description_folder
{
public:
    description_folder()
    {
        std::filesystem::create_directories(folder_.path() + "/images/vesk");
        std::ofstream(folder_.path() + "/old.bin") << std::string(IMAGE_BYTES, 'b');
    }
    std::string file() const { return folder_.path() + "/lab.toml"; }

private:
    scratch_folder folder_;
};

void expect_card(const card_description &card)
{
    require(card.slot >= 1 && card.slot <= PFM_MODULE_COUNT, "a card has a slot");
    require(card.card_id >= 1 && card.card_id <= 0xffff, "a card has a card id");
    require(card.kind >= 1 && card.kind <= 0xff && card.sup_state <= 2, "a card has a kind and a role");
    require(flash_geometry_valid({.size_bytes = card.flash_bytes, .sector_bytes = card.sector_bytes}),
            "a flash is made of whole sectors");
    for (const std::string &image : {card.flash_image, card.alternate_image})
        require(image.empty() || std::filesystem::file_size(image) <= card.flash_bytes, "an image fits its flash");
    for (const char c : card.name)
        require(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f, "a name can be printed");
}

void expect_chassis(const chassis_description &chassis)
{
    std::set<unsigned> slots;
    unsigned active = 0;
    require(!chassis.cards.empty(), "a chassis has cards");
    for (const card_description &card : chassis.cards) {
        expect_card(card);
        require(slots.insert(card.slot).second, "a slot has one card");
        active += card.sup_state == 1 ? 1 : 0;
    }
    require(active <= 1, "one supervisor is active");
}

void expect_refusal(const std::string &text, const std::string &file)
{
    require(text.starts_with(file + ":"), "a refusal names its file");
    for (const char c : text)
        require(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f, "a refusal can be printed");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const description_folder folder;
    const open_descriptor_check descriptors;
    std::ofstream(folder.file(), std::ios::binary)
        .write(reinterpret_cast<const char *>(data), static_cast<std::streamsize>(size));
    try {
        expect_chassis(load_description(folder.file()));
    } catch (const launcher_error &refusal) {
        expect_refusal(refusal.what(), folder.file());
    }
    return 0;
}
