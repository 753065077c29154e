#include "flash_writer.h"

#include "agents.h"
#include "inventory.h"
#include "lock_holders.h"
#include "result_text.h"

std::optional<flash_writer> find_flash_writer(unsigned slot, unsigned instance)
{
    const auto card = ask_for_card(node_of_module(slot));
    if (!card)
        return std::nullopt;
    for (const card_flash &flash : card->flashes) {
        if (flash.instance != instance || !flash.activity.has_writer)
            continue;
        flash_writer writer{.slot = slot};
        if (flash.activity.last) {
            writer.pid = flash.activity.last->pid;
            writer.since = flash.activity.last->since;
        }
        return writer;
    }
    return std::nullopt;
}

std::optional<flash_writer> find_programming_process(unsigned slot)
{
    const auto card = ask_for_card(node_of_module(slot));
    if (!card || card->programming_pid == 0)
        return std::nullopt;
    return flash_writer{.slot = slot, .pid = card->programming_pid};
}

std::string writer_text(const flash_writer &writer)
{
    const std::string of_slot = " of slot " + std::to_string(writer.slot);
    if (writer.pid == 0)
        return "a process" + of_slot + ", which writes its flash";
    const std::string process = "process " + std::to_string(writer.pid) + of_slot;
    if (writer.since.empty())
        return process + ", which carries out a programming";
    return process + ", which has written its flash since " + writer.since;
}
