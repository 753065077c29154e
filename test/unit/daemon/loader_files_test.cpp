// The boot-loader files that peers ask for.
#include "loader_files.h"

#include <cerrno>

#include "daemon_test.h"
#include "record_forms.h"

namespace
{

constexpr char loader[] = "/mnt/bootloader/srg-sloader.sro";
constexpr char ks[] = "/etc/srg-ks.sro";
constexpr char mount_line[] =
    "exec_cmd_with_io_print(\"/bin/mount -o ro /mnt/bootloader\", stdin, stdout, stderr, 0)";
constexpr char umount_line[] = "exec_cmd_with_io_print(\"/bin/umount /mnt/bootloader\", stdin, stdout, stderr, 0)";

class LoaderFiles : public daemon_test
{
protected:
    LoaderFiles()
    {
        context.handle = 7;
        platform().write_file(loader, "loader");
        platform().write_file(ks, "the ks");
    }

    static lines told() { return platform().story({"exec_cmd_with_io_print", "srg_file_clone", "cmi_response"}); }

    lines get_loader(std::uint32_t length)
    {
        EXPECT_EQ(handle_get_loader_image(context, platform().message(4701, length_request(length))), 0u);
        return told();
    }
    lines get_ks(std::uint32_t length)
    {
        EXPECT_EQ(handle_get_ks_image(context, platform().message(4702, length_request(length))), 0u);
        return told();
    }

    daemon_context context{};

private:
    static bytes length_request(std::uint32_t length)
    {
        return request({static_cast<std::uint8_t>(length >> 24), static_cast<std::uint8_t>(length >> 16),
                        static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)});
    }
};

TEST_F(LoaderFiles, HandsOutTheInstalledLoader)
{
    EXPECT_EQ(get_loader(6),
              (lines{mount_line, "srg_file_clone(\"/mnt/bootloader/srg-sloader.sro\", 6)", umount_line,
                     "cmi_response([00000000 00000006 6c6f6164 6572], 14, 7, #1, 0x0)"}));
    EXPECT_EQ(platform().logs(), lines{});
}

TEST_F(LoaderFiles, HandsOutTheKsFileWithoutMounting)
{
    EXPECT_EQ(get_ks(6), (lines{"srg_file_clone(\"/etc/srg-ks.sro\", 6)",
                                "cmi_response([00000000 00000006 74686520 6b73], 14, 7, #1, 0x0)"}));
    EXPECT_EQ(platform().logs(), lines{});
}

TEST_F(LoaderFiles, HandsOutTheBeginningOfAFile)
{
    EXPECT_EQ(get_loader(4).back(), "cmi_response([00000000 00000004 6c6f6164], 12, 7, #1, 0x0)");
}

TEST_F(LoaderFiles, HandsOutNoBytes)
{
    EXPECT_EQ(get_loader(0).back(), "cmi_response([00000000 00000000], 8, 7, #1, 0x0)");
    EXPECT_EQ(get_ks(0).back(), "cmi_response([00000000 00000000], 8, 7, #2, 0x0)");
}

TEST_F(LoaderFiles, TellsThatThePartitionCannotBeMounted)
{
    platform().next_result("exec_cmd_with_io_print", {256, 0});
    EXPECT_EQ(get_loader(6), (lines{mount_line, "cmi_response([40530006 00000000], 8, 7, #1, 0x0)"}));
}

TEST_F(LoaderFiles, SendsTheCloningsErrorAsItIs)
{
    platform().next_result("srg_file_clone", {2, 0});
    EXPECT_EQ(get_loader(6), (lines{mount_line, "srg_file_clone(\"/mnt/bootloader/srg-sloader.sro\", 6)",
                                    umount_line, "cmi_response([00000002 00000000], 8, 7, #1, 0x0)"}));
    platform().next_result("srg_file_clone", {-5, 0});
    EXPECT_EQ(get_ks(6).back(), "cmi_response([fffffffb 00000000], 8, 7, #2, 0x0)");
}

TEST_F(LoaderFiles, DoesNotCareWhetherTheUnmountingWorked)
{
    platform().next_result("exec_cmd_with_io_print", {0, 0});
    platform().next_result("exec_cmd_with_io_print", {256, 0});
    EXPECT_EQ(get_loader(4).back(), "cmi_response([00000000 00000004 6c6f6164], 12, 7, #1, 0x0)");
}

TEST_F(LoaderFiles, TellsThatTheAnswerCannotBeAllocated)
{
    platform().fail_allocation_of(100008);
    EXPECT_EQ(get_loader(100000), lines{"cmi_response([00000001 00000000], 8, 7, #1, 0x0)"});
    platform().fail_allocation_of(100008);
    EXPECT_EQ(get_ks(100000).back(), "cmi_response([00000001 00000000], 8, 7, #2, 0x0)");
    EXPECT_EQ(platform().calls("srg_file_clone"), lines{});
}

TEST_F(LoaderFiles, TakesALengthNear2To32ForAFailedAllocation)
{
    int number = 0;
    for (const std::uint32_t length :
         {0xffffffffu, 0xfffffff8u, 0xfffffff7u, 0xfffffff0u, 0x80000000u, 0x7ffffff8u}) {
        ++number;
        EXPECT_EQ(get_loader(length).back(),
                  "cmi_response([00000001 00000000], 8, 7, #" + std::to_string(number) + ", 0x0)")
            << length;
    }
    EXPECT_EQ(platform().calls("srg_file_clone"), lines{});
    EXPECT_EQ(platform().calls("exec_cmd_with_io_print"), lines{});
}

TEST_F(LoaderFiles, RemembersThePayload)
{
    (void)get_ks(4);
    ASSERT_NE(context.payload, nullptr);
    EXPECT_EQ(static_cast<const std::uint8_t *>(context.payload)[115], 4);
}

} // namespace
