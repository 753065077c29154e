#include "chassis_fixture.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/wait.h>

#include "bios_flash.h"
#include "chassis_dir.h"
#include "daemon_node.h"
#include "without_pauses.h"

namespace
{

namespace files = std::filesystem;

constexpr unsigned ORDINARY_USER = 65534;
constexpr const char *TRACE_FILE = "bios_daemon.dbg"; // every process of the daemon that exits adds to it

constexpr const char *DAEMON_VARIABLE = "BIOS_DAEMON";
constexpr const char *GUARD_SCRIPT = R"(read -r word || { folder=$1; shift; "$@"; rm -rf "$folder"; })";

// The file may go at any moment.
std::string content_if_any(const std::string &path)
{
    try {
        return file_content(path);
    } catch (const std::runtime_error &) {
        return {};
    }
}

// After a hundred thousand requests the whole log would bury what failed.
std::string end_of(const std::string &log)
{
    constexpr std::size_t PRINTED_BYTES = 256 * 1024;
    return log.size() <= PRINTED_BYTES ? log : "...\n" + log.substr(log.size() - PRINTED_BYTES);
}

// Fields of /proc/PID/stat that tell the parent; 0 when there is no such process.
pid_t parent_of(pid_t process)
{
    std::string text;
    try {
        text = file_content("/proc/" + std::to_string(process) + "/stat");
    } catch (const std::runtime_error &) {
        return 0;
    }
    // The name in parentheses may hold anything.
    std::istringstream rest(text.substr(std::min(text.rfind(')') + 1, text.size())));
    std::string state;
    pid_t parent = 0;
    rest >> state >> parent;
    return state == "Z" ? 0 : parent;
}

std::string name_of(pid_t process)
{
    try {
        return file_content("/proc/" + std::to_string(process) + "/comm");
    } catch (const std::runtime_error &) {
        return {};
    }
}

// What chassis up and chassis restart start.
void use_daemon(const std::string &program)
{
    (void)::setenv(DAEMON_VARIABLE, program.c_str(), 1);
}

bool ends_in_time(pid_t process)
{
    return wait_until([&] { return ::kill(process, 0) != 0; }, std::chrono::seconds(10));
}

} // namespace

chassis_test::chassis_test(daemon_build daemon)
    : daemon_program_(daemon == daemon_build::shipped ? BIOS_DAEMON_PROGRAM : PAUSELESS_DAEMON_PROGRAM)
{
    use_daemon(daemon_program_);
    char name[] = "/tmp/chassis_test.XXXXXX";
    if (::mkdtemp(name) == nullptr)
        throw std::runtime_error("mkdtemp");
    workspace_ = name;
    directory_ = workspace_ + "/chassis.d";
}

chassis_test::~chassis_test()
{
    (void)::unsetenv(DAEMON_VARIABLE);
    for (const small_disk &disk : disks_)
        (void)::umount2(disk.folder.c_str(), MNT_DETACH);
    std::error_code ignored;
    files::remove_all(workspace_, ignored);
}

// Ends the guard's watch only when the chassis is down.
void chassis_test::TearDown()
{
    if (HasFailure()) {
        for (const auto &[slot, card] : cards_)
            std::cerr << "---- log of slot " << slot << "\n" << end_of(log_of(slot)) << "----\n";
    }
    if (!made_)
        return;
    std::vector<pid_t> daemons;
    for (const auto &[slot, card] : cards_)
        daemons.push_back(daemon_pid(slot));
    const finished_program down = chassis({"down"});
    EXPECT_EQ(down.exit_code, 0) << down.errors;
    for (const pid_t daemon : daemons)
        EXPECT_TRUE(daemon == 0 || ends_in_time(daemon)) << "a daemon outlived its chassis";
    if (down.exit_code == 0)
        (void)!::write(guard_.get(), "\n", 1);
    guard_.reset();
    (void)::waitpid(guard_pid_, nullptr, 0);
}

void chassis_test::run_as_ordinary_user()
{
    ordinary_user_ = true;
    // The build folder need not be open to everybody. The launcher finds the daemon and the tools beside itself.
    for (const char *program : {CHASSIS_PROGRAM, BIOSCTL_PROGRAM, daemon_program_.c_str(), BIOS_AGENT_PROGRAM,
                                INIT_SYSTEM_PROGRAM, NBITOOL_PROGRAM, VESKADD_PROGRAM})
        files::copy_file(program, workspace_ + "/" + files::path(program).filename().string());
    use_daemon(workspace_ + "/" + files::path(daemon_program_).filename().string());
    chassis_program_ = workspace_ + "/chassis";
    biosctl_program_ = workspace_ + "/biosctl";
    if (::chown(workspace_.c_str(), ORDINARY_USER, ORDINARY_USER) != 0)
        throw std::runtime_error("chown");
}

