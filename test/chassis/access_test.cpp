// A chassis belongs to one user: what a process of another user tries on it, by system calls and by the programs.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "bios_messages.h"
#include "bios_opcodes.h"
#include "chassis_dir.h"
#include "chassis_fixture.h"
#include "cmi.h"
#include "endpoints.h"
#include "mts_frame.h"
#include "other_user.h"

namespace
{

namespace files = std::filesystem;

constexpr uid_t OTHER_USER = 65533; // neither root nor the fixture's ordinary user
constexpr std::uint32_t DAEMON_NODE = 0x101;
constexpr const char *DAEMON_ENDPOINT = "00000101.000003f2";

// How a chassis was made, and what its owner has opened since.
struct access_case {
    const char *name;
    bool ordinary_owner;
    mode_t umask;
    bool opened; // others may read what tells of the chassis
};

void PrintTo(const access_case &row, std::ostream *out)
{
    *out << row.name;
}

std::string name_of_case(const testing::TestParamInfo<access_case> &row)
{
    return row.param.name;
}

bool may_make_user_namespaces()
{
    return run_program({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "unshare", "--user",
                        "--map-root-user", "--mount", "--pid", "--fork", "true"})
               .exit_code == 0;
}

class Access : public chassis_test
{
protected:
    void start(bool ordinary_owner)
    {
        if (ordinary_owner)
            run_as_ordinary_user();
        ASSERT_EQ(::chmod(workspace().c_str(), 0755), 0); // as everybody's path to a directory of one's own is
        insert({.slot = 1});
        limit_waits(60);
        up();
        owner_ = ordinary_owner ? 65534 : 0;
        daemon_ = daemon_pid(1);
        ASSERT_EQ(chassis({"debug", "1", "+info"}).exit_code, 0);
    }
    // A copy of a program that everybody may run.
    std::string program_for_all(const char *program) const
    {
        const std::string copy = workspace() + "/for-all-" + files::path(program).filename().string();
        files::copy_file(program, copy, files::copy_options::skip_existing);
        return copy;
    }
    finished_program as_other_user(const char *program, const std::vector<std::string> &words) const
    {
        std::vector<std::string> all = {"setpriv",          "--reuid=65533",          "--regid=65533",
                                        "--clear-groups",   program_for_all(program), "--dir",
                                        chassis_directory()};
        all.insert(all.end(), words.begin(), words.end());
        return run_program(all);
    }
    void expect_unharmed()
    {
        EXPECT_EQ(daemon_pid(1), daemon_) << "the daemon is another one";
        const finished_program status = chassis({"status"});
        EXPECT_NE(status.output.find("serving"), std::string::npos) << status.output << status.errors;
        EXPECT_EQ(flash_of(1) == old_image().bytes, true) << "the flash has changed";
        EXPECT_FALSE(is_marked(1));
        EXPECT_FALSE(is_locked(1));
        for (const char *command : {"lock", "unlock"}) {
            const finished_program served = biosctl({command, "1"});
            EXPECT_EQ(served.exit_code, 0) << served.errors;
        }
    }
    void chmod(const std::string &name, mode_t mode) const
    {
        ASSERT_EQ(::chmod((chassis_directory() + "/" + name).c_str(), mode), 0) << name;
    }
    uid_t owner() const { return owner_; }

private:
    uid_t owner_ = 0;
    pid_t daemon_ = 0;
};

class AccessOfAnotherUser : public Access, public testing::WithParamInterface<access_case>
{
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root to become two other users";
        if (GetParam().ordinary_owner && !may_make_user_namespaces())
            GTEST_SKIP() << "an ordinary user may not make user namespaces here";
        const mode_t before = ::umask(GetParam().umask);
        start(GetParam().ordinary_owner);
        ::umask(before);
        if (GetParam().opened) {
            for (const char *folder : {".", "inventory", "inventory/1", "slots"})
                chmod(folder, 0755);
        }
    }
    bool is_opened(const attempt &each) const
    {
        return GetParam().opened && each.reads && each.what.find("/inventory/") != std::string::npos;
    }
    // Refused to the other user; and the owner, to whom it is not, shows that the attempt is one.
    void expect_refused(const std::vector<attempt> &attempts) const
    {
        const std::vector<int> refused = results_of(OTHER_USER, attempts);
        for (std::size_t i = 0; i < attempts.size(); ++i) {
            if (is_opened(attempts[i]))
                EXPECT_EQ(refused[i], 0) << attempts[i].what << ": " << std::strerror(refused[i]);
            else
                EXPECT_TRUE(refused[i] == EACCES || refused[i] == EPERM)
                    << attempts[i].what << ": " << std::strerror(refused[i]);
        }
        std::vector<attempt> harmless;
        std::copy_if(attempts.begin(), attempts.end(), std::back_inserter(harmless),
                     [](const attempt &each) { return each.may_be_repeated; });
        const std::vector<int> allowed = results_of(owner(), harmless);
        for (std::size_t i = 0; i < harmless.size(); ++i)
            EXPECT_EQ(allowed[i], 0) << "the owner: " << harmless[i].what << ": " << std::strerror(allowed[i]);
    }
    attempt creates_in(const char *folder) const { return creating_in(chassis_directory(), folder); }
    attempt reads(const char *file) const { return reading(chassis_directory(), file); }
    attempt writes(const char *file) const { return writing_to(chassis_directory(), file); }
    attempt removes(const char *file) const
    {
        EXPECT_TRUE(files::exists(files::symlink_status(chassis_directory() + "/" + file))) << file;
        return removing(chassis_directory(), file);
    }
    void expect_no_lock(const char *file) const { expect_refused(locking(chassis_directory(), file)); }
};

