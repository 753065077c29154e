#include "loader_chassis.h"

#include <arpa/inet.h>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <unistd.h>

#include "bios_messages.h"
#include "bios_opcodes.h"

namespace
{

namespace files = std::filesystem;

std::string random_bytes(unsigned seed, std::size_t length)
{
    std::mt19937 random(seed);
    std::string bytes(length, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(random() & 0xff);
    return bytes;
}

void run_bios_image(std::vector<std::string> words)
{
    words.insert(words.begin(), BIOS_IMAGE_PROGRAM);
    const finished_program finished = run_program(words);
    if (finished.exit_code != 0)
        throw std::runtime_error("bios_image: " + finished.errors);
}

} // namespace

std::string name_of_isolation(const testing::TestParamInfo<const char *> &isolation)
{
    return isolation.param;
}

void loader_chassis::up_with_loader(bool installed)
{
    first_ = make_loader("1.7.3");
    insert({.slot = 1, .in_tree = nullptr, .boot_loader = installed ? first_.path : "", .ks_image = first_.path});
    up(GetParam());
    daemon_ = daemon_pid(1);
}

void loader_chassis::TearDown()
{
    if (daemon_ != 0)
        expect_nothing_left();
    chassis_test::TearDown();
}

test_loader loader_chassis::make_loader(const std::string &version, unsigned size_kib)
{
    ++made_;
    const std::string path = workspace() + "/loader" + std::to_string(made_);
    const std::string payload = path + ".payload";
    write_file(payload, random_bytes(made_, std::size_t{16} << 10));
    run_bios_image({"loader", "--output", path, "--version", version, "--payload", payload, "--size",
                    std::to_string(size_kib) + "K"});
    return {path, file_content(path)};
}

std::string loader_chassis::make_system_image(const std::string &name, const std::string &loader_path)
{
    run_bios_image({"system", "--output", on_bootflash(1, name), "--loader", loader_path});
    return "/bootflash/" + name;
}

std::uint32_t loader_chassis::install(const std::string &path_on_card, std::uint32_t remove_image)
{
    bios_install_loader_req_t body = {};
    path_on_card.copy(body.image_path, sizeof body.image_path); // unterminated when it fills the field
    body.remove_image.store(remove_image);
    return install_with_body({reinterpret_cast<const char *>(&body), sizeof body});
}

std::uint32_t loader_chassis::install_with_body(const std::string &body)
{
    requester asking;
    const request_reply reply = asking.ask(1, MTS_OPC_BIOS_INSTALL_LOADER, body);
    EXPECT_EQ(reply.error, 0) << std::strerror(reply.error);
    EXPECT_EQ(reply.payload, std::string(sizeof(bios_install_loader_reply_t), '\0'));
    return reply.status;
}

file_answer loader_chassis::ask_for_file(std::uint32_t opcode, std::uint32_t length)
{
    bios_loader_file_req_t body = {};
    body.length.store(length);
    requester asking;
    const request_reply reply = asking.ask(1, opcode, {reinterpret_cast<const char *>(&body), sizeof body});
    EXPECT_EQ(reply.error, 0) << std::strerror(reply.error);
    EXPECT_EQ(reply.status, 0U); // what became of it is in the payload
    bios_loader_file_reply_t words = {};
    if (reply.payload.size() < sizeof words)
        throw std::runtime_error("answer of " + std::to_string(reply.payload.size()) + " bytes");
    std::memcpy(&words, reply.payload.data(), sizeof words);
    return {words.status.load(), words.length.load(), reply.payload.substr(sizeof words)};
}

finished_program loader_chassis::in_card(const std::vector<std::string> &words) const
{
    std::vector<std::string> all;
    if (isolation(1) == "plain")
        all = {"setpriv", "--bounding-set=-sys_admin", "chroot", slot_file(1, "root")};
    else
        all = {"nsenter", "--target", std::to_string(daemon_pid(1)), "--mount", "--pid", "--root", "--wd"};
    all.insert(all.end(), words.begin(), words.end());
    return run_program(all);
}

void loader_chassis::take_mount_away() const
{
    write_file(card_file(1, "/etc/fstab"), "");
}

std::string loader_chassis::installed_loader() const
{
    return file_content(card_file(1, INSTALLED));
}

void loader_chassis::expect_installed(const test_loader &loader) const
{
    EXPECT_EQ(installed_loader() == loader.bytes, true) << "another loader is installed";
    for (const files::directory_entry &entry : files::directory_iterator(card_file(1, "/var/lib/bootloader")))
        EXPECT_EQ(entry.path().filename(), "srg-sloader.sro") << "is left in the partition";
}

void loader_chassis::expect_serves()
{
    EXPECT_EQ(ask_for_file(MTS_OPC_BIOS_GET_KS_IMAGE, 3).length, 3U);
    EXPECT_EQ(daemon_pid(1), daemon_) << "the daemon is another one";
}

void loader_chassis::expect_nothing_left() const
{
    std::ifstream mounts("/proc/" + std::to_string(daemon_pid(1)) + "/mounts");
    EXPECT_TRUE(mounts);
    for (std::string line; std::getline(mounts, line);) {
        EXPECT_EQ(line.find("bootloader"), std::string::npos) << line;
        EXPECT_EQ(line.find("ramfs "), std::string::npos) << line;
    }
    EXPECT_EQ(files::symlink_status(card_file(1, "/mnt/bootloader")).type(), files::file_type::directory);
    if (!card_has(1, "/tmp/nbitool"))
        return;
    for (const files::directory_entry &entry : files::recursive_directory_iterator(card_file(1, "/tmp/nbitool")))
        EXPECT_EQ(entry.path().filename(), "mnt") << "is left in /tmp/nbitool";
}