std::vector<std::string> chassis_test::with_user(std::vector<std::string> words) const
{
    if (!ordinary_user_)
        return words;
    const std::string id = std::to_string(ORDINARY_USER);
    const std::string front[] = {"setpriv", "--reuid=" + id, "--regid=" + id, "--clear-groups"};
    words.insert(words.begin(), std::begin(front), std::end(front));
    return words;
}

finished_program chassis_test::chassis(const std::vector<std::string> &words) const
{
    std::vector<std::string> all = {chassis_program_, "--dir", directory_};
    all.insert(all.end(), words.begin(), words.end());
    return run_program(with_user(all));
}

std::vector<std::string> chassis_test::biosctl_words(const std::vector<std::string> &words) const
{
    std::vector<std::string> all = {biosctl_program_, "--dir", directory_};
    all.insert(all.end(), words.begin(), words.end());
    return with_user(all);
}

finished_program chassis_test::biosctl(const std::vector<std::string> &words) const
{
    return run_program(biosctl_words(words));
}

std::string chassis_test::describe(const card_plan &card)
{
    std::ostringstream text;
    text << "\n[[card]]\nslot = " << card.slot << "\ncard_id = " << card.card_id << "\nkind = \"" << card.kind
         << "\"\nrole = \"" << card.role << "\"\nflash_kib = " << card.flash_kib
         << "\nsector_kib = " << card.sector_kib << "\n";
    if (card.in_flash != nullptr)
        text << "flash_image = \"" << card.in_flash->path << "\"\n";
    if (card.in_tree != nullptr) {
        const std::string tree = workspace_ + "/tree" + std::to_string(card.slot);
        make_image_tree(tree, card.card_id, *card.in_tree);
        text << "image_tree = \"" << tree << "\"\n";
    }
    if (card.bootflash_mib != 0)
        text << "bootflash_mib = " << card.bootflash_mib << "\n";
    if (!card.boot_loader.empty())
        text << "boot_loader = \"" << card.boot_loader << "\"\n";
    if (!card.ks_image.empty())
        text << "ks_image = \"" << card.ks_image << "\"\n";
    if (!card.serves)
        text << "serves = false\n";
    text << "answers = \"" << card.answers << "\"\n";
    if (card.answer_rows)
        text << "answer_rows = " << *card.answer_rows << "\n";
    if (card.answer_seed)
        text << "answer_seed = " << *card.answer_seed << "\n";
    return text.str();
}

void chassis_test::write_description(const std::string &isolation)
{
    std::string text = "[chassis]\nname = \"test\"\nisolation = \"" + isolation + "\"\n";
    if (wait_limit_s_)
        text += "wait_limit_s = " + std::to_string(*wait_limit_s_) + "\n";
    for (const auto &[slot, card] : cards_)
        text += describe(card);
    write_file(workspace_ + "/description.toml", text);
}

void chassis_test::start_guard()
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe");
    guard_.reset(ends[1]);
    const unique_fd input(ends[0]);
    std::vector<std::string> words = {"sh", "-c", GUARD_SCRIPT, "guard", workspace_};
    for (const std::string &word : with_user({chassis_program_, "--dir", directory_, "down"}))
        words.push_back(word);
    guard_pid_ = ::fork();
    if (guard_pid_ != 0)
        return;
    std::vector<char *> arguments;
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str())); // execvp changes none
    arguments.push_back(nullptr);
    (void)::setsid();
    const int null = ::open("/dev/null", O_WRONLY);
    (void)::dup2(input.get(), STDIN_FILENO);
    (void)::dup2(null, STDOUT_FILENO);
    (void)::dup2(null, STDERR_FILENO);
    (void)::execvp(arguments.front(), arguments.data());
    ::_exit(127);
}

void chassis_test::up(const std::string &isolation)
{
    write_description(isolation);
    start(workspace_ + "/description.toml");
}

void chassis_test::up_with_standby()
{
    insert({.slot = 1});
    insert({.slot = 2, .role = "standby"});
    up();
}

