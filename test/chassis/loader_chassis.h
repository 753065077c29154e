// A chassis of one supervisor with a boot loader, in a given isolation; requests for loaders, and what they leave.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "chassis_fixture.h"

struct test_loader {
    std::string path;
    std::string bytes;
};

// What came back for a file request.
struct file_answer {
    std::uint32_t status = 0;
    std::uint32_t length = 0;
    std::string bytes; // behind the two words
};

class loader_chassis : public chassis_test, public testing::WithParamInterface<const char *>
{
protected:
    static constexpr const char *INSTALLED =
        "/var/lib/bootloader/srg-sloader.sro"; // where a card has its partition

    // Version "1.7.3" is installed unless the card is to have none.
    void up_with_loader(bool installed = true);

    // Loader files that the test makes; the bytes of two of them differ.
    test_loader make_loader(const std::string &version, unsigned size_kib = 256);
    std::string make_system_image(const std::string &name, const std::string &loader_path); // on the boot flash

    // A request to install; the result code, which is the answer's status.
    std::uint32_t install(const std::string &path_on_card, std::uint32_t remove_image = 0);
    std::uint32_t install_with_body(const std::string &body);
    file_answer ask_for_file(std::uint32_t opcode, std::uint32_t length);

    // Runs words inside of the card: with its mounts, and with its rights.
    finished_program in_card(const std::vector<std::string> &words) const;
    bool has_own_mounts() const { return isolation(1) == "mount"; } // and in_card() may mount there

    // From now on the partition cannot be mounted.
    void take_mount_away() const;

    std::string installed_loader() const;
    void expect_installed(const test_loader &loader) const;

    // The end of every story: the daemon is the one from the start and serves; nothing is mounted, no image is
    // open.
    void expect_serves();
    void expect_nothing_left() const;

    const test_loader &first_loader() const { return first_; }

private:
    void TearDown() override;

    test_loader first_;
    pid_t daemon_ = 0;
    unsigned made_ = 0;
};

// The isolation that the machine has to offer, and the one without mounts.
constexpr const char *ISOLATIONS[] = {"auto", "plain"};
std::string name_of_isolation(const testing::TestParamInfo<const char *> &isolation);