INSTANTIATE_TEST_SUITE_P(To, AccessOfAnotherUser,
                         testing::Values(access_case{"AChassisOfRoot", false, 022, false},
                                         access_case{"AChassisMadeWithAnOpenUmask", false, 0, false},
                                         access_case{"AChassisThatMayBeReadInParts", false, 0, true},
                                         access_case{"AChassisOfAnOrdinaryUser", true, 022, false},
                                         access_case{"AnOrdinaryUsersThatMayBeReadInParts", true, 0, true}),
                         name_of_case);

class AccessToAnOpenSocket : public Access, public testing::WithParamInterface<access_case>
{
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root to become two other users";
        if (GetParam().ordinary_owner && !may_make_user_namespaces())
            GTEST_SKIP() << "an ordinary user may not make user namespaces here";
        start(GetParam().ordinary_owner);
    }
    // A sound request to take the lock of module 1.
    static std::string lock_request()
    {
        const bios_module_lock_req_t body{be32::of(BIOS_MODULE_LOCK_TAKE), be32::of(DAEMON_NODE)};
        mts_frame_header header{};
        header.magic = MTS_FRAME_MAGIC;
        header.version = MTS_FRAME_VERSION;
        header.kind = mts_frame_kind::request;
        header.opcode = MTS_OPC_BIOS_MODULE_LOCK;
        header.source_node = 1;
        header.source_sap = 0x7fff0000;
        header.request_id = 1;
        header.payload_bytes = MTS_REQUEST_HEADER_BYTES + sizeof body;
        std::string frame(reinterpret_cast<const char *>(&header), sizeof header);
        frame.append(MTS_REQUEST_HEADER_BYTES, '\0');
        return frame.append(reinterpret_cast<const char *>(&body), sizeof body);
    }
    // "ENDPOINT COUNT UID" of each line.
    std::vector<std::string> refused() const
    {
        std::istringstream lines(file_content(chassis_directory() + "/transport/refused"));
        std::vector<std::string> found;
        for (std::string line; std::getline(lines, line);)
            found.push_back(line.substr(line.find(' ') + 1));
        return found;
    }
};

