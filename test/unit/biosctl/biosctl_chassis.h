// What the tests of the built biosctl share: a chassis in a folder of its own, a daemon that follows a script,
// and a run of the program.
#pragma once

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <poll.h>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "agent_messages.h"
#include "big_endian.h"
#include "bios_messages.h"
#include "bios_opcodes.h"
#include "card_agent_process.h"
#include "chassis_dir.h"
#include "cmi.h"
#include "endpoints.h"
#include "flash_order.h"
#include "mts_tools.h"
#include "unique_fd.h"

constexpr auto TEST_DEADLINE = std::chrono::seconds(60);

// A chassis directory with an active supervisor in slot 27, a standby in 28 and a line card in 5; each has an
// agent.
class test_chassis
{
public:
    test_chassis()
    {
        char name[] = "/tmp/biosctl_test.XXXXXX";
        if (::mkdtemp(name) == nullptr)
            throw std::runtime_error("mkdtemp");
        path_ = name;
        for (const char *folder : {"mts", "transport"}) {
            std::filesystem::create_directory(path_ + "/" + folder);
            std::filesystem::permissions(path_ + "/" + folder, std::filesystem::perms::owner_all);
        }
        insert(27, 1, 206, 1);
        insert(28, 1, 206, 2);
        insert(5, 2, 90, 0);
    }
    ~test_chassis()
    {
        agents_.clear();
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    test_chassis(const test_chassis &) = delete;
    test_chassis &operator=(const test_chassis &) = delete;

    void insert(unsigned slot, unsigned kind, unsigned card_id, unsigned sup_state) const
    {
        const std::string folder = path_ + "/inventory/" + std::to_string(slot);
        std::filesystem::create_directories(folder);
        std::filesystem::create_directories(path_ + "/slots/" + std::to_string(slot));
        std::ofstream(folder + "/kind") << kind << "\n";
        std::ofstream(folder + "/card_id") << card_id << "\n";
        std::ofstream(folder + "/sup_state") << sup_state << "\n";
        if (!agents_.contains(slot))
            agents_[slot] = std::make_unique<card_agent_process>(
                path_, slot,
                [folder = path_ + "/slots/" + std::to_string(slot)](std::int32_t handle, mts_message *message) {
                    return tells_of_image_or_flash(folder, handle, message);
                });
    }
    // Makes a blank flash of 64 KiB with sectors of 4 KiB unless it is there; its folder.
    std::string flash_folder(unsigned slot, const std::string &instance) const
    {
        const std::string folder = path_ + "/slots/" + std::to_string(slot) + "/flash/" + instance;
        if (std::filesystem::create_directories(folder)) {
            std::ofstream(folder + "/size_bytes") << "65536\n";
            std::ofstream(folder + "/sector_bytes") << "4096\n";
            std::ofstream(folder + "/page_bytes") << "256\n";
            std::ofstream(folder + "/data") << std::string(65536, '\xff');
        }
        return folder;
    }
    // Waits until the agent of a slot has granted a lock of its module; false when it does not in time.
    bool wait_for_lock(unsigned slot) const
    {
        const std::string granted = path_ + "/slots/" + std::to_string(slot) + "/locks/granted";
        const auto deadline = std::chrono::steady_clock::now() + TEST_DEADLINE;
        std::error_code missing;
        while (std::filesystem::file_size(granted, missing) == 0 || missing) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            (void)::usleep(1000);
        }
        return true;
    }
    // The endpoints' files of programs that are no card's, in the transport's directory.
    std::set<std::string> tool_addresses() const
    {
        std::set<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(path_ + "/mts")) {
            const std::string name = entry.path().filename();
            if (name.starts_with("00000001."))
                names.insert(name);
        }
        return names;
    }
    void end_agent(unsigned slot) const { agents_.erase(slot); }
    const std::string &path() const { return path_; }

    // What the agent of a slot says from now on: "no_image", "no_digest" or "no_order" and a status,
    // "other_contents", "misread_once", "half_written", "not_recorded", "already_there"; "ships" and the version of
    // its image, "slow_image"; "holds" and the version in its flash, "runs" and the one that it was started from,
    // "flash_state" and bits, "started_from" and an instance; "no_versions" (it lets such requests wait),
    // "wild_versions".
    void agent_says(unsigned slot, const std::string &what, const std::string &value = "") const
    {
        std::ofstream(path_ + "/slots/" + std::to_string(slot) + "/" + what) << value;
    }

    void card_holds(unsigned slot, const std::string &flash, const std::string &running) const
    {
        agent_says(slot, "holds", flash);
        agent_says(slot, "runs", running);
    }

