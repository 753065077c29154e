// platform/image_files.h: image URIs, boot-loader versions, files into memory.
#include "image_files.h"

#include <cstring>
#include <vector>

#include "contract_test.h"

namespace
{

constexpr char FILLER = 0x5a;

class UriMapTargetfsPathGet : public testing::Test
{
protected:
    UriMapTargetfsPathGet() { std::memset(buffer_, FILLER, sizeof buffer_); }

    bool is_beyond_untouched() const { return buffer_[URI_MAPPED_PATH_BYTES] == FILLER; }

    char buffer_[URI_MAPPED_PATH_BYTES + 1];
};

} // namespace

TEST_F(UriMapTargetfsPathGet, GivesThePathOfTheCardsFileSystem)
{
    const char *uri = nullptr;
    const char *path = nullptr;
    NEEDS(contract_image_uri(&uri, &path));
    EXPECT_STREQ(uri_map_targetfs_path_get(uri, buffer_), path);
    EXPECT_TRUE(is_beyond_untouched());
}

TEST_F(UriMapTargetfsPathGet, GivesNullForWhatCannotBeMapped)
{
    EXPECT_EQ(uri_map_targetfs_path_get("", buffer_), nullptr);
    EXPECT_EQ(uri_map_targetfs_path_get("no-such-scheme-of-anybody:image.bin", buffer_), nullptr);
    EXPECT_TRUE(is_beyond_untouched());
}

TEST_F(UriMapTargetfsPathGet, KeepsToTheBufferForALongUri)
{
    const char *uri = nullptr;
    const char *path = nullptr;
    NEEDS(contract_image_uri(&uri, &path));
    const std::string long_uri = uri + std::string(2000, 'x');
    (void)uri_map_targetfs_path_get(long_uri.c_str(), buffer_); // a long path in the service's memory, or null
    EXPECT_TRUE(is_beyond_untouched());
}

TEST(SrgSwInterimVerFileGet, GivesTheVersionOfALoaderFile)
{
    const char *path = nullptr;
    const char *version = nullptr;
    NEEDS(contract_loader_file(&path, &version));
    EXPECT_STREQ(srg_sw_interim_ver_file_get(path), version);
}

TEST(SrgSwInterimVerFileGet, GivesNullForAFileWithoutAVersion)
{
    const scratch_file zeros("zeros", std::string(8192, '\0'));
    const scratch_file empty("empty", "");
    const scratch_file missing("missing");
    EXPECT_EQ(srg_sw_interim_ver_file_get(zeros.path()), nullptr);
    EXPECT_EQ(srg_sw_interim_ver_file_get(empty.path()), nullptr);
    EXPECT_EQ(srg_sw_interim_ver_file_get(missing.path()), nullptr);
}

TEST(SrgFileClone, CopiesTheFirstBytesOfAFile)
{
    const scratch_file file("file", "0123456789");
    char bytes[8];
    std::memset(bytes, FILLER, sizeof bytes);
    EXPECT_EQ(srg_file_clone(bytes, file.path(), 7), 0);
    EXPECT_EQ(std::string(bytes, sizeof bytes), std::string("0123456") + FILLER);
}

TEST(SrgFileClone, CopiesALargeFileWhole)
{
    std::string content(5'000'000, 'c');
    content.back() = 'e';
    const scratch_file file("file", content);
    std::string bytes(content.size(), FILLER);
    EXPECT_EQ(srg_file_clone(bytes.data(), file.path(), static_cast<std::uint32_t>(bytes.size())), 0);
    EXPECT_TRUE(bytes == content);
}

TEST(SrgFileClone, GivesAnErrorWhenThereAreNotSoManyBytes)
{
    const scratch_file file("file", "short");
    const scratch_file missing("missing");
    char bytes[16];
    EXPECT_NE(srg_file_clone(bytes, file.path(), 16), 0);
    EXPECT_NE(srg_file_clone(bytes, missing.path(), 1), 0);
}