INSTANTIATE_TEST_SUITE_P(Of, AccessToAnOpenSocket,
                         testing::Values(access_case{"Root", false, 022, false},
                                         access_case{"AnOrdinaryUser", true, 022, false}),
                         name_of_case);

// For tests with one chassis of root.
class AccessToTheDirectory : public Access
{
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root to give something to another user";
        start(false);
    }
    void expect_not_used(const std::string &reason)
    {
        for (const char *command : {"status", "down", "up"}) {
            const finished_program refused = chassis({command});
            EXPECT_EQ(refused.exit_code, 1) << command;
            EXPECT_NE(refused.errors.find(reason), std::string::npos) << refused.errors;
        }
        const finished_program refused = biosctl({"lock", "1"});
        EXPECT_EQ(refused.exit_code, 1);
        EXPECT_NE(refused.errors.find(reason), std::string::npos) << refused.errors;
    }
    finished_program init_at(const std::string &place) const
    {
        return run_program({CHASSIS_PROGRAM, "--dir", place, "init", workspace() + "/description.toml"});
    }
};

} // namespace

TEST_P(AccessOfAnotherUser, BindsNoEndpointAndReachesNone)
{
    const std::string &directory = chassis_directory();
    expect_refused({binding(directory, "00000901.000003f2"), sending_to(directory, DAEMON_ENDPOINT, "x"),
                    removes(("mts/" + std::string(DAEMON_ENDPOINT)).c_str()), creates_in("mts"),
                    listing(directory, "mts"), writes("mts/lock"), removes("mts/lock")});
    expect_no_lock("mts/lock");
    expect_unharmed();
}

TEST_P(AccessOfAnotherUser, TakesNoLockAndReadLocksNone)
{
    expect_refused({writes("slots/1/locks/modules"), reads("slots/1/locks/modules"),
                    removes("slots/1/locks/modules"), creates_in("slots/1/locks"), writes("launcher.lock"),
                    removes("launcher.lock"), writes("slots/1/keeper"), removes("slots/1/keeper")});
    expect_no_lock("slots/1/locks/modules");
    expect_no_lock("launcher.lock");
    expect_unharmed();
}

TEST_P(AccessOfAnotherUser, ReadsChangesAndLocksNoFlash)
{
    for (const char *flash : {"slots/1/flash/primary", "slots/1/flash/alternate"}) {
        const std::string folder = flash;
        const auto in = [&](const char *name) { return folder + "/" + name; };
        expect_refused({listing(chassis_directory(), folder), creates_in(flash), reads(in("data").c_str()),
                        writes(in("data").c_str()), removes(in("data").c_str()), writes(in("protected").c_str()),
                        writes(in("timing").c_str()), removes(in("size_bytes").c_str())});
        expect_no_lock(in("writer").c_str());
    }
    expect_unharmed();
}

TEST_P(AccessOfAnotherUser, ChangesNoInventoryValue)
{
    expect_refused({creates_in("."), creates_in("inventory"), creates_in("inventory/1"),
                    writes("inventory/1/sup_state"), removes("inventory/1/sup_state"), writes("inventory/1/kind"),
                    listing(chassis_directory(), "inventory/1"), reads("inventory/1/sup_state"),
                    reads("inventory/1/card_id"), writes("name"), writes("isolation")});
    expect_unharmed();
}

TEST_P(AccessOfAnotherUser, ChangesNothingOfACard)
{
    expect_refused({creates_in("slots"),
                    creates_in("slots/1"),
                    creates_in("slots/1/root"),
                    creates_in("slots/1/root/tmp"),
                    creates_in("slots/1/root/var/tmp"),
                    creates_in("slots/1/root/bootflash"),
                    creates_in("slots/1/root/mnt/pss"),
                    creates_in("slots/1/root/vesk/sbin"),
                    writes("slots/1/root/etc/fstab"),
                    creates_in("slots/1/registers"),
                    creates_in("slots/1/debug"),
                    writes("slots/1/debug/flags"),
                    removes("slots/1/debug/flags"),
                    writes("slots/1/history"),
                    reads("slots/1/history"),
                    removes("slots/1/history"),
                    writes("slots/1/log"),
                    reads("slots/1/log"),
                    writes("slots/1/state"),
                    writes("slots/1/pid"),
                    writes("slots/1/serves"),
                    listing(chassis_directory(), "slots/1")});
    expect_unharmed();
}