private:
    static constexpr std::uint64_t ORDER_ID = 7;

    static std::string text_in(const std::string &file)
    {
        std::string text;
        std::getline(std::ifstream(file), text);
        return text;
    }
    static std::uint32_t number_in(const std::string &file)
    {
        std::uint32_t number = 0;
        std::ifstream(file) >> number;
        return number;
    }
    static void tell_versions(const std::string &folder, std::int32_t handle, mts_message *message)
    {
        struct {
            agent_versions_t card;
            agent_flash_version_t flash;
        } versions{};
        versions.card.serves = be32::of(1);
        versions.card.started_from = be32::of(number_in(folder + "/started_from"));
        versions.card.flash_count = be32::of(1);
        text_in(folder + "/runs").copy(versions.card.running, sizeof versions.card.running);
        versions.flash.state = be32::of(number_in(folder + "/flash_state"));
        text_in(folder + "/holds").copy(versions.flash.version, sizeof versions.flash.version);
        (void)cmi_response(&versions, sizeof versions, handle, message, AGENT_OK);
    }

    // Whether the file was there; it is not any more.
    static bool take_once(const std::string &file) { return std::filesystem::remove(file); }

    // The cards have no images, and their daemons program nothing: their agents tell of one image that each card
    // has, and that each flash holds.
    static bool tells_of_image_or_flash(const std::string &folder, std::int32_t handle, mts_message *message)
    {
        const auto is_said = [&](const char *what) { return std::filesystem::exists(folder + "/" + what); };
        if (mts_opc_get(message) == AGENT_OPC_GET_IMAGE) {
            (void)take_once(folder + "/../ordered"); // another programming begins
            agent_image_t image{be64::of(4096), {1, 2, 3}, "v3.5.0(09/17/12)", {}, {}, {}, {}};
            if (is_said("ships")) {
                std::memset(image.version, 0, sizeof image.version);
                text_in(folder + "/ships").copy(image.version, sizeof image.version);
            }
            if (is_said("slow_image"))
                (void)::usleep(500'000); // the length of the work
            std::uint32_t status = AGENT_OK;
            std::ifstream(folder + "/no_image") >> std::hex >> status;
            (void)cmi_response(&image, status == AGENT_OK ? sizeof image : 0, handle, message, status);
            return true;
        }
        if (mts_opc_get(message) == AGENT_OPC_GET_VERSIONS) {
            if (is_said("no_versions"))
                return true;
            if (is_said("wild_versions"))
                (void)cmi_response("wild", 4, handle, message, AGENT_OK);
            else if (is_said("holds"))
                tell_versions(folder, handle, message);
            return is_said("wild_versions") || is_said("holds");
        }
        // Who has ordered a programming finds it done.
        const std::string ordered = folder + "/../ordered";
        if (mts_opc_get(message) == AGENT_OPC_ORDER_FLASH) {
            std::uint32_t status = AGENT_OK;
            std::ifstream(folder + "/no_order") >> std::hex >> status;
            std::uint64_t missing_bytes = 0;
            std::ifstream(folder + "/no_room_for_copy") >> missing_bytes;
            const agent_order_taken_t taken{be32::of(0), be64::of(missing_bytes == 0 ? ORDER_ID : 0),
                                            be64::of(missing_bytes)};
            if (status == AGENT_OK && missing_bytes == 0)
                std::ofstream(ordered) << "";
            (void)cmi_response(&taken, status == AGENT_OK ? sizeof taken : 0, handle, message, status);
            return true;
        }
        if (mts_opc_get(message) == AGENT_OPC_GET_ORDER) {
            if (!std::filesystem::exists(ordered)) {
                (void)cmi_response(nullptr, 0, handle, message, AGENT_ERR_NO_ORDER);
                return true;
            }
            flash_order order;
            order.id = ORDER_ID;
            order.sha256 = {1, 2, 3};
            order.size_bytes = 4096;
            order.state = is_said("not_recorded") ? flash_order_state::failed : flash_order_state::verified;
            const std::string text = flash_order_format(order);
            (void)cmi_response(text.data(), static_cast<std::uint32_t>(text.size()), handle, message, AGENT_OK);
            return true;
        }
        if (mts_opc_get(message) == AGENT_OPC_RENEW_ORDER || mts_opc_get(message) == AGENT_OPC_END_ORDER) {
            (void)cmi_response(nullptr, 0, handle, message, AGENT_OK);
            return true;
        }
        if (mts_opc_get(message) == AGENT_OPC_GET_DIGEST) {
            agent_flash_digest_t digest{{1, 2, 3}, be32::of(1), {}};
            const bool is_equal = is_said("../ordered") || is_said("already_there");
            digest.sha256[31] =
                !is_equal || is_said("other_contents") || take_once(folder + "/misread_once") ? 1 : 0;
            std::uint32_t status = AGENT_OK;
            std::ifstream(folder + "/no_digest") >> std::hex >> status;
            digest.state = be32::of(is_said("half_written") ? std::uint32_t{AGENT_FLASH_MARKED} : 0);
            (void)cmi_response(&digest, status == AGENT_OK ? sizeof digest : 0, handle, message, status);
            return true;
        }
        return false;
    }

    std::string path_;
    mutable std::map<unsigned, std::unique_ptr<card_agent_process>> agents_; // processes, no state of this object
};

