#include "contract_test.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon_node.h"

std::int32_t own_endpoint()
{
    static const std::int32_t handle =
        mts_bind(BIND_KIND, static_cast<std::int32_t>(contract_sap(0)), BIND_OPTIONS, "contract tests");
    return handle;
}

std::uint32_t own_node()
{
    contract_card card{};
    contract_this_card(&card);
    return daemon_node(card.module, card.is_supervisor != 0);
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
    if (child == 0)
        ::_exit(work());
    int status = -1;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR)
        ;
    return child > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
