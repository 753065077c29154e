// "chassis up", "down" and "restart".
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <linux/close_range.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "card_files.h"
#include "card_processes.h"
#include "card_program.h"
#include "card_root.h"
#include "chassis_commands.h"
#include "chassis_dir.h"
#include "isolation.h"
#include "keeper_lock.h"
#include "launcher_error.h"
#include "process_descriptor.h"

namespace
{

using steady = std::chrono::steady_clock;

constexpr std::chrono::milliseconds LOOK_INTERVAL{10};
constexpr std::chrono::seconds DOWN_PATIENCE{10}; // for a card to go down before its processes are killed
constexpr std::chrono::seconds KILL_PATIENCE{5};
constexpr unsigned TAIL_LINES = 20;

// What cards share, and what is one card's: nobody else may have been let in to change something there.
void require_private_folders(const std::vector<unsigned> &slots)
{
    std::vector<std::string> folders = {"inventory", "slots", "mts", "transport"};
    for (const unsigned slot : slots) {
        folders.push_back("inventory/" + std::to_string(slot));
        folders.push_back("slots/" + std::to_string(slot));
        for (const char *name :
             {"root", "flash", "flash/primary", "flash/alternate", "registers", "debug", "locks"})
            folders.push_back(chassis_slot_path(slot, name));
    }
    for (const std::string &folder : folders) {
        if (::faccessat(chassis_dir_fd(), folder.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT)
            continue; // made anew by whoever needs it
        if (const std::string problem = chassis_folder_problem(folder); !problem.empty())
            throw launcher_error(folder + " of the chassis: " + problem);
    }
}

std::string own_program()
{
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

std::string find_daemon(const std::string &wanted)
{
    std::string daemon = wanted;
    if (const char *named = std::getenv("BIOS_DAEMON"); daemon.empty() && named != nullptr)
        daemon = named;
    if (daemon.empty())
        daemon = std::filesystem::path(own_program()).replace_filename("bios_daemon").string();
    daemon = std::filesystem::absolute(daemon).string();
    if (!std::filesystem::is_regular_file(daemon) || ::access(daemon.c_str(), X_OK) != 0)
        throw launcher_error(daemon + ": is not the daemon's executable; name it with --daemon or BIOS_DAEMON");
    return daemon;
}

// The keepers look for it in the same place.
void require_standin(const std::vector<unsigned> &slots)
{
    const std::string folder = std::filesystem::path(own_program()).parent_path().string();
    const std::string standin = program_file(card_program::standin, {}, folder);
    const bool needed = std::any_of(slots.begin(), slots.end(),
                                    [](unsigned slot) { return program_of(slot) == card_program::standin; });
    if (needed && ::access(standin.c_str(), X_OK) != 0)
        throw system_error_of(standin);
}

isolation chosen_isolation()
{
    const std::string name = read_line("isolation");
    const std::optional<isolation> way = parse_isolation(name);
    if (!way)
        throw launcher_error("isolation: " + name + " is not auto, mount, user or plain");
    return *way == isolation::automatic ? choose_isolation() : *way;
}

// Runs in the child: becomes the card's process, which has nothing of the caller's but what it is given here.
[[noreturn]] void become_card(unsigned slot, const std::vector<std::string> &arguments)
{
    (void)::setsid();
    (void)::chdir("/");
    const int null = ::open("/dev/null", O_RDONLY);
    const int log = ::openat(chassis_dir_fd(), chassis_slot_path(slot, "log").c_str(),
                             O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW, 0644);
    if (null < 0 || log < 0 || ::dup2(null, STDIN_FILENO) < 0 || ::dup2(log, STDOUT_FILENO) < 0 ||
        ::dup2(log, STDERR_FILENO) < 0)
        ::_exit(EXIT_FAILURE);
    (void)::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    std::vector<char *> values;
    values.reserve(arguments.size() + 1);
    for (const std::string &argument : arguments)
        values.push_back(const_cast<char *>(argument.c_str()));
    values.push_back(nullptr);
    sigset_t none;
    sigemptyset(&none);
    (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execv("/proc/self/exe", values.data());
    ::_exit(EXIT_FAILURE);
}

// The cards that "up" has started, until all of them serve.
class starting_cards
{
public:
    starting_cards(const up_options &options, isolation way) : options_(options), way_(way) {}

    void start(unsigned slot)
    {
        write_line(chassis_slot_path(slot, "state"), STATE_STARTING);
        const std::vector<std::string> arguments = {
            "chassis",       "--dir",       options_.directory,  "card", std::to_string(slot), "--daemon",
            options_.daemon, "--isolation", isolation_name(way_)};
        const pid_t child = ::fork();
        if (child < 0)
            throw system_error_of("start of card " + std::to_string(slot));
        if (child == 0)
            become_card(slot, arguments);
        waiting_.push_back({slot, child});
    }

    void wait_until_all_serve()
    {
        const auto deadline = steady::now() + options_.patience;
        while (!waiting_.empty()) {
            std::erase_if(waiting_, [](const started &card) { return is_serving(card); });
            if (waiting_.empty())
                return;
            if (steady::now() > deadline)
                fail(waiting_.front().slot, "did not serve in time");
            std::this_thread::sleep_for(LOOK_INTERVAL);
        }
    }

private:
    struct started {
        unsigned slot;
        pid_t process;
    };

    [[noreturn]] static void fail(unsigned slot, const std::string &what)
    {
        throw launcher_error("card " + std::to_string(slot) + " " + what + "; the end of its log:\n" +
                             log_tail(slot, TAIL_LINES));
    }

    static bool is_serving(const started &card)
    {
        const std::string state = card_state(card.slot);
        if (state == STATE_SERVING)
            return true;
        if (state == STATE_FAILED)
            fail(card.slot, "could not be started");
        if (::waitpid(card.process, nullptr, WNOHANG) == card.process)
            fail(card.slot, "has lost its process");
        return false;
    }

    const up_options &options_;
    isolation way_;
    std::vector<started> waiting_;
};

// Ends what keeps a card; then, whatever became of that, what lives in it.
void kill_card(unsigned slot, const keeper &process)
{
    if (process && !has_ended(process, std::chrono::milliseconds(0))) {
        (void)::pidfd_send_signal(process.process.get(), SIGKILL, nullptr, 0);
        (void)has_ended(process, KILL_PATIENCE);
    }
    if (!kill_processes_of_root(card_root(slot).fd()))
        throw launcher_error("card " + std::to_string(slot) + ": some of its processes cannot be killed");
    (void)::unlinkat(chassis_dir_fd(), chassis_slot_path(slot, "pid").c_str(), 0);
    write_line(chassis_slot_path(slot, "state"), STATE_DOWN);
}

void stop_cards(const std::vector<unsigned> &slots)
{
    struct stopping {
        unsigned slot;
        keeper process;
    };
    std::vector<stopping> cards;
    for (const unsigned slot : slots)
        cards.push_back({slot, keeper_of(slot)});
    for (const stopping &card : cards) {
        if (card.process)
            (void)::pidfd_send_signal(card.process.process.get(), SIGTERM, nullptr, 0);
    }
    const auto deadline = steady::now() + DOWN_PATIENCE;
    for (const stopping &card : cards) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady::now());
        if (card.process)
            (void)has_ended(card.process, std::max(left, std::chrono::milliseconds(0)));
    }
    std::exception_ptr problem; // the other cards go down all the same
    for (const stopping &card : cards) {
        try {
            kill_card(card.slot, card.process);
        } catch (const launcher_error &) {
            problem = std::current_exception();
        }
    }
    if (problem)
        std::rethrow_exception(problem);
}

// Of a start that has failed, which is what its caller reports.
void stop_cards_quietly(const std::vector<unsigned> &slots)
{
    try {
        stop_cards(slots);
    } catch (const launcher_error &failure) {
        (void)std::fprintf(stderr, "chassis: %s\n", failure.what());
    }
}

void wait_for_restart(unsigned slot, unsigned starts_before, std::chrono::seconds patience)
{
    const auto deadline = steady::now() + patience;
    for (;;) {
        const unsigned starts = chassis_read_value(chassis_slot_path(slot, "starts"), 0);
        const std::string state = card_state(slot);
        if (starts > starts_before && state == STATE_SERVING)
            return;
        const bool lost = !keeper_of(slot);
        if (lost || steady::now() > deadline || (starts > starts_before && state == STATE_FAILED))
            throw launcher_error("card " + std::to_string(slot) +
                                 " does not serve after its restart; the end of its "
                                 "log:\n" +
                                 log_tail(slot, TAIL_LINES));
        std::this_thread::sleep_for(LOOK_INTERVAL);
    }
}

} // namespace

void bring_up(const up_options &options)
{
    const unique_fd commands = lock_commands();
    std::vector<unsigned> slots = serving_slots();
    if (slots.empty())
        throw launcher_error("no card of this chassis runs the daemon");
    // Those whose keeper was killed are down, and the others stay as they are.
    std::erase_if(slots, [](unsigned slot) { return static_cast<bool>(keeper_of(slot)); });
    if (slots.empty())
        throw launcher_error("the chassis is running already; look at it with: chassis status");
    require_private_folders(slots);
    up_options settled = options;
    settled.daemon = find_daemon(options.daemon);
    require_standin(slots);
    starting_cards cards(settled, chosen_isolation());
    try {
        for (const unsigned slot : slots)
            cards.start(slot);
        cards.wait_until_all_serve();
    } catch (...) {
        stop_cards_quietly(slots);
        while (::waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        throw;
    }
}

void bring_down()
{
    const unique_fd commands = lock_commands();
    stop_cards(card_slots());
}

void restart_card(unsigned slot, bool software_only, std::chrono::seconds patience)
{
    require_serving_slot(slot);
    const keeper process = keeper_of(slot);
    if (!process)
        throw launcher_error("card " + std::to_string(slot) + " is down; start it with: chassis up");
    const unsigned starts = chassis_read_value(chassis_slot_path(slot, "starts"), 0);
    const std::string upgrade_restart = chassis_inventory_path(slot, "upgrade_restart");
    if (software_only)
        write_line(upgrade_restart, "1");
    (void)::pidfd_send_signal(process.process.get(), software_only ? SIGUSR1 : SIGHUP, nullptr, 0);
    try {
        wait_for_restart(slot, starts, patience);
    } catch (...) {
        if (software_only)
            write_line(upgrade_restart, "0");
        throw;
    }
    if (software_only)
        write_line(upgrade_restart, "0");
}