// The daemon's side of a script; lives in the daemon's process.
class daemon_side
{
public:
    daemon_side(const std::string &chassis, unsigned slot) : chassis_(chassis)
    {
        if (chassis_attach(chassis, slot) != 0)
            ::_exit(70);
        handle_ = bind(static_cast<std::int32_t>(BIOS_DAEMON_SAP));
        child_ = bind(-1);
    }

    // The body of the next message, which has to be a request of the opcode.
    std::vector<std::uint8_t> receive(std::uint32_t opcode)
    {
        std::uint32_t options[MTS_RECV_OPTION_WORDS] = {1, 0, 30};
        if (mts_recv(handle_, &msg_, options) != 0 || mts_opc_get(msg_) != opcode)
            ::_exit(72);
        (void)mts_saddr_get(msg_, &requester_);
        const auto *payload = static_cast<const std::uint8_t *>(mts_payload_get(msg_));
        return {payload + MTS_REQUEST_HEADER_BYTES, payload + mts_payload_length(msg_)};
    }
    // Any request; its opcode.
    std::uint32_t receive_any(std::vector<std::uint8_t> &body_out)
    {
        std::uint32_t options[MTS_RECV_OPTION_WORDS] = {1, 0, 60};
        if (mts_recv(handle_, &msg_, options) != 0)
            ::_exit(73);
        (void)mts_saddr_get(msg_, &requester_);
        const auto *payload = static_cast<const std::uint8_t *>(mts_payload_get(msg_));
        body_out.assign(payload + MTS_REQUEST_HEADER_BYTES, payload + mts_payload_length(msg_));
        return mts_opc_get(msg_);
    }
    void answer(std::uint32_t status, const void *payload = "\0\0\0", std::uint32_t length = 4)
    {
        (void)cmi_response(payload, length, handle_, msg_, status);
        (void)mts_drop(handle_, msg_);
    }
    // The version that the agent of a slot finds in its flash from now on.
    void card_holds(unsigned slot, const std::string &flash) const
    {
        std::ofstream(chassis_ + "/slots/" + std::to_string(slot) + "/holds") << flash;
    }
    void reject()
    {
        (void)mts_respond_reject(handle_, 0, 0, msg_, 0, 0);
        (void)mts_drop(handle_, msg_);
    }
    void progress(std::uint32_t phase, std::uint32_t percent, std::uint32_t attempt = 1)
    {
        const bios_programming_progress_t record{be32::of(phase), be32::of(percent), be32::of(attempt)};
        send_as(child_, requester_, MTS_OPC_BIOS_PROGRAMMING_PROGRESS, &record, sizeof record);
    }
    void notify(std::uint32_t result, std::uint32_t module)
    {
        const bios_programming_notify_t record{be32::of(result), be32::of(module)};
        notify_bytes(&record, sizeof record);
    }
    void notify_bytes(const void *bytes, std::uint32_t length)
    {
        send_as(handle_, {MTS_NODE_LISTENERS, 0}, MTS_OPC_BIOS_PROGRAMMING_NOTIFY, bytes, length);
    }
    void done(std::uint32_t result)
    {
        const be32 word = be32::of(result);
        to_requester(MTS_OPC_BIOS_PROGRAMMING_DONE, &word, sizeof word);
    }
    void to_requester(std::uint32_t opcode, const void *bytes, std::uint32_t length)
    {
        send_as(handle_, requester_, opcode, bytes, length);
    }
    void send_to(mts_address_t to, std::uint32_t opcode, const void *bytes, std::uint32_t length)
    {
        send_as(handle_, to, opcode, bytes, length);
    }

private:
    static std::int32_t bind(std::int32_t sap)
    {
        const std::int32_t handle = mts_bind(BIND_KIND, sap, BIND_OPTIONS, "scripted daemon");
        if (handle < 0)
            ::_exit(71);
        return handle;
    }
    static void send_as(std::int32_t handle, mts_address_t to, std::uint32_t opcode, const void *bytes,
                        std::uint32_t length)
    {
        (void)mts_send(handle, to.node, to.sap, opcode, bytes, length, 0, 0, 0);
    }

