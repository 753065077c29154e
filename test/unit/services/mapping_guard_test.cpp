// Work on mapped files whose pages go away.
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "mapping_guard.h"
#include "unique_fd.h"

namespace
{

constexpr std::size_t MAPPED_BYTES = 1 << 16;

class MappingGuard : public testing::Test
{
protected:
    void SetUp() override
    {
        char name[] = "/tmp/mapping-guard-XXXXXX";
        file_.reset(::mkstemp(name));
        ASSERT_TRUE(file_);
        ::unlink(name);
        resize(MAPPED_BYTES);
        void *memory = ::mmap(nullptr, MAPPED_BYTES, PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0);
        ASSERT_NE(memory, MAP_FAILED);
        bytes_ = static_cast<volatile char *>(memory);
    }
    void TearDown() override { ::munmap(const_cast<char *>(bytes_), MAPPED_BYTES); }

    void resize(off_t bytes) const { ASSERT_EQ(::ftruncate(file_.get(), bytes), 0); }

    bool last_byte_can_be_written()
    {
        return survives_lost_pages([](void *place) { *static_cast<volatile char *>(place) = 'x'; },
                                   const_cast<char *>(bytes_ + MAPPED_BYTES - 1));
    }

    unique_fd file_;
    volatile char *bytes_ = nullptr;
};

TEST_F(MappingGuard, DoesTheWorkOnPagesThatAreThere)
{
    EXPECT_TRUE(last_byte_can_be_written());
    EXPECT_EQ(bytes_[MAPPED_BYTES - 1], 'x');
}

TEST_F(MappingGuard, SurvivesPagesThatAreGoneAndComeBack)
{
    for (unsigned round = 0; round < 3; ++round) {
        resize(100);
        EXPECT_FALSE(last_byte_can_be_written());
        EXPECT_FALSE(last_byte_can_be_written());
        resize(MAPPED_BYTES);
        EXPECT_TRUE(last_byte_can_be_written());
    }
}

TEST_F(MappingGuard, LeavesABusErrorFromElsewhereAsItIs)
{
    const pid_t child = ::fork();
    if (child == 0) {
        (void)last_byte_can_be_written();
        resize(100);
        bytes_[MAPPED_BYTES - 1] = 'x';
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(!WIFEXITED(status) || WEXITSTATUS(status) != 0) << "the sanitizer ends it with a status";
}

} // namespace
