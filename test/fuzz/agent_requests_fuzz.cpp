// What an agent takes from others: requests about its card, its files and the orders of its flashes, and messages
// about module locks, of senders who come and go. Whatever comes, only what was announced is there under a name, an
// order can be read, and nothing is kept for the dead.
//
//   any number of steps: kind (1 byte) and, by kind % 8
//   0 to 3  a request: sender, opcode, length (2 bytes), body
//   4       a message about a lock: sender, opcode, length, body
//   5       time passes: milliseconds (2 bytes)
//   6       another process has a sender's address, or none: sender, whether one has (1 byte each)
//   7       the agent is killed and started again
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <set>

#include "agent_requests.h"
#include "chassis_dir.h"
#include "file_requests.h"
#include "flash_order.h"
#include "fuzz_input.h"
#include "lock_service.h"
#include "nor_file_driver.h"
#include "nor_file_layout.h"
#include "open_descriptor_check.h"
#include "scratch_folder.h"

namespace
{

namespace fs = std::filesystem;

constexpr unsigned SLOT = 3;
constexpr std::uint32_t OWN_NODE = 0x0301;
constexpr std::uint32_t SENDERS = 3; // processes of the own card, the last one an agent of another
constexpr std::int64_t LONG_US = 60'000'000;
constexpr flash_geometry FLASH = {.size_bytes = 16 << 10, .sector_bytes = 4 << 10, .page_bytes = 256};

// The chassis of all inputs: a card with a flash, which nobody writes.
const std::string &chassis()
{
    static const scratch_folder folder;
    static const bool made = [] {
        fs::create_directories(folder.path() + "/inventory/3");
        std::ofstream(folder.path() + "/inventory/3/kind") << "1\n";
        require(chassis_attach(folder.path(), SLOT) == 0, "the chassis is there");
        require(nor_file_create(SLOT, 0, FLASH, "") == 0, "the flash is there");
        return true;
    }();
    require(made, "the chassis is made");
    return folder.path();
}

fs::path slot_folder()
{
    return chassis() + "/slots/3";
}

fs::path images()
{
    return slot_folder() / "images";
}

fs::path orders()
{
    return slot_folder() / FLASH_ORDERS_FOLDER;
}

mts_address_t sender_of(std::uint8_t byte)
{
    const std::uint32_t number = byte % SENDERS;
    return number + 1 == SENDERS ? mts_address_t{0x0101, AGENT_SAP} : mts_address_t{OWN_NODE, 0x10000 + number};
}

class fuzzed_agent
{
public:
    fuzzed_agent()
    {
        processes_.fill(1);
        start();
    }
    void start()
    {
        transfers_.reset();
        locks_.reset();
        remove_partial_files();
        lives_ += 1;
        transfers_.emplace(transfer_surroundings{.first_id = lives_ << 32,
                                                 .now_us = [this] { return now_us_; },
                                                 .peer_at = [this](mts_address_t at) { return process_at(at); }});
        locks_ = std::make_unique<lock_service>(lock_surroundings_now(), kept_,
                                                std::vector<chassis_module_lock_holder>());
    }

    void take_request(fuzz_input &input)
    {
        const mts_address_t from = sender_of(input.byte());
        const std::uint32_t opcode = AGENT_OPC_GET_CHASSIS - 1 + input.byte() % 71U; // up to 4879
        const auto body = input.bytes(input.word());
        const auto given = is_about_files(opcode)
                               ? std::optional(answer_about_files(*transfers_, from, opcode, body))
                               : answer_to(opcode, body, from);
        if (given)
            require(given->status() == AGENT_OK || given->payload().empty(), "a refusal has no payload");
    }
    void take_lock_message(fuzz_input &input)
    {
        const mts_address_t from = sender_of(input.byte());
        const std::uint32_t opcode = AGENT_OPC_LOCK - 1 + input.byte() % 6U;
        const auto body = input.bytes(input.word());
        locks_->tick(); // as the agent does before each message
        locks_->take(from, opcode, body.data(), body.size());
    }
    void pass(std::int64_t us)
    {
        now_us_ += us;
        transfers_->tick();
        locks_->tick();
    }
    void replace_process(fuzz_input &input)
    {
        const std::uint8_t which = input.byte() % SENDERS;
        const bool is_there = input.byte() % 2 != 0;
        processes_[which] = is_there ? ++last_process_ : 0;
    }

