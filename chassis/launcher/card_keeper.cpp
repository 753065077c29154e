#include "card_keeper.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "bios_opcodes.h"
#include "card_agent.h"
#include "card_files.h"
#include "card_processes.h"
#include "card_root.h"
#include "card_session.h"
#include "chassis_dir.h"
#include "endpoint_probe.h"
#include "keeper_lock.h"
#include "launcher_error.h"
#include "process_descriptor.h"
#include "utc_time.h"

namespace
{

using steady = std::chrono::steady_clock;

constexpr std::chrono::milliseconds PROBE_INTERVAL{20}; // while the daemon does not serve yet
constexpr std::chrono::seconds RESTART_PAUSE{1};
constexpr std::chrono::seconds END_WINDOW{60};
constexpr std::size_t MAX_ENDS_IN_WINDOW = 5;
constexpr std::chrono::seconds KILL_PATIENCE{3}; // for a session to end after its daemon was killed
constexpr const char *TOOLS[] = {"veskadd", "nbitool", "init-system"};
constexpr const char *PLAIN_MOUNT = "fstab_mount"; // mount and umount of a card without mounts

class card_keeper
{
public:
    explicit card_keeper(const keeper_options &options)
        : options_(options),
          root_(options.slot),
          agent_({options.directory, options.slot, options.way, agent_program(options.daemon, options.tools)})
    {
    }

    int run();

private:
    enum class phase { starting, serving, pausing, failed };
    enum class wish { none, reboot, software_restart, down };

    void prepare();
    void boot();
    void start();
    void install_programs();
    void install_tool(const std::string &tool, const std::string &place);
    void start_session();

    int wait_limit_ms() const;
    void wait_for_event();
    void take_signals();
    void take_reports();
    void reap();
    void tick();

    void request(wish wanted);
    void kill_daemon(int signal);
    void session_ended();
    void session_left(int status);
    void kill_left();
    void daemon_failed(const std::string &what);

    void enter(phase next, const std::string &state);
    [[gnu::format(printf, 2, 3)]] void note(const char *format, ...) const;
    // The agent has been ended and is not started before the card boots.
    bool goes_away() const { return wish_ == wish::down || wish_ == wish::reboot; }
    std::string slot_file(const char *name) const { return chassis_slot_path(options_.slot, name); }

    keeper_options options_;
    card_root root_;
    card_agent agent_;
    card_program program_ = card_program::daemon; // of the present session
    unique_fd signals_;
    unique_fd reports_; // of the present session
    phase phase_ = phase::starting;
    wish wish_ = wish::none;
    pid_t session_ = 0;        // 0: none
    std::vector<pid_t> left_;  // earlier sessions, whose daemon has ended and left a child that works on
    pid_t daemon_ = 0;         // 0: none
    unique_fd daemon_process_; // the same; its number may become another's before its end is known here
    endpoint_probe probe_;
    std::optional<int> daemon_status_;
    unsigned starts_ = 0;
    bool boots_ = false;          // the next start is the first one since the card has booted
    steady::time_point deadline_; // pausing: of the next start; a wish that waits: of the session's end
    std::deque<steady::time_point> ends_;
};

void card_keeper::note(const char *format, ...) const
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    char when[32] = "";
    if (::localtime_r(&now, &local) != nullptr)
        (void)std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%S%z", &local);
    std::fprintf(stderr, "chassis: %s card %u: %s\n", when, options_.slot, text);
}

void card_keeper::enter(phase next, const std::string &state)
{
    phase_ = next;
    write_line(slot_file("state"), state);
}

unique_fd open_signals()
{
    sigset_t wanted;
    sigemptyset(&wanted);
    for (const int number : {SIGTERM, SIGHUP, SIGUSR1, SIGCHLD})
        sigaddset(&wanted, number);
    if (::sigprocmask(SIG_BLOCK, &wanted, nullptr) != 0)
        throw system_error_of("signals");
    unique_fd signals(::signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals)
        throw system_error_of("signals");
    return signals;
}

std::string describe_status(const std::optional<int> &status)
{
    if (!status)
        return "was killed with its card";
    if (WIFSIGNALED(*status))
        return "was ended by signal " + std::to_string(WTERMSIG(*status));
    return "ended with exit status " + std::to_string(WEXITSTATUS(*status));
}

void card_keeper::prepare()
{
    signals_ = open_signals();
    (void)std::signal(SIGINT, SIG_IGN);
    (void)std::signal(SIGPIPE, SIG_IGN);
    (void)::prctl(PR_SET_NAME, "chassis card");
    (void)::prctl(PR_SET_CHILD_SUBREAPER, 1);
    (void)::umask(022);
    (void)::unlinkat(chassis_dir_fd(), slot_file("pid").c_str(), 0); // of a card that was killed
    if (!kill_processes_of_root(root_.fd()))
        note("processes of an earlier run are still there");
    enter_isolation(options_.way);
    // Opened anew: what was open before belongs to the mounts outside, where nothing can be mounted from here.
    open_chassis(options_.directory);
    root_ = card_root(options_.slot);
    root_.end_mounts();
    root_.make_folders();
    root_.attach_machine(options_.way, chassis_read_value(slot_file("bootflash_mib"), 0));
    write_line(slot_file("isolation"), isolation_name(options_.way));
}

