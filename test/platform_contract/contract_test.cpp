#include "contract_test.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <iterator>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "modlock.h"
#include "sdwrap.h"

namespace
{

constexpr auto CHILD_LIMIT = std::chrono::seconds(60);
constexpr useconds_t CHILD_POLL_US = 10'000;
constexpr std::uint32_t FACILITY_NUMBER = 904;
constexpr const char *CATEGORIES[] = {"Bios Daemon Errors", "Bios Daemon Warnings", "Bios Daemon Info"};

syslog_facility_t facility = {"bios_daemon", FACILITY_NUMBER, 2, 2};
std::set<int> descriptors_before;

// Waits until the child has ended. false when it was killed because it did not.
bool reap(pid_t child, int &status)
{
    const auto deadline = std::chrono::steady_clock::now() + CHILD_LIMIT;
    while (::waitpid(child, &status, WNOHANG) != child) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(child, SIGKILL);
            (void)::waitpid(child, &status, 0);
            return false;
        }
        ::usleep(CHILD_POLL_US);
    }
    return true;
}

} // namespace

std::int32_t own_endpoint()
{
    static const std::int32_t handle =
        mts_bind(1, static_cast<std::int32_t>(contract_sap(0)), BIND_OPTIONS, "contract tests");
    return handle;
}

std::uint32_t own_node()
{
    contract_card card{};
    contract_this_card(&card);
    return card.module * 256U + (card.is_supervisor != 0 ? 1U : 2U);
}

held_message receive(std::uint32_t wait_s, std::int32_t handle)
{
    const std::uint32_t options[10] = {1, 0, wait_s};
    mts_message_t *message = nullptr;
    return held_message(mts_recv(handle, &message, options) == 0 ? message : nullptr);
}

void drop_waiting_messages()
{
    while (receive(0))
        ;
}

std::string payload_of(const held_message &message, std::size_t bytes)
{
    return {static_cast<const char *>(mts_payload_get(message.get())), bytes};
}

int exit_status_of_child(const std::function<int()> &work)
{
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL); // one that is stuck does not outlive the kit
        ::_exit(work());
    }
    if (child < 0)
        return -1;
    int status = -1;
    if (!reap(child, status))
        return CHILD_WAS_STUCK;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::int32_t prepare_locks()
{
    static const std::int32_t result = modlock_init();
    return result;
}

std::int32_t register_debug()
{
    static const std::int32_t result =
        sdwrap_dbg_init(own_endpoint(), "bios_daemon", "BIOS Daemon", std::size(CATEGORIES), CATEGORIES, 0, 0, 0);
    return result;
}

std::int32_t register_syslog()
{
    sdwrap_sys_facility = &facility;
    static const std::int32_t result =
        sdwrap_sys_init_helper(own_endpoint(), "bios_daemon", "BIOS Daemon", FACILITY_NUMBER, 0, 0, 0);
    return result;
}

std::set<int> open_descriptors()
{
    std::set<int> open;
    DIR *folder = ::opendir("/proc/self/fd");
    if (folder == nullptr)
        return open;
    while (const dirent *entry = ::readdir(folder)) {
        if (entry->d_name[0] != '.')
            open.insert(static_cast<int>(std::strtol(entry->d_name, nullptr, 10)));
    }
    open.erase(::dirfd(folder));
    (void)::closedir(folder);
    return open;
}

const std::set<int> &foreign_descriptors()
{
    return descriptors_before;
}

void note_foreign_descriptors()
{
    descriptors_before = open_descriptors();
}

scratch_file::scratch_file(const std::string &name)
    : path_(std::string(contract_scratch_folder()) + "/contract." + std::to_string(::getpid()) + "." + name)
{
    (void)std::remove(path_.c_str());
}

scratch_file::scratch_file(const std::string &name, const std::string &content) : scratch_file(name)
{
    std::ofstream(path_, std::ios::binary) << content;
}

scratch_file::~scratch_file()
{
    (void)std::remove(path_.c_str());
}

std::string scratch_file::content() const
{
    return content_of_file(path_);
}

std::string content_of_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void PeerTest::start(std::unique_ptr<peer_process> (*starter)(std::string &))
{
    ASSERT_GE(own_endpoint(), 0) << "no endpoint can be bound: errno " << errno;
    drop_waiting_messages();
    std::string reason;
    peer_ = starter(reason);
    if (!peer_)
        GTEST_SKIP() << reason;
    const std::string node = peer_->ask("node");
    ASSERT_EQ(node.substr(0, 5), "node ") << node;
    peer_node_ = static_cast<std::uint32_t>(std::strtoul(node.c_str() + 5, nullptr, 10));
    ASSERT_EQ(peer_->ask("bind " + std::to_string(peer_sap())), "ok");
}
