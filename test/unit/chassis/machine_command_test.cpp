// machine_command as it was built, with a thread that plays the agent of the machine.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "image_tool_test.h"
#include "unique_fd.h"

namespace
{

using nlohmann::json;

constexpr int EXIT_MACHINE = 69;

// Answers one connection after the other, as the machine's port does.
class played_agent
{
public:
    // What the agent returns to a request; synchronization is its own business.
    using answers = std::function<json(const json &request)>;

    played_agent(const std::string &path, answers answer, std::string left_over = {})
        : answer_(std::move(answer)),
          left_over_(std::move(left_over)),
          listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(::listen(listener_.get(), 8), 0);
        thread_ = std::thread([this] { serve(); });
    }
    played_agent(const played_agent &) = delete;
    played_agent &operator=(const played_agent &) = delete;
    ~played_agent()
    {
        (void)::shutdown(listener_.get(), SHUT_RDWR);
        thread_.join();
    }

    std::vector<json> requests() const
    {
        const std::lock_guard lock(mutex_);
        return requests_;
    }
    unsigned connections() const { return connections_; }

private:
    void serve()
    {
        for (;;) {
            const unique_fd connection(::accept(listener_.get(), nullptr, nullptr));
            if (!connection)
                return;
            ++connections_;
            say(connection, left_over_);
            std::string received;
            char bytes[65536];
            for (ssize_t count = 0; (count = ::recv(connection.get(), bytes, sizeof bytes, 0)) > 0;) {
                received.append(bytes, static_cast<std::size_t>(count));
                for (std::size_t end = 0; (end = received.find('\n')) != std::string::npos;) {
                    take(connection, received.substr(0, end));
                    received.erase(0, end + 1);
                }
            }
        }
    }
    void take(const unique_fd &connection, std::string line)
    {
        if (line.starts_with('\xff')) {
            line.erase(0, 1);
            say(connection, R"({"error": {"class": "GenericError", "desc": "stray byte"}})"
                            "\n");
        }
        const json request = json::parse(line);
        if (request["execute"] == "guest-sync-delimited") {
            say(connection, "\xff{\"return\": " + request["arguments"]["id"].dump() + "}\n");
            return;
        }
        {
            const std::lock_guard lock(mutex_);
            requests_.push_back(request);
        }
        say(connection, answer_(request).dump() + "\n");
    }
    static void say(const unique_fd &connection, const std::string &text)
    {
        (void)::send(connection.get(), text.data(), text.size(), MSG_NOSIGNAL);
    }

    answers answer_;
    std::string left_over_;
    unique_fd listener_;
    std::atomic<unsigned> connections_ = 0;
    mutable std::mutex mutex_;
    std::vector<json> requests_;
    std::thread thread_;
};

json returned(const json &value)
{
    return {{"return", value}};
}

// A command that ends with this state the given number of questions later.
played_agent::answers command_that_ends(const json &state, unsigned questions = 2)
{
    return [state, left = questions](const json &request) mutable {
        if (request["execute"] == "guest-exec")
            return returned({{"pid", 41}});
        return returned(left-- > 1 ? json{{"exited", false}} : state);
    };
}

class MachineCommand : public image_tool_test
{
protected:
    MachineCommand() : image_tool_test("machine-command") {}

    std::string socket() const { return path("agent.sock"); }
    int command(const std::string &line, const std::string &input = {}) const
    {
        write_file(path("input"), input);
        return run("machine_command " + line, "input");
    }
};

TEST_F(MachineCommand, PrintsWhatTheCommandPrintsAndEndsAsItDoes)
{
    const played_agent agent(
        socket(),
        command_that_ends({{"exited", true}, {"exitcode", 7}, {"out-data", "b3V0Cg=="}, {"err-data", "ZXJyCg=="}}));
    EXPECT_EQ(command(socket() + " run ls -l --all /tmp"), 7);
    EXPECT_EQ(output(), "out\n");
    EXPECT_EQ(errors(), "err\n");
    ASSERT_EQ(agent.requests().size(), 3u);
    EXPECT_EQ(agent.requests()[0]["arguments"],
              json({{"path", "ls"}, {"arg", {"-l", "--all", "/tmp"}}, {"capture-output", true}}));
    EXPECT_EQ(agent.requests()[1], json({{"execute", "guest-exec-status"}, {"arguments", {{"pid", 41}}}}));
}

TEST_F(MachineCommand, NamesASignalAsShellsDo)
{
    const played_agent agent(socket(), command_that_ends({{"exited", true}, {"signal", 9}}));
    EXPECT_EQ(command(socket() + " run true"), 128 + 9);
}

TEST_F(MachineCommand, GivesTheCommandItsInput)
{
    const played_agent agent(socket(), command_that_ends({{"exited", true}, {"exitcode", 0}}));
    EXPECT_EQ(command(socket() + " run --input cat", "abc"), 0) << errors();
    EXPECT_EQ(agent.requests().front()["arguments"]["input-data"], "YWJj");
}