bool chassis_test::up_with_disks()
{
    try {
        up("mount");
    } catch (const std::runtime_error &failure) {
        if (std::string(failure.what()).find("isolation mount: ") == std::string::npos)
            throw;
        return false;
    }
    return true;
}

bool chassis_test::put_on_disk(const std::string &folder, unsigned kib, unsigned files)
{
    static const bool mounts_here = ::geteuid() == 0 && ::unshare(CLONE_NEWNS) == 0 &&
                                    ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    disks_.push_back({directory_ + "/" + folder, kib, files});
    return mounts_here;
}

// What is in the folders goes along.
void chassis_test::mount_disks() const
{
    for (const small_disk &disk : disks_) {
        const std::string before = disk.folder + ".before";
        files::rename(disk.folder, before);
        files::create_directory(disk.folder);
        files::permissions(disk.folder, files::status(before).permissions());
        const std::string size = "size=" + std::to_string(disk.kib) + "k,nr_inodes=" + std::to_string(disk.files);
        if (::mount("none", disk.folder.c_str(), "tmpfs", 0, size.c_str()) != 0)
            throw std::runtime_error("mount " + disk.folder);
        files::permissions(disk.folder, files::status(before).permissions());
        if (run_program({"cp", "-a", before + "/.", disk.folder}).exit_code != 0)
            throw std::runtime_error("cp " + disk.folder);
        files::remove_all(before);
    }
}

void chassis_test::up_from(const std::string &description, const std::vector<unsigned> &slots)
{
    for (const unsigned slot : slots)
        insert({.slot = slot});
    start(description);
}

void chassis_test::start(const std::string &description)
{
    const finished_program init = chassis({"init", description});
    if (init.exit_code != 0)
        throw std::runtime_error("chassis init: " + init.errors);
    made_ = true;
    mount_disks();
    start_guard();
    for (const auto &[slot, card] : cards_)
        alternate_before_[slot] = flash_of(slot, "alternate");
    const finished_program up = chassis({"up"});
    if (up.exit_code != 0)
        throw std::runtime_error("chassis up: " + up.errors);
    if (chassis_attach(directory_, 0) != 0)
        throw std::runtime_error("chassis_attach");
}

programming chassis_test::program(std::uint32_t module, const programming_options &options)
{
    requester asking;
    programming seen = asking.start(module, options);
    if (seen.error == 0 && seen.answer == 0)
        asking.await_end(seen);
    return seen;
}

void chassis_test::keep_pauses(unsigned slot) const
{
    write_file(card_file(slot, PAUSES), "");
}

std::string chassis_test::slot_file(unsigned slot, const std::string &name) const
{
    return directory_ + "/slots/" + std::to_string(slot) + "/" + name;
}

std::string chassis_test::flash_file(unsigned slot, const std::string &name, const std::string &flash) const
{
    return slot_file(slot, "flash/" + flash + "/" + name);
}

std::string chassis_test::flash_of(unsigned slot, const std::string &flash) const
{
    return file_content(flash_file(slot, "data", flash));
}

std::int32_t chassis_test::flash_version(unsigned slot, std::string &version) const
{
    char text[BIOS_VERSION_TEXT_BYTES] = {};
    if (chassis_attach(directory_, slot) != 0)
        throw std::runtime_error("chassis_attach");
    const std::int32_t status = get_bios_flash_version(text, BIOS_FLASH_PRIMARY);
    if (chassis_attach(directory_, 0) != 0)
        throw std::runtime_error("chassis_attach");
    version = text;
    return status;
}

bool chassis_test::is_marked(unsigned slot) const
{
    return files::exists(flash_file(slot, "programming"));
}

// A boot flash of limited size is mounted in the card and not seen from outside, but through the card's process.
std::string chassis_test::card_file(unsigned slot, const std::string &path) const
{
    if (cards_.at(slot).bootflash_mib != 0)
        return "/proc/" + std::to_string(daemon_pid(slot)) + "/root" + path;
    return slot_file(slot, "root" + path);
}

std::string chassis_test::on_bootflash(unsigned slot, const std::string &name)
{
    own_files_.insert(name);
    return card_file(slot, "/bootflash/" + name);
}

bool chassis_test::card_has(unsigned slot, const std::string &path) const
{
    return files::exists(files::symlink_status(card_file(slot, path)));
}

std::string chassis_test::log_of(unsigned slot) const
{
    return content_if_any(slot_file(slot, "log"));
}

