// The card families whose BIOS the daemon knows, by the name of their image: what to give a card so that it is one
// of a family. Each has several hardware card ids; the one here is enough.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct card_family {
    const char *name;
    std::uint32_t card_id;
    std::optional<std::uint32_t> hw_change_bit = std::nullopt; // where the card id alone does not tell the family
};

// In the order of the daemon's own table.
inline constexpr std::array<card_family, 15> CARD_FAMILIES = {{
    {.name = "x86n", .card_id = 90},
    {.name = "x86n-o2", .card_id = 106},
    {.name = "x86n-o2-mod", .card_id = 109},
    {.name = "x86n-o2-qel", .card_id = 107},
    {.name = "x86n-tarvik-a", .card_id = 206}, // 183 too, but such a supervisor takes every request for its own
    {.name = "x86n-tarvik-a_cr", .card_id = 282},
    {.name = "x86n-tarvik-b", .card_id = 222},
    {.name = "x86n-tarvik-c", .card_id = 182, .hw_change_bit = 0},
    {.name = "x86n-tarvik-c-pfcr-sandyb", .card_id = 182, .hw_change_bit = 3},
    {.name = "x86n-tarvik-c-pfcr-ivb", .card_id = 182, .hw_change_bit = 4},
    {.name = "x86n-tarvik-d", .card_id = 271},
    {.name = "x86n-tarvik-e", .card_id = 272},
    {.name = "x86n-tarvik-f", .card_id = 314},
    {.name = "x86n-tarvik-g", .card_id = 316},
    {.name = "x86n-tarvik-h", .card_id = 318},
}};

// Null when there is no such family.
const card_family *find_card_family(std::string_view name);

// Name of the family's image in vesk/bin of an image tree.
std::string image_file_of(const card_family &family);