    void expect_sound() const
    {
        require(transfers_->wait_limit_us() <= SENDER_LOOK_US, "the next look is soon");
        std::optional<std::uint16_t> before;
        for (const chassis_module_lock_holder &holder : locks_->holders()) {
            require(!before || holder.node_id > *before, "a lock has one holder");
            before = holder.node_id;
        }
    }
    void expect_nothing_kept_for_the_dead()
    {
        processes_.fill(0);
        pass(LONG_US);
        pass(LONG_US);
        require(transfers_->wait_limit_us() == -1, "a transfer ends with its sender");
        require(locks_->holders().empty(), "a lock ends with its holder");
    }

private:
    std::optional<datagram_peer> process_at(mts_address_t at) const
    {
        for (std::uint8_t number = 0; number < SENDERS; ++number) {
            const mts_address_t address = sender_of(number);
            if (address.node == at.node && address.sap == at.sap && processes_[number] != 0)
                return datagram_peer{{processes_[number]}};
        }
        return std::nullopt;
    }
    lock_surroundings lock_surroundings_now()
    {
        return {.own_node = OWN_NODE,
                .first_id = lives_ << 32,
                .now_us = [this] { return now_us_; },
                .send = [](mts_address_t, std::uint32_t, const void *, std::size_t) {},
                .has_agent =
                    [this](std::uint32_t node) {
                        return node == OWN_NODE || process_at({node, AGENT_SAP});
                    },
                .node_of_module =
                    [](std::uint16_t node_id) {
                        const std::uint32_t slot = node_id / 256U;
                        return slot == 1 ? 0x0101U : slot == SLOT ? OWN_NODE : 0U;
                    },
                .is_wanted = [this](std::uint16_t) { return processes_[0] != 0; },
                .remember = [](const chassis_module_lock_holder &) {},
                .forget = [](std::uint16_t) {},
                .is_held_off = [](std::uint16_t node_id) { return node_id % 2 != 0; },
                .keep = [this](const granted_locks &granted) { kept_ = granted; }};
    }

    std::int64_t now_us_ = 1'000'000'000;
    std::uint64_t lives_ = 0;
    std::array<std::uint64_t, SENDERS> processes_{};
    std::uint64_t last_process_ = 1;
    granted_locks kept_;
    std::optional<file_transfers> transfers_;
    std::unique_ptr<lock_service> locks_;
};

sha256_digest digest_of(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    sha256 sum;
    sum.add(content.data(), content.size());
    return sum.digest();
}

// What lies in the folder is what was announced, and nothing lies beside it.
void expect_whole_files()
{
    std::set<std::string> names;
    for (const agent_file_t &file : delivered_files()) {
        names.insert(file.name);
        require(std::ranges::equal(digest_of(images() / file.name), file.sha256), "a file has its digest");
        require(fs::file_size(images() / file.name) == file.size_bytes.load(), "a file has its size");
    }
    if (!fs::exists(images()))
        return;
    for (const auto &entry : fs::directory_iterator(images())) {
        const std::string name = entry.path().filename();
        require(name == ".digests" || names.contains(name), "all that is there was delivered");
    }
}

// What an order has written down is read again, and no flash has an order that is not there.
void expect_whole_orders()
{
    if (!fs::exists(orders()))
        return;
    for (const auto &entry : fs::directory_iterator(orders())) {
        require(entry.path().filename() == "primary", "an order is one of a flash");
        require(flash_order_read(SLOT, 0).has_value(), "an order is read again");
    }
}

void expect_nothing_elsewhere()
{
    const std::set<fs::path> known = {slot_folder() / "flash", images(), orders()};
    for (const auto &entry : fs::directory_iterator(slot_folder()))
        require(known.contains(entry.path()), "nothing was made elsewhere");
}

void take_step(fuzzed_agent &agent, fuzz_input &input)
{
    switch (input.byte() % 8) {
    case 4:
        return agent.take_lock_message(input);
    case 5:
        return agent.pass(std::int64_t{input.word()} * 1000);
    case 6:
        return agent.replace_process(input);
    case 7:
        return agent.start();
    default:
        return agent.take_request(input);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fs::remove_all(images());
    fs::remove_all(orders());
    const open_descriptor_check descriptors;
    fuzz_input input(data, size);
    fuzzed_agent agent;
    while (!input.at_end()) {
        take_step(agent, input);
        agent.expect_sound();
    }
    agent.expect_nothing_kept_for_the_dead();
    expect_whole_files();
    expect_whole_orders();
    expect_nothing_elsewhere();
    return 0;
}