unsigned chassis_test::lines_with(unsigned slot, const std::string &text) const
{
    std::istringstream log(log_of(slot));
    unsigned count = 0;
    for (std::string line; std::getline(log, line);) {
        if (line.find(text) != std::string::npos)
            ++count;
    }
    return count;
}

pid_t chassis_test::daemon_pid(unsigned slot) const
{
    const std::string text = content_if_any(slot_file(slot, "pid"));
    return text.empty() ? 0 : std::stoi(text);
}

// The daemon's other children are shells.
pid_t chassis_test::agent_pid(unsigned slot) const
{
    struct stat root = {};
    if (::stat(slot_file(slot, "root").c_str(), &root) != 0)
        return 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        std::string name;
        std::ifstream(entry.path() / "comm") >> name;
        struct stat of_process = {};
        if (name == "bios_agent" && ::stat((entry.path() / "root/").c_str(), &of_process) == 0 &&
            of_process.st_dev == root.st_dev && of_process.st_ino == root.st_ino)
            return static_cast<pid_t>(std::stol(entry.path().filename()));
    }
    return 0;
}

pid_t chassis_test::child_pid(unsigned slot) const
{
    const pid_t daemon = daemon_pid(slot);
    if (daemon == 0)
        return 0;
    for (const files::directory_entry &entry : files::directory_iterator("/proc")) {
        const pid_t process = std::atoi(entry.path().filename().c_str());
        if (process > 0 && parent_of(process) == daemon && name_of(process) == "bios_daemon\n")
            return process;
    }
    return 0;
}

// In the file, as the agent answers nobody but the chassis's owner.
bool chassis_test::is_locked(unsigned slot) const
{
    std::istringstream granted(content_if_any(slot_file(slot, "locks/granted")));
    for (std::string agent, id, node; granted >> agent >> id >> node;) {
        if (std::stoul(node, nullptr, 16) == daemon_node(slot, true))
            return true;
        std::getline(granted, node);
    }
    return false;
}

std::string chassis_test::isolation(unsigned slot) const
{
    std::string text = content_if_any(slot_file(slot, "isolation"));
    return text.substr(0, text.find('\n'));
}

void chassis_test::set_faults(unsigned slot, const std::string &rules) const
{
    if (rules.empty())
        files::remove(flash_file(slot, "faults"));
    else
        write_file(flash_file(slot, "faults"), rules + "\n");
}

void chassis_test::protect(unsigned slot, const std::string &sectors) const
{
    write_file(flash_file(slot, "protected"), sectors);
}

void chassis_test::expect_tidy(unsigned slot, const std::vector<std::string> &but) const
{
    EXPECT_FALSE(is_locked(slot)) << "the module's lock is still held";
    EXPECT_EQ(child_pid(slot), 0) << "a programming child is left";
    EXPECT_EQ(flash_of(slot, "alternate") == alternate_before_.at(slot), true) << "the alternate flash has changed";
    for (const files::directory_entry &entry : files::directory_iterator(card_file(slot, "/bootflash"))) {
        const std::string name = entry.path().filename().string();
        const bool expected =
            name == TRACE_FILE || own_files_.contains(name) || std::find(but.begin(), but.end(), name) != but.end();
        EXPECT_TRUE(expected) << name << " is left on the boot flash";
    }
    EXPECT_TRUE(files::is_empty(card_file(slot, "/var/tmp")));
}

void chassis_test::expect_programmed(const programming &seen, unsigned slot, const test_image &wanted) const
{
    EXPECT_EQ(seen.error, 0) << seen;
    EXPECT_EQ(seen.answer, 0U) << seen;
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(0)) << seen;
    EXPECT_TRUE(seen.verified()) << seen;
    for (std::size_t i = 1; i < seen.progress.size(); ++i)
        EXPECT_LT(seen.progress[i - 1].percent, seen.progress[i].percent) << "progress does not grow";
    EXPECT_EQ(flash_of(slot) == wanted.bytes, true) << "the flash does not equal the image";
    EXPECT_FALSE(is_marked(slot));
    std::string version;
    EXPECT_EQ(flash_version(slot, version), 0);
    EXPECT_EQ(version, wanted.version);
}

void chassis_test::expect_next_succeeds(unsigned slot, const test_image &wanted)
{
    const programming next = program(slot);
    expect_programmed(next, slot, wanted);
    expect_tidy(slot);
}