void card_keeper::boot()
{
    root_.empty_tmp();
    (void)::unlinkat(chassis_dir_fd(), slot_file("locks/granted").c_str(),
                     0); // a card that boots has granted nothing
    write_line(slot_file(CHASSIS_BOOTED), utc_now_microseconds());
    boots_ = true;
    start();
}

// A start that fails counts as a daemon that ends: what is missing may be there a second later.
void card_keeper::start()
{
    try {
        start_session();
    } catch (const std::exception &failure) {
        daemon_failed(std::string("could not be started: ") + failure.what());
    }
}

// A tool that is not there is not in the card either.
void card_keeper::install_tool(const std::string &tool, const std::string &place)
{
    const std::string program = options_.tools + "/" + tool;
    if (::access(program.c_str(), X_OK) == 0)
        root_.install_program(options_.way, program, place);
}

void card_keeper::install_programs()
{
    root_.install_program(options_.way, program_file(program_, options_.daemon, options_.tools),
                          place_in_root(program_));
    for (const char *tool : TOOLS)
        install_tool(tool, PROGRAMS_IN_ROOT + std::string(tool));
    if (has_namespaces(options_.way))
        return;
    for (const char *place : {"/usr/bin/mount", "/usr/bin/umount"})
        install_tool(PLAIN_MOUNT, place);
}

void card_keeper::start_session()
{
    enter(phase::starting, STATE_STARTING);
    write_line(slot_file("starts"), std::to_string(++starts_));
    write_line(slot_file(CHASSIS_SOFTWARE_RESTART), boots_ ? "0" : "1");
    program_ = program_of(options_.slot);
    if (left_.empty())
        root_.end_mounts();
    install_programs();
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        throw system_error_of("socket");
    reports_.reset(ends[0]);
    unique_fd session_end(ends[1]);
    const int on = 1;
    (void)::setsockopt(reports_.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on);

    std::fflush(nullptr);
    const int child = fork_into_isolation(options_.way);
    if (child == 0) {
        reports_.reset();
        run_session({options_.directory, options_.slot, options_.way, program_, session_end.get()});
    }
    if (child < 0)
        throw system_error_of("start of the card");
    session_ = child;
    boots_ = false;
    agent_.ensure_started(root_);
    daemon_ = 0;
    daemon_process_.reset();
    daemon_status_.reset();
    probe_.reset();
}

int card_keeper::wait_limit_ms() const
{
    const bool has_deadline = phase_ == phase::pausing || wish_ != wish::none;
    if (phase_ == phase::starting && wish_ == wish::none)
        return static_cast<int>(PROBE_INTERVAL.count());
    const int agent_ms = goes_away() ? -1 : agent_.wait_limit_ms();
    if (!has_deadline)
        return agent_ms;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - steady::now()).count();
    const int left_ms = left > 0 ? static_cast<int>(left) + 1 : 0;
    return agent_ms >= 0 ? std::min(left_ms, agent_ms) : left_ms;
}

void card_keeper::wait_for_event()
{
    pollfd sources[] = {{signals_.get(), POLLIN, 0}, {reports_.get(), POLLIN, 0}};
    (void)::poll(sources, 2, wait_limit_ms());
    if (sources[1].revents != 0)
        take_reports();
    if (sources[0].revents != 0)
        take_signals();
}