    std::string chassis_;
    std::int32_t handle_ = -1;
    std::int32_t child_ = -1;
    mts_message_t *msg_ = nullptr;
    mts_address_t requester_{};
};

// A process that serves a slot's daemon endpoint as the script says, and then stays until it is ended.
class scripted_daemon
{
public:
    using script_function = std::function<void(daemon_side &)>;

    scripted_daemon(const test_chassis &chassis, unsigned slot, const script_function &script)
    {
        int ready[2];
        if (::pipe(ready) != 0)
            throw std::runtime_error("pipe");
        pid_ = ::fork();
        if (pid_ == 0) {
            (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
            daemon_side side(chassis.path(), slot);
            (void)!::write(ready[1], "r", 1);
            ::close(ready[0]);
            ::close(ready[1]);
            script(side);
            for (;;)
                ::pause();
        }
        ::close(ready[1]);
        char byte = 0;
        const ssize_t got = ::read(ready[0], &byte, 1);
        ::close(ready[0]);
        if (got != 1)
            throw std::runtime_error("the scripted daemon did not come up");
    }
    ~scripted_daemon() { kill(); }
    scripted_daemon(const scripted_daemon &) = delete;
    scripted_daemon &operator=(const scripted_daemon &) = delete;

    void kill()
    {
        if (pid_ <= 0)
            return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
};

// One run of the built program; its streams are read while it runs.
class biosctl_run
{
public:
    explicit biosctl_run(const std::vector<std::string> &words)
    {
        int out[2];
        int err[2];
        if (::pipe(out) != 0 || ::pipe(err) != 0)
            throw std::runtime_error("pipe");
        pid_ = ::fork();
        if (pid_ == 0)
            start(words, out, err);
        ::close(out[1]);
        ::close(err[1]);
        streams_[0].reset(out[0]);
        streams_[1].reset(err[0]);
    }
    ~biosctl_run()
    {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    biosctl_run(const biosctl_run &) = delete;
    biosctl_run &operator=(const biosctl_run &) = delete;

    // Reads until standard error holds the text; false at the program's end or the deadline.
    bool wait_for_error_text(const std::string &text)
    {
        return read_until([&] { return text_[1].find(text) != std::string::npos; });
    }
    // The same for standard output.
    bool wait_for_output(const std::string &text)
    {
        return wait_for_output([&](const std::string &output) { return output.find(text) != std::string::npos; });
    }
    bool wait_for_output(const std::function<bool(const std::string &)> &enough)
    {
        return read_until([&] { return enough(text_[0]); });
    }
    void close_output() { streams_[0].reset(); }
    void signal(int number) const { ::kill(pid_, number); }

    // Waits for the end; the exit code, or -1 when it did not end in time or not by itself.
    int exit_code()
    {
        (void)read_until([] { return false; });
        if (streams_[0] || streams_[1])
            return -1;
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    const std::string &out() const { return text_[0]; }
    const std::string &err() const { return text_[1]; }

private:
    [[noreturn]] static void start(const std::vector<std::string> &words, const int out[2], const int err[2])
    {
        (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(out[1], STDOUT_FILENO);
        ::dup2(err[1], STDERR_FILENO);
        for (const int fd : {out[0], out[1], err[0], err[1]})
            ::close(fd);
        ::unsetenv("CHASSIS_DIR");
        ::unsetenv("CHASSIS_DIR_FD");
        std::vector<char *> arguments{const_cast<char *>("biosctl")};
        for (const std::string &word : words)
            arguments.push_back(const_cast<char *>(word.c_str()));
        arguments.push_back(nullptr);
        ::execv(BIOSCTL_PROGRAM, arguments.data());
        ::_exit(127);
    }

    bool read_until(const std::function<bool()> &enough)
    {
        const auto deadline = std::chrono::steady_clock::now() + TEST_DEADLINE;
        while (!enough()) {
            if ((!streams_[0] && !streams_[1]) || std::chrono::steady_clock::now() > deadline)
                return false;
            pollfd waiting[2] = {{streams_[0].get(), POLLIN, 0}, {streams_[1].get(), POLLIN, 0}};
            if (::poll(waiting, 2, 1000) <= 0)
                continue;
            for (int k = 0; k < 2; ++k)
                if (waiting[k].revents != 0)
                    read_some(k);
        }
        return true;
    }
    void read_some(int k)
    {
        char piece[4096];
        const ssize_t got = ::read(streams_[k].get(), piece, sizeof piece);
        if (got <= 0)
            streams_[k].reset();
        else
            text_[k].append(piece, static_cast<std::size_t>(got));
    }

    pid_t pid_ = -1;
    unique_fd streams_[2];
    std::string text_[2];
};
