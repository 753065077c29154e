#include "agent_result_text.h"

#include "agent_messages.h"
#include "result_text.h"

std::string agent_status_text(std::uint32_t status)
{
    switch (status) {
    case AGENT_ERR_REQUEST:
        return "the agent does not know such a request";
    case AGENT_ERR_FLASH:
        return "the card has no such flash";
    case AGENT_ERR_UNREADABLE:
        return "it cannot be read on the card";
    case AGENT_ERR_BUSY:
        return "the agent has too much to do at once";
    case AGENT_ERR_NO_SPACE:
        return "no space left on the card's disk";
    case AGENT_ERR_LOCK_AGENT:
        return "another card's agent serves this lock";
    case AGENT_ERR_IMAGE_CARD:
        return "no BIOS is known for this type of card";
    case AGENT_ERR_IMAGE_URI:
        return "the URI names no file that the card may unpack";
    case AGENT_ERR_IMAGE_FILE:
        return "there is no such regular file on the card";
    case AGENT_ERR_IMAGE_MEMBER:
        return "the file is no system image, or holds no BIOS for this type of card";
    case AGENT_ERR_IMAGE_PACKED:
        return "the image was not compressed by gzip";
    case AGENT_ERR_IMAGE_CUT:
        return "the image is cut short or damaged";
    case AGENT_ERR_IMAGE_SIZE:
        return "the image is larger than the flash";
    case AGENT_ERR_IMAGE_SPACE:
        return "no space left on the card to unpack the image";
    case AGENT_ERR_IMAGE_EMPTY:
        return "the image is empty";
    case AGENT_ERR_NOT_SIGNED:
        return "the image is not signed";
    case AGENT_ERR_KEY_UNKNOWN:
        return "the card does not have the key that the image was signed with";
    case AGENT_ERR_KEY_REVOKED:
        return "the key that the image was signed with was revoked";
    case AGENT_ERR_SIGNATURE:
        return "the image's signature is wrong";
    case AGENT_ERR_MANIFEST:
        return "the image's manifest is damaged";
    case AGENT_ERR_KEYS:
        return "the card's keys cannot be read, or other users may write to them";
    case AGENT_ERR_NO_ORDER:
        return "nothing is ordered for this flash";
    case AGENT_ERR_ORDER_LIVE:
        return "somebody else has ordered another programming of this flash";
    case AGENT_ERR_PROGRAMMING:
        return "a programming is under way on the card";
    case AGENT_ERR_NO_ROW:
        return "the daemon programs other flashes of the card only";
    default:
        return "status " + code_text(status);
    }
}

std::string agent_status_step(std::uint32_t status)
{
    switch (status) {
    case AGENT_ERR_REQUEST:
        return "check that biosctl and the agents are of the same version";
    case AGENT_ERR_FLASH:
        return "check --type and the card's flashes";
    case AGENT_ERR_NO_ROW:
        return "leave --type away to program the primary flash";
    case AGENT_ERR_NO_SPACE:
        return "make room on the card's disk, then try again";
    default:
        return "look at the card's agent and its disk";
    }
}
