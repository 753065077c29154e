// Reading all of a buffer from a place in a file.
#include "read_all_at.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <string>

#include "temporary_folder.h"
#include "unique_fd.h"

namespace
{

class ReadAllAt : public testing::Test
{
protected:
    ReadAllAt()
    {
        std::ofstream(folder_.path("file")) << "abcdef";
        file_.reset(::open(folder_.path("file").c_str(), O_RDONLY | O_CLOEXEC));
    }
    // The bytes there, or the error's number.
    std::string read(std::uint64_t offset, std::size_t length) const
    {
        std::string bytes(length, '-');
        errno = 0;
        return read_all_at(file_.get(), offset, bytes.data(), length) ? bytes : std::to_string(errno);
    }

    temporary_folder folder_{"read_all_at_test"};
    unique_fd file_;
};

} // namespace

TEST_F(ReadAllAt, BeginsAtTheOffset)
{
    EXPECT_EQ(read(0, 6), "abcdef");
    EXPECT_EQ(read(2, 3), "cde");
    EXPECT_EQ(read(6, 0), "");
}

TEST_F(ReadAllAt, FailsWhenTheFileEndsBefore)
{
    EXPECT_EQ(read(4, 3), std::to_string(EIO));
    EXPECT_EQ(read(6, 1), std::to_string(EIO));
}

TEST_F(ReadAllAt, FailsWithTheSystemsError)
{
    file_.reset();
    EXPECT_EQ(read(0, 1), std::to_string(EBADF));
}