void card_keeper::take_signals()
{
    signalfd_siginfo info;
    while (::read(signals_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        switch (info.ssi_signo) {
        case SIGTERM:
            request(wish::down);
            break;
        case SIGHUP:
            request(wish::reboot);
            break;
        case SIGUSR1:
            request(wish::software_restart);
            break;
        default:
            reap();
            break;
        }
    }
}

// The number of the daemon's process is what the kernel says of the sender: inside the card it has another one.
void card_keeper::take_reports()
{
    for (;;) {
        session_report message = {};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
        iovec data = {&message, sizeof message};
        msghdr header = {};
        header.msg_iov = &data;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
        const ssize_t got = ::recvmsg(reports_.get(), &header, MSG_DONTWAIT);
        if (got != static_cast<ssize_t>(sizeof message)) {
            if (got >= 0)
                reports_.reset(); // nobody is left at the other end
            return;
        }
        if (message.what == session_report::event::daemon_ended) {
            daemon_status_ = message.value;
            continue;
        }
        if (message.what == session_report::event::daemon_left) {
            session_left(message.value);
            return;
        }
        const cmsghdr *item = CMSG_FIRSTHDR(&header);
        if (item == nullptr || item->cmsg_type != SCM_CREDENTIALS)
            continue;
        ucred sender;
        std::memcpy(&sender, CMSG_DATA(item), sizeof sender);
        daemon_ = sender.pid;
        daemon_process_.reset(::pidfd_open(daemon_, 0));
        write_line(slot_file("pid"), std::to_string(daemon_));
    }
}

void card_keeper::reap()
{
    for (;;) {
        const pid_t ended = ::waitpid(-1, nullptr, WNOHANG);
        if (ended <= 0)
            return;
        if (agent_.has_ended(ended) && wish_ == wish::none)
            note("bios_agent has ended");
        std::erase(left_, ended);
        if (ended == session_) {
            take_reports(); // what it said last
            session_ended();
        }
    }
}

void card_keeper::tick()
{
    if (wish_ != wish::none && session_ != 0 && steady::now() >= deadline_) {
        note("the daemon's processes do not end; the whole card is killed");
        (void)::kill(session_, SIGKILL);
        deadline_ = steady::now() + KILL_PATIENCE;
    }
    if (phase_ == phase::starting && wish_ == wish::none && daemon_ != 0 &&
        probe_.is_taken(options_.slot, BIOS_DAEMON_SAP) && agent_.serves_or_hangs()) {
        note("serves, process %d", static_cast<int>(daemon_));
        enter(phase::serving, std::string(STATE_SERVING) + " " + std::to_string(daemon_));
    }
    if (agent_.is_due() && !goes_away())
        agent_.ensure_started(root_);
    if (phase_ == phase::pausing && wish_ == wish::none && steady::now() >= deadline_)
        start();
}

void card_keeper::request(wish wanted)
{
    if (wish_ == wish::down)
        return;
    wish_ = wanted;
    deadline_ = steady::now() + KILL_PATIENCE;
    if (wanted != wish::down)
        ends_.clear();
    if (wanted != wish::software_restart)
        agent_.kill();
    if (goes_away())
        kill_left();
    if (session_ == 0)
        session_ended();
    else
        kill_daemon(wanted == wish::down ? SIGTERM : SIGKILL);
}

void card_keeper::kill_daemon(int signal)
{
    if (daemon_process_)
        (void)::pidfd_send_signal(daemon_process_.get(), signal, nullptr, 0);
    else
        (void)::kill(session_, SIGKILL); // a daemon that is not known yet goes with its session
}

void card_keeper::kill_left()
{
    for (const pid_t left : left_)
        (void)::kill(left, SIGKILL);
}

// The daemon has ended, and its child works on in its session; a card that goes down or boots takes both along.
void card_keeper::session_left(int status)
{
    daemon_status_ = status;
    if (goes_away()) {
        (void)::kill(session_, SIGKILL);
        return;
    }
    note("the child that programs finishes its work");
    left_.push_back(session_);
    session_ended();
}

void card_keeper::session_ended()
{
    session_ = 0;
    daemon_ = 0;
    daemon_process_.reset();
    reports_.reset();
    (void)::unlinkat(chassis_dir_fd(), slot_file("pid").c_str(), 0);
    const bool is_bare = goes_away() || left_.empty();
    if (!has_namespaces(options_.way) && is_bare && !kill_processes_of_root(root_.fd()))
        note("processes of the daemon are still there");
    const wish wanted = wish_;
    if (wanted != wish::down)
        wish_ = wish::none;
    switch (wanted) {
    case wish::none:
        daemon_failed(describe_status(daemon_status_));
        break;
    case wish::down:
        note("goes down");
        break;
    case wish::reboot:
        note("is rebooted");
        boot();
        break;
    case wish::software_restart:
        note("software is restarted");
        start();
        break;
    }
}

void card_keeper::daemon_failed(const std::string &what)
{
    const auto now = steady::now();
    ends_.push_back(now);
    while (now - ends_.front() > END_WINDOW)
        ends_.pop_front();
    note("%s %s", program_name(program_), what.c_str());
    if (ends_.size() >= MAX_ENDS_IN_WINDOW) {
        note("%s ended %zu times within %d s and is not started again", program_name(program_), ends_.size(),
             static_cast<int>(END_WINDOW.count()));
        enter(phase::failed, STATE_FAILED);
        return;
    }
    deadline_ = now + RESTART_PAUSE;
    enter(phase::pausing, STATE_RESTARTING);
}

int card_keeper::run()
{
    const unique_fd lock = become_keeper(options_.slot);
    if (!lock)
        throw launcher_error("card " + std::to_string(options_.slot) + " is up already");
    try {
        prepare();
        boot();
        while (wish_ != wish::down || session_ != 0 || !left_.empty() || agent_.runs()) {
            wait_for_event();
            tick();
        }
        write_line(slot_file("state"), STATE_DOWN);
        return EXIT_SUCCESS;
    } catch (const std::exception &failure) {
        note("%s", failure.what());
        enter(phase::failed, STATE_FAILED);
        return EXIT_FAILURE; // the session dies with this process
    }
}

} // namespace

int keep_card(const keeper_options &options)
{
    return card_keeper(options).run();
}
