// One programming in each of the ways in which a card gets its private root.
#include <csignal>
#include <unistd.h>

#include "chassis_fixture.h"

namespace
{

class Isolation : public chassis_test
{
protected:
    // The way may not be allowed on this machine.
    std::string why_not(const std::string &way)
    {
        insert({.slot = 1});
        try {
            up(way);
        } catch (const std::runtime_error &failure) {
            return failure.what();
        }
        return {};
    }
    void expect_programs(const std::string &way)
    {
        EXPECT_EQ(isolation(1), way);
        const finished_program finished = biosctl({"program", "1"});
        EXPECT_EQ(finished.exit_code, 0) << finished.errors;
        EXPECT_EQ(flash_of(1) == new_image().bytes, true);
        EXPECT_FALSE(is_marked(1));
        expect_tidy(1);
    }
    // Without namespaces nothing ends a card's processes by itself.
    void expect_child_finishes_without_its_daemon()
    {
        const test_image newest = image("9.9");
        make_image_tree(slot_file(1, "root"), 90, newest);
        keep_pauses(1);
        running_program watching(biosctl_words({"program", "1"}));
        ASSERT_TRUE(wait_until([&] { return child_pid(1) != 0; }));
        const pid_t child = child_pid(1);
        const pid_t daemon = daemon_pid(1);
        ASSERT_EQ(::kill(daemon, SIGKILL), 0);
        EXPECT_TRUE(wait_until([&] { return ::kill(child, 0) != 0; }));
        EXPECT_EQ(flash_of(1) == newest.bytes, true);
        EXPECT_TRUE(wait_until([&] { return daemon_pid(1) != 0 && daemon_pid(1) != daemon; }));
        EXPECT_EQ(watching.wait().exit_code, 1);
        EXPECT_TRUE(wait_until([&] { return !is_locked(1); }));
    }
};

bool may_mount()
{
    return run_program({"unshare", "--mount", "mount", "-t", "tmpfs", "none", "/mnt"}).exit_code == 0;
}

bool may_make_user_namespaces(const std::vector<std::string> &as_user)
{
    std::vector<std::string> words = as_user;
    for (const char *word : {"unshare", "--user", "--map-root-user", "--mount", "--pid", "--fork", "true"})
        words.emplace_back(word);
    return run_program(words).exit_code == 0;
}

} // namespace

TEST_F(Isolation, ByMountsOfRoot)
{
    if (::geteuid() != 0 || !may_mount())
        GTEST_SKIP() << "needs root with the right to mount";
    ASSERT_EQ(why_not("mount"), "");
    expect_programs("mount");
}

TEST_F(Isolation, ByAUserNamespaceOfAnOrdinaryUser)
{
    std::vector<std::string> as_user;
    if (::geteuid() == 0)
        as_user = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    if (!may_make_user_namespaces(as_user))
        GTEST_SKIP() << "an ordinary user may not make user namespaces here";
    if (::geteuid() == 0)
        run_as_ordinary_user();
    ASSERT_EQ(why_not("user"), "");
    expect_programs("user");
}

TEST_F(Isolation, ByAPlainChangeOfRoot)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root";
    ASSERT_EQ(why_not("plain"), "");
    expect_programs("plain");
    expect_child_finishes_without_its_daemon();
}
