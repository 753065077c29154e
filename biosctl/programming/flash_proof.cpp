#include "flash_proof.h"

#include "agent_result_text.h"
#include "inventory.h"
#include "lock_holders.h"
#include "result_text.h"

namespace
{

constexpr unsigned READ_ATTEMPTS = 3; // a part may misread a bit; digests do not become equal by chance

std::string no_agent_text(unsigned slot)
{
    return "the agent of " + slot_text(slot) + " does not answer";
}

flash_proof look_once(const program_subject &subject, unsigned instance, const told_image &wanted)
{
    const flash_digest_reply found =
        ask_for_digest(node_of_module(subject.programmed_module), instance, wanted.size_bytes);
    if (!found.digest)
        return {.finding = flash_finding::unknown,
                .why = "the flash was not read: " + (found.status != 0 ? agent_status_text(found.status)
                                                                       : no_agent_text(subject.programmed_module))};
    if (found.digest->marked || found.digest->has_writer)
        return {.finding = flash_finding::half_written};
    const bool holds = found.digest->digest == wanted.digest && found.digest->rest_is_erased;
    return {.finding = holds ? flash_finding::holds_image : flash_finding::holds_other};
}

} // namespace

bool is_unpacked(const program_subject &subject)
{
    return slot_is_active(subject.serving_slot) &&
           (subject.programmed_module == subject.serving_slot || slot_is_standby(subject.programmed_module));
}

bool is_copied(const program_subject &subject)
{
    return is_unpacked(subject) && subject.programmed_module != subject.serving_slot;
}

unsigned slot_with_image(const program_subject &subject)
{
    return is_unpacked(subject) ? subject.serving_slot : subject.programmed_module;
}

image_reply find_asked_image(const program_subject &subject, const programming_request &request)
{
    const auto unpacks = slot_that_unpacks_for(subject.programmed_module, subject.serving_slot);
    image_question question{
        .card_id = card_id_of(subject.programmed_module), .place = image_place::ready, .with_signature = true};
    if (unpacks) {
        question.place = request.image ? image_place::uri : image_place::tree;
        question.uri = request.image.value_or("");
    }
    const unsigned slot = unpacks.value_or(subject.programmed_module);
    image_reply reply = ask_for_image(node_of_module(slot), question);
    if (!reply.image)
        reply.why_not = reply.status != 0 ? agent_status_text(reply.status) : no_agent_text(slot);
    return reply;
}

flash_proof prove(const program_subject &subject, unsigned instance, const told_image &wanted,
                  const placed_order *order)
{
    flash_proof proof;
    for (unsigned attempt = 0; attempt < READ_ATTEMPTS; ++attempt) {
        proof = look_once(subject, instance, wanted);
        if (proof.finding == flash_finding::holds_image || proof.finding == flash_finding::half_written)
            break;
    }
    if (order == nullptr)
        return proof;
    const auto record = order->record();
    proof.is_begun = !record || record->writer != 0;
    if (proof.finding == flash_finding::holds_image && (!record || record->state != flash_order_state::verified)) {
        proof.finding = flash_finding::not_recorded;
        proof.why = "the card has not recorded that the order was carried out; the flash holds the image";
    }
    return proof;
}
