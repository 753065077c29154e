// What is kept of a flash beside its contents: its writer, its marker on stable storage, its wear.
#include "flash_fixture.h"

#include <cerrno>
#include <sys/stat.h>

#include "flash_progress_file.h"
#include "flash_state.h"

namespace
{

class FlashState : public chassis_flash_fixture
{
protected:
    void SetUp() override
    {
        chassis_flash_fixture::SetUp();
        ASSERT_TRUE(make_flash_folder(TEST_SLOT, 0));
    }
    static std::unique_ptr<flash_state> opened()
    {
        auto state = std::make_unique<flash_state>();
        EXPECT_TRUE(state->open(TEST_SLOT, 0));
        return state;
    }
    static std::unique_ptr<flash_state> writer()
    {
        auto state = opened();
        EXPECT_TRUE(state->become_writer());
        return state;
    }
};

// What an operation left in errno; 0 when it succeeded.
int error_of(bool succeeded)
{
    return succeeded ? 0 : errno;
}

} // namespace

TEST_F(FlashState, MakesTheFolderOfAFlashWithThoseAboveIt)
{
    EXPECT_TRUE(std::filesystem::is_directory(dir + "/slots/3/flash/primary"));
    EXPECT_TRUE(std::filesystem::exists(flash_file("writer"))) << "without room a flash is written as well";
    EXPECT_TRUE(make_flash_folder(TEST_SLOT, 0)) << "it is there already";
    std::ofstream(dir + "/slots/4") << "";
    EXPECT_EQ(error_of(make_flash_folder(4, 0)), ENOTDIR);
}

TEST_F(FlashState, HasOneWriterForTheLifeOfItsObject)
{
    auto first = writer();
    EXPECT_TRUE(first->is_writer());
    const auto second = opened();
    EXPECT_EQ(error_of(second->become_writer()), EBUSY);
    EXPECT_FALSE(second->is_writer());
    EXPECT_EQ(status_of_child([] { return !opened()->become_writer() && errno == EBUSY ? 0 : 1; }), 0);
    first.reset();
    EXPECT_TRUE(second->become_writer());
}

TEST_F(FlashState, IsSeenToHaveAWriter)
{
    EXPECT_FALSE(flash_activity_of(TEST_SLOT, 0).has_writer);
    const auto state = writer();
    const int status = status_of_child([] { return flash_activity_of(TEST_SLOT, 0).has_writer ? 0 : 1; });
    EXPECT_EQ(status, 0);
}

TEST_F(FlashState, LocksNoFileThatALinkLeadsTo)
{
    const std::string elsewhere = dir + "/elsewhere";
    std::filesystem::remove(flash_file("writer"));
    std::filesystem::create_symlink(elsewhere, flash_file("writer"));
    EXPECT_EQ(error_of(opened()->become_writer()), ELOOP);
    EXPECT_FALSE(std::filesystem::exists(elsewhere));
}

TEST_F(FlashState, IsMarkedByItsWriterAlone)
{
    const auto reader = opened();
    EXPECT_EQ(error_of(reader->set_marker()), EBADF);
    EXPECT_FALSE(reader->is_marked());
    const auto state = writer();
    EXPECT_TRUE(state->set_marker());
    EXPECT_TRUE(state->set_marker()) << "it is marked already";
    EXPECT_TRUE(reader->is_marked());
    EXPECT_TRUE(is_marked());
    EXPECT_EQ(error_of(reader->clear_marker()), EBADF);
    EXPECT_TRUE(state->clear_marker());
    EXPECT_TRUE(state->clear_marker()) << "there is none";
    EXPECT_FALSE(reader->is_marked());
}

TEST_F(FlashState, IsNotMarkedWithoutAFolder)
{
    flash_state state;
    EXPECT_EQ(error_of(state.open(TEST_SLOT, 1)), ENOENT);
    EXPECT_FALSE(state.is_marked());
    ASSERT_TRUE(make_flash_folder(TEST_SLOT, 1));
    write_flash_file("programming", "", 1);
    EXPECT_TRUE(state.is_marked()) << "the folder was made meanwhile";
}

TEST_F(FlashState, IsMarkedWhenItCannotBeFoundOut)
{
    std::filesystem::remove_all(dir + "/slots/3/flash/primary");
    std::ofstream(dir + "/slots/3/flash/primary") << "";
    flash_state state;
    EXPECT_FALSE(state.open(TEST_SLOT, 0));
    EXPECT_TRUE(state.is_marked());
    EXPECT_TRUE(flash_activity_of(TEST_SLOT, 0).marked);
}

TEST_F(FlashState, IsMarkedByALinkThatLeadsNowhere)
{
    std::filesystem::create_symlink("nowhere", flash_file("programming"));
    EXPECT_TRUE(opened()->is_marked());
}

TEST_F(FlashState, KeepsTheMarkerThatItCouldNotSetAgain)
{
    ASSERT_EQ(::mkfifo(flash_file("programming").c_str(), 0600), 0); // nobody reads it: it is not opened
    const auto state = writer();
    EXPECT_TRUE(state->is_marked());
    EXPECT_EQ(error_of(state->set_marker()), ENXIO);
    EXPECT_TRUE(state->is_marked());
}

TEST_F(FlashState, AddsItsWearToTheTotalsWhenItEnds)
{
    {
        const auto state = opened();
        state->wear().reads = 3;
        state->save_wear();
        EXPECT_EQ(state->wear().reads, 0U);
        state->wear().reads = 2;
        state->wear().erases = 1;
    }
    EXPECT_EQ(wear().reads, 5U);
    EXPECT_EQ(wear().erases, 1U);
}