TEST_P(AccessOfAnotherUser, ChangesNothingOfTheTransport)
{
    const attempt notice = {
        "leave a notice", [this] {
            if (chassis_attach(chassis_directory(), 0) != 0)
                return errno;
            const std::int32_t handle = mts_bind(BIND_KIND, ANY_SAP, BIND_OPTIONS, "test");
            return handle < 0 || mts_send(handle, MTS_NODE_LISTENERS, 0, 4792, "x", 1, 0, 0, 0) < 0 ? errno : 0;
        }};
    expect_refused({notice}); // the owner's makes the file
    expect_refused({writes("transport/notices"), reads("transport/notices"), removes("transport/notices"),
                    writes("transport/wait_limit_s"), removes("transport/wait_limit_s"), creates_in("transport")});
    expect_no_lock("transport/notices");
    expect_unharmed();
}

TEST_P(AccessOfAnotherUser, GetsNothingDoneByThePrograms)
{
    const std::vector<std::vector<std::string>> chassis_commands = {
        {"status"},       {"down"},
        {"up"},           {"restart", "1"},
        {"log", "1"},     {"debug", "1", "+all"},
        {"history", "1"}, {"init", workspace() + "/description.toml"}};
    for (const std::vector<std::string> &words : chassis_commands) {
        const finished_program refused = as_other_user(CHASSIS_PROGRAM, words);
        EXPECT_EQ(refused.exit_code, 1) << words.front() << ": " << refused.output << refused.errors;
        EXPECT_EQ(refused.output, "") << words.front();
        EXPECT_NE(refused.errors.find(chassis_directory()), std::string::npos) << refused.errors;
    }
    const std::vector<std::vector<std::string>> biosctl_commands = {
        {"show"}, {"lock", "1"}, {"unlock", "1"}, {"program", "1"}, {"watch", "--once"}};
    for (const std::vector<std::string> &words : biosctl_commands) {
        const finished_program refused = as_other_user(BIOSCTL_PROGRAM, words);
        EXPECT_EQ(refused.exit_code, 1) << words.front() << ": " << refused.output << refused.errors;
        EXPECT_EQ(refused.output, "") << words.front();
        EXPECT_NE(refused.errors.find("is not used: "), std::string::npos) << refused.errors;
    }
    expect_unharmed();
}

// Somebody has opened the way to a socket. A message is judged by who has sent it, not by the way that it took.
TEST_P(AccessToAnOpenSocket, GetsNoMessageServedAndIsTold)
{
    const std::string socket = "mts/" + std::string(DAEMON_ENDPOINT);
    for (const char *folder : {".", "mts"})
        chmod(folder, 0755);
    const attempt request = sending_to(chassis_directory(), DAEMON_ENDPOINT, lock_request());
    EXPECT_EQ(results_of(OTHER_USER, {request}), std::vector<int>{EACCES}) << "the socket is open by itself";
    chmod(socket, 0666);

    ASSERT_EQ(results_of(OTHER_USER, {request, request, request}), std::vector<int>(3, 0));
    EXPECT_EQ(biosctl({"show"}).exit_code, 0); // is served behind what was sent before
    EXPECT_EQ(lines_with(1, "opc=4703"), 0U);
    EXPECT_FALSE(is_locked(1));
    // The daemon of an ordinary user knows others by one number only.
    const std::string sender = std::to_string(GetParam().ordinary_owner ? 65534 : OTHER_USER);
    const std::string endpoint = DAEMON_ENDPOINT;
    EXPECT_EQ(refused(), (std::vector<std::string>{endpoint + " 1 " + sender, endpoint + " 2 " + sender}));
    expect_unharmed();

    ASSERT_EQ(results_of(owner(), {request}), std::vector<int>{0});
    EXPECT_TRUE(wait_until([&] { return is_locked(1); })) << "the owner's request is not served either";
}