TEST_F(MachineCommand, SaysWhatTheMachineSaysOfAFailure)
{
    const played_agent agent(socket(), [](const json &) -> json {
        return {{"error", {{"class", "GenericError"}, {"desc", "no such program"}}}};
    });
    EXPECT_EQ(command(socket() + " run nothing"), EXIT_MACHINE);
    EXPECT_NE(errors().find("no such program"), std::string::npos) << errors();
}

TEST_F(MachineCommand, RefusesOutputThatIsNotWhole)
{
    const played_agent agent(socket(),
                             command_that_ends({{"exited", true}, {"exitcode", 0}, {"out-truncated", true}}));
    EXPECT_EQ(command(socket() + " run cat"), EXIT_MACHINE);
}

TEST_F(MachineCommand, PassesOverWhatAnEarlierConnectionHasLeft)
{
    const played_agent agent(
        socket(), command_that_ends({{"exited", true}, {"exitcode", 3}}),
        "{\"return\": {\"exited\": true, \"exitcode\": 1}}\nhalf an ans\n\xff{\"return\": 5}\n");
    EXPECT_EQ(command(socket() + " run true"), 3);
}

TEST_F(MachineCommand, LetsOthersInWhileACommandRunsLong)
{
    const auto begin = std::chrono::steady_clock::now();
    const played_agent agent(socket(), [begin](const json &request) {
        if (request["execute"] == "guest-exec")
            return returned({{"pid", 1}});
        const bool ended = std::chrono::steady_clock::now() - begin > std::chrono::milliseconds(1500);
        return returned({{"exited", ended}, {"exitcode", 0}});
    });
    EXPECT_EQ(command(socket() + " run sleep 2"), 0) << errors();
    EXPECT_GT(agent.connections(), 1u);
}

TEST_F(MachineCommand, EndsWhenTheCommandDoesNotInTime)
{
    const played_agent agent(socket(), command_that_ends({}, ~0u));
    EXPECT_EQ(command("--limit 0.3 " + socket() + " run sleep 9"), EXIT_MACHINE);
    EXPECT_NE(errors().find("has not ended in time"), std::string::npos) << errors();
}

TEST_F(MachineCommand, ReadsAFilePieceByPiece)
{
    const std::vector<json> pieces = {"YWJj", "ZGVmZw==", ""};
    const played_agent agent(socket(), [pieces, next = 0u](const json &request) mutable {
        if (request["execute"] == "guest-file-read")
            return returned({{"buf-b64", pieces.at(next++)}});
        return returned(request["execute"] == "guest-file-open" ? json(1000) : json::object());
    });
    EXPECT_EQ(command(socket() + " get /etc/name"), 0) << errors();
    EXPECT_EQ(output(), "abcdefg");
    EXPECT_EQ(agent.requests().front()["arguments"], json({{"path", "/etc/name"}, {"mode", "r"}}));
    EXPECT_EQ(agent.requests().back(), json({{"execute", "guest-file-close"}, {"arguments", {{"handle", 1000}}}}));
}

TEST_F(MachineCommand, WritesAFilePieceByPiece)
{
    const played_agent agent(socket(), [](const json &request) {
        if (request["execute"] != "guest-file-write")
            return returned(request["execute"] == "guest-file-open" ? json(1000) : json::object());
        const auto text = request["arguments"]["buf-b64"].get<std::string>();
        return returned({{"count", text.size() / 4 * 3 - (text.ends_with("==") ? 2 : 0)}});
    });
    EXPECT_EQ(command(socket() + " put /etc/name", std::string(300'001, 'a')), 0) << errors();
    const std::vector<json> requests = agent.requests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[0]["arguments"], json({{"path", "/etc/name"}, {"mode", "w"}}));
    const std::string text = requests[1]["arguments"]["buf-b64"].get<std::string>() +
                             requests[2]["arguments"]["buf-b64"].get<std::string>();
    EXPECT_EQ(text.substr(0, 8), "YWFhYWFh");
    EXPECT_EQ(text.size(), 400'004u);
}

TEST_F(MachineCommand, FailsWhenTheMachineWritesAPartOfAFile)
{
    const played_agent agent(socket(), [](const json &request) {
        if (request["execute"] == "guest-file-write")
            return returned({{"count", 2}});
        return returned(request["execute"] == "guest-file-open" ? json(1000) : json::object());
    });
    EXPECT_EQ(command(socket() + " put /etc/name", "abc"), EXIT_MACHINE);
    EXPECT_NE(errors().find("only a part"), std::string::npos) << errors();
}

TEST_F(MachineCommand, GivesUpOnAMachineThatIsSilent)
{
    const unique_fd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener.get(), 8), 0);
    EXPECT_EQ(command("--limit 0.3 " + socket() + " run true"), EXIT_MACHINE);
    EXPECT_NE(errors().find("does not answer"), std::string::npos) << errors();
}

TEST_F(MachineCommand, WaitsForAMachineThatStarts)
{
    EXPECT_EQ(command("--limit 0.1 " + socket() + " wait"), EXIT_MACHINE);
    std::thread start([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        const played_agent agent(socket(), [](const json &) { return returned(json::object()); });
        for (int tries = 0; tries < 1000 && agent.requests().empty(); ++tries)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_FALSE(agent.requests().empty());
    });
    EXPECT_EQ(command(socket() + " wait"), 0) << errors();
    start.join();
}

} // namespace
