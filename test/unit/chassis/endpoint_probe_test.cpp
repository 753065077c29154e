// The probe that tells when a card's daemon serves: not when its endpoint is there, but when it takes messages.
#include "bios_opcodes.h"
#include "endpoint_probe.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "chassis_dir.h"
#include "temporary_folder.h"

namespace
{

constexpr unsigned SLOT = 3;

class EndpointProbe : public testing::Test
{
protected:
    EndpointProbe()
    {
        std::filesystem::create_directories(folder_.path("mts"));
        std::filesystem::create_directories(folder_.path("inventory/3"));
        std::ofstream(folder_.path("inventory/3/kind")) << "1\n";
        EXPECT_EQ(chassis_attach(folder_.path(), 0), 0);
    }

    // The endpoint of the supervisor in slot 3: node 0x301, service access point 1010.
    unique_fd bind_endpoint() const
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        folder_.path("mts/00000301.000003f2").copy(address.sun_path, sizeof address.sun_path - 1);
        (void)::unlink(address.sun_path);
        unique_fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        return socket;
    }
    // How many messages waited; all are taken.
    static unsigned take_messages(const unique_fd &endpoint)
    {
        unsigned count = 0;
        for (char bytes[64]; ::recv(endpoint.get(), bytes, sizeof bytes, 0) >= 0;)
            ++count;
        return count;
    }

    endpoint_probe probe_;

private:
    temporary_folder folder_{"endpoint-probe"};
};

TEST_F(EndpointProbe, IsNotTakenWithoutAnEndpoint)
{
    EXPECT_FALSE(probe_.is_taken(SLOT, BIOS_DAEMON_SAP));
    EXPECT_FALSE(probe_.is_taken(SLOT, BIOS_DAEMON_SAP));
}

TEST_F(EndpointProbe, IsTakenOnlyWhenTheMessageWasReceived)
{
    const unique_fd endpoint = bind_endpoint();
    for (unsigned look = 0; look < 5; ++look)
        EXPECT_FALSE(probe_.is_taken(SLOT, BIOS_DAEMON_SAP)) << "the endpoint is there, and nobody listens yet";
    EXPECT_EQ(take_messages(endpoint), 1u) << "one message, however often it was looked";
    EXPECT_TRUE(probe_.is_taken(SLOT, BIOS_DAEMON_SAP));
    EXPECT_EQ(take_messages(endpoint), 0u);
}

TEST_F(EndpointProbe, IsNotTakenByADaemonThatDiedBeforeItListened)
{
    unique_fd endpoint = bind_endpoint();
    EXPECT_FALSE(probe_.is_taken(SLOT, BIOS_DAEMON_SAP));
    endpoint.reset();
    EXPECT_FALSE(probe_.is_taken(SLOT, BIOS_DAEMON_SAP));
}

TEST_F(EndpointProbe, AsksTheNextDaemonAnew)
{
    unique_fd endpoint = bind_endpoint();
    EXPECT_FALSE(probe_.is_taken(SLOT, BIOS_DAEMON_SAP));
    (void)take_messages(endpoint);
    EXPECT_TRUE(probe_.is_taken(SLOT, BIOS_DAEMON_SAP));
    endpoint = bind_endpoint();
    probe_.reset();
    EXPECT_FALSE(probe_.is_taken(SLOT, BIOS_DAEMON_SAP));
    EXPECT_FALSE(probe_.is_taken(SLOT, BIOS_DAEMON_SAP));
    EXPECT_EQ(take_messages(endpoint), 1u);
    EXPECT_TRUE(probe_.is_taken(SLOT, BIOS_DAEMON_SAP));
}

} // namespace