TEST_F(AccessToTheDirectory, IsRefusedWhileItIsAnotherUsers)
{
    ASSERT_EQ(::chown(chassis_directory().c_str(), OTHER_USER, OTHER_USER), 0);
    expect_not_used("belongs to user 65533, and this is user 0");
    ASSERT_EQ(::chown(chassis_directory().c_str(), 0, 0), 0);
    expect_unharmed();
}

TEST_F(AccessToTheDirectory, IsRefusedWhileOthersMayWriteThere)
{
    for (const mode_t mode : {0770U, 0707U, 0722U}) {
        chmod(".", mode);
        expect_not_used("other users may write to it");
    }
    chmod(".", 0755);
    expect_unharmed();
}

TEST_F(AccessToTheDirectory, IsNotStartedWhileOthersMayWriteToAPartOfIt)
{
    ASSERT_EQ(chassis({"down"}).exit_code, 0);
    for (const char *folder : {"inventory", "inventory/1", "slots", "slots/1", "mts", "slots/1/locks", "transport",
                               "slots/1/root", "slots/1/flash/primary", "slots/1/debug"}) {
        chmod(folder, 0777);
        const finished_program refused = chassis({"up"});
        EXPECT_EQ(refused.exit_code, 1) << folder;
        EXPECT_NE(refused.errors.find(std::string(folder) + " of the chassis: other users may write to it"),
                  std::string::npos)
            << refused.errors;
        chmod(folder, 0700);
        ASSERT_EQ(::chown((chassis_directory() + "/" + folder).c_str(), OTHER_USER, OTHER_USER), 0);
        EXPECT_EQ(chassis({"up"}).exit_code, 1) << folder << " is another user's";
        ASSERT_EQ(::chown((chassis_directory() + "/" + folder).c_str(), 0, 0), 0);
    }
    const finished_program up = chassis({"up"});
    EXPECT_EQ(up.exit_code, 0) << up.errors;
}

TEST_F(AccessToTheDirectory, IsMadeWhereNobodyElseHasAHandInIt)
{
    const std::string place = workspace() + "/place";
    ASSERT_TRUE(files::create_directory(place));
    ASSERT_EQ(::chown(place.c_str(), OTHER_USER, OTHER_USER), 0);
    EXPECT_NE(init_at(place).errors.find("belongs to user 65533"), std::string::npos);
    ASSERT_EQ(::chown(place.c_str(), 0, 0), 0);
    ASSERT_EQ(::chmod(place.c_str(), 0777), 0);
    EXPECT_NE(init_at(place).errors.find("other users may write to it"), std::string::npos);
    EXPECT_TRUE(files::is_empty(place));

    ASSERT_EQ(::chmod(place.c_str(), 0755), 0);
    const finished_program made = init_at(place);
    EXPECT_EQ(made.exit_code, 0) << made.errors;
    struct stat status = {};
    ASSERT_EQ(::stat(place.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
}

// A link that leads into a chassis of its victim, or nowhere.
TEST_F(AccessToTheDirectory, IsNotMadeThroughAPlantedLink)
{
    const std::string place = workspace() + "/place";
    ASSERT_TRUE(files::create_directory(workspace() + "/elsewhere"));
    for (const char *target : {"/elsewhere", "/nowhere"}) {
        files::create_directory_symlink(workspace() + target, place);
        ASSERT_EQ(::lchown(place.c_str(), OTHER_USER, OTHER_USER), 0);
        EXPECT_EQ(init_at(place).exit_code, 1) << target;
        EXPECT_TRUE(files::is_symlink(place));
        files::remove(place);
    }
    EXPECT_TRUE(files::is_empty(workspace() + "/elsewhere"));
    EXPECT_FALSE(files::exists(workspace() + "/nowhere"));
}
