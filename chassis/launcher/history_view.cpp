#include "history_view.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <span>

#include "card_files.h"
#include "launcher_error.h"
#include "printable_text.h"
#include "utc_time.h"

namespace
{

using event_list = std::span<const chassis_history_event>;

// Many texts end with a newline, which is not worth showing.
std::string line_of(const chassis_history_event &event)
{
    const std::string text = event.text.substr(0, event.text.find_last_not_of('\n') + 1);
    return utc_microseconds(event.time_ns) + " [" + std::to_string(event.pid) + "] " + escaped_text(text) + "\n";
}

std::string lines_of(event_list shown, std::uint64_t overwritten)
{
    std::string text;
    if (overwritten > 0)
        text = "(" + std::to_string(overwritten) + " earlier events were overwritten)\n";
    for (const chassis_history_event &event : shown)
        text += line_of(event);
    return text;
}

std::string json_of(unsigned slot, event_list shown, std::uint64_t overwritten)
{
    nlohmann::json events = nlohmann::json::array();
    for (const chassis_history_event &event : shown)
        events.push_back({{"sequence", event.sequence},
                          {"time", utc_microseconds(event.time_ns)},
                          {"pid", event.pid},
                          {"event_type", event.event_type},
                          {"text", event.text}});
    const nlohmann::json history = {{"slot", slot}, {"overwritten", overwritten}, {"events", events}};
    // Pure ASCII; bytes that are no UTF-8 become replacement characters instead of an error.
    return history.dump(2, ' ', true, nlohmann::json::error_handler_t::replace) + "\n";
}

} // namespace

std::string escaped_text(const std::string &text)
{
    std::string escaped_line;
    for (const char character : text) {
        switch (character) {
        case '\\':
            escaped_line += "\\\\";
            continue;
        case '\n':
            escaped_line += "\\n";
            continue;
        case '\r':
            escaped_line += "\\r";
            continue;
        case '\t':
            escaped_line += "\\t";
            continue;
        default:
            break;
        }
        if (is_printable(character)) {
            escaped_line += character;
            continue;
        }
        char escaped[8];
        (void)std::snprintf(escaped, sizeof escaped, "\\x%02x",
                            static_cast<unsigned>(static_cast<unsigned char>(character)));
        escaped_line += escaped;
    }
    return escaped_line;
}

std::string history_text(unsigned slot, const std::vector<chassis_history_event> &events,
                         std::optional<unsigned> last, bool json)
{
    const std::uint64_t overwritten = events.empty() ? 0 : events.front().sequence - 1;
    const std::size_t shown = std::min<std::size_t>(last.value_or(UINT32_MAX), events.size());
    const event_list tail = event_list(events).last(shown);
    return json ? json_of(slot, tail, overwritten) : lines_of(tail, overwritten);
}

std::string show_history(unsigned slot, std::optional<unsigned> last, bool json)
{
    require_serving_slot(slot);
    std::vector<chassis_history_event> events;
    if (chassis_read_history(slot, events))
        return history_text(slot, events, last, json);
    const std::string card = "card " + std::to_string(slot) + ": ";
    if (errno == ENOENT)
        throw launcher_error(card + "has no history yet; it never ran the daemon");
    if (errno == EBADMSG)
        throw launcher_error(card + "its history is damaged; the daemon makes a new one with its next event");
    throw system_error_of(card + "its history cannot be read");
}
