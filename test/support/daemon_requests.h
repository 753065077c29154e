// Requests to the daemon, byte by byte, and the platform on which the whole daemon is run.
#pragma once

#include <algorithm>
#include <string_view>

#include "daemon_process.h"
#include "daemon_test.h"

// Body of a programming request: module, no image named (def), URI and type.
struct programming_request {
    std::uint32_t module = 9;
    std::uint32_t no_image = 1;
    std::string_view uri = "";
    std::uint8_t type = 0;

    bytes body() const
    {
        bytes content(529);
        for (int i = 0; i < 4; ++i) {
            content[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(module >> (24 - 8 * i));
            content[static_cast<std::size_t>(4 + i)] = static_cast<std::uint8_t>(no_image >> (24 - 8 * i));
        }
        std::copy(uri.begin(), uri.end(), content.begin() + 12);
        content[528] = type;
        return content;
    }
    bytes payload() const { return request(body()); }
};

// The supervisor in slot 5 is active and has card id 271, slot 9 holds a line card. Nothing is known of the card
// but what the daemon asks for.
class whole_daemon_test : public daemon_test
{
protected:
    whole_daemon_test()
    {
        platform().insert_module(5, 1, 271);
        platform().insert_module(9, 2, 271);
        platform().module_info_card_id = 271;
        platform().version_texts["get_ibexpeak_tarvik_a_bios_flash_version, 0"] = "v3.5.0(09/17/12)";
    }

    ~whole_daemon_test() override
    {
        EXPECT_THAT(platform().record(), testing::Not(testing::Contains(testing::HasSubstr(" leak"))));
    }

    // Runs the daemon to the end of the script; what it printed.
    std::string run_to_the_end()
    {
        const daemon_end end = run_daemon();
        EXPECT_TRUE(end.script_ended) << "exit status " << end.exit_status << end.killed_by << "\n" << end.output;
        return end.output;
    }
    static void start_request(const programming_request &wanted = {}, mts_address_t source = {0x202, 94})
    {
        platform().deliver(4791, wanted.payload(), source);
    }
    static void fork_gives(pid_t pid) { platform().next_result("fork", {pid, 0}); }
    static lines answers() { return platform().calls("cmi_response"); }
    static lines sent() { return platform().calls("mts_send"); }
};
