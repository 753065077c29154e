// A daemon for tests of biosctl that serves every request as a healthy one would, from versions in memory.
#pragma once

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "biosctl_chassis.h"
#include "rest_of.h"

// What a scripted card holds and does.
struct healthy_card {
    std::map<unsigned, std::string> flashes = {};   // version in the flash by module, of those that it can tell of
    std::string running = {};                       // of every module
    std::string shipped = {};                       // in the card's own image tree, for its own daemon; empty: none
    std::string brought = {};                       // that a programming brings; empty: as shipped
    std::map<unsigned, std::uint32_t> results = {}; // of programmings that fail, by module
    unsigned endless = 0;                           // module whose programming stays at 50 percent
    std::string loader_file = {};                   // empty: none
    std::uint32_t install_result = 0;
    std::string journal = {}; // file that gets a line for each request that changes something, or unpacks
};

class healthy_daemon
{
public:
    healthy_daemon(daemon_side &side, const healthy_card &card) : side_(side), card_(card) {}

    [[noreturn]] void serve()
    {
        for (;;) {
            std::vector<std::uint8_t> body;
            switch (side_.receive_any(body)) {
            case MTS_OPC_BIOS_GET_MOD_BIOS_VERSION:
                tell_versions(body.at(3));
                break;
            case MTS_OPC_BIOS_GET_SRC_BIOS_VERSION:
                tell_shipped();
                break;
            case MTS_OPC_BIOS_PROGRAMMING_START:
                program(body.at(3));
                break;
            case MTS_OPC_BIOS_MODULE_LOCK:
                body.resize(12);
                side_.answer(0, body.data(), 12);
                break;
            case MTS_OPC_BIOS_INSTALL_LOADER:
                note("install " + std::string(reinterpret_cast<const char *>(body.data())) + " " +
                     std::to_string(body.at(203)));
                side_.answer(card_.install_result);
                break;
            case MTS_OPC_BIOS_GET_LOADER_IMAGE:
            case MTS_OPC_BIOS_GET_KS_IMAGE:
                send_file(body);
                break;
            default:
                side_.reject();
            }
        }
    }

private:
    void note(const std::string &line) const
    {
        if (!card_.journal.empty())
            std::ofstream(card_.journal, std::ios::app) << line << std::endl;
    }
    static void put_text(std::vector<std::uint8_t> &to, std::size_t offset, const std::string &text)
    {
        std::copy(text.begin(), text.end(), to.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    void answer(const std::vector<std::uint8_t> &payload)
    {
        side_.answer(0, payload.data(), static_cast<std::uint32_t>(payload.size()));
    }
    void tell_versions(std::uint8_t module)
    {
        const auto flash = card_.flashes.find(module);
        if (flash == card_.flashes.end())
            return answer({0xff, 0xff, 0xff, 0xff, 0, 0, 0, module, 0, 0, 0, 0, 0, 0, 0, 0});
        std::vector<std::uint8_t> payload(16 + 392);
        payload[7] = module;
        payload[11] = 1;
        put_text(payload, 16 + 8, "swid-bios");
        put_text(payload, 16 + 136, flash->second);
        put_text(payload, 16 + 264, card_.running);
        answer(payload);
    }
    void tell_shipped()
    {
        note("unpack");
        std::vector<std::uint8_t> payload(8 + 268);
        payload[7] = card_.shipped.empty() ? 0 : 1;
        put_text(payload, 8 + 8, "swid-bios");
        put_text(payload, 8 + 136, card_.shipped);
        payload[8 + 267] = 19;
        answer(payload);
    }
    void program(std::uint8_t module)
    {
        note("program " + std::to_string(module));
        side_.answer(0);
        if (module == card_.endless)
            return side_.progress(2, 50);
        const auto result = card_.results.find(module);
        if (result != card_.results.end()) {
            side_.progress(1, 10);
            side_.notify(result->second, module);
            return;
        }
        card_.flashes[module] = card_.brought.empty() ? card_.shipped : card_.brought;
        side_.card_holds(module, card_.flashes[module]);
        side_.progress(3, 100);
        side_.notify(0, module);
    }
    void send_file(const std::vector<std::uint8_t> &body)
    {
        const std::uint32_t length = std::uint32_t{body.at(0)} << 24 | std::uint32_t{body.at(1)} << 16 |
                                     std::uint32_t{body.at(2)} << 8 | body.at(3);
        note("file " + std::to_string(length));
        if (card_.loader_file.empty())
            return answer({0, 0, 0, 2, 0, 0, 0, 0}); // no such file
        if (length > card_.loader_file.size())
            return answer({0, 0, 0, 5, 0, 0, 0, 0});
        std::vector<std::uint8_t> payload(8);
        std::copy_n(body.begin(), 4, payload.begin() + 4);
        payload.insert(payload.end(), card_.loader_file.begin(),
                       card_.loader_file.begin() + static_cast<std::ptrdiff_t>(length));
        answer(payload);
    }

    daemon_side &side_;
    healthy_card card_;
};

inline scripted_daemon::script_function healthy(const healthy_card &card)
{
    return [card](daemon_side &side) { healthy_daemon(side, card).serve(); };
}

inline std::string text_of_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return rest_of(file);
}
