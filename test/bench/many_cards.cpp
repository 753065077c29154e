#include "many_cards.h"

namespace
{

constexpr unsigned SUPERVISORS = 2;
constexpr unsigned SUPERVISOR_CARD_ID = 90;
constexpr unsigned LINE_CARD_ID = 106;

card_plan plan_of(unsigned slot, bool is_daemon)
{
    const test_image *in_tree = is_daemon ? &new_image() : nullptr;
    const char *answers = is_daemon ? "daemon" : "full";
    if (slot > SUPERVISORS)
        return {.slot = slot,
                .role = "none",
                .card_id = LINE_CARD_ID,
                .in_tree = in_tree,
                .kind = "linecard",
                .answers = answers};
    return {.slot = slot,
            .role = slot == 1 ? "active" : "standby",
            .card_id = SUPERVISOR_CARD_ID,
            .in_tree = in_tree,
            .answers = answers};
}

} // namespace

std::unique_ptr<bench_chassis> chassis_of(unsigned cards, unsigned daemons)
{
    auto all = std::make_unique<bench_chassis>();
    for (unsigned slot = 1; slot <= cards; ++slot)
        all->insert(plan_of(slot, slot <= daemons));
    all->up();
    return all;
}
