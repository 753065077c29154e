// The syslog catalogue and how its messages are raised.
#include "boot_flash_report.h"

#include "daemon_test.h"

namespace
{

class BootFlashReport : public daemon_test
{
protected:
    BootFlashReport() { syslog_fac_LOG_BIOS_DAEMON.current_level = 2; }
    ~BootFlashReport() override { syslog_fac_LOG_BIOS_DAEMON.current_level = 2; }
};

void expect_plain(const syslog_message_t &message, const char *name, const char *format, std::uint32_t severity)
{
    EXPECT_STREQ(message.name, name);
    EXPECT_EQ(message.facility, &syslog_fac_LOG_BIOS_DAEMON) << name;
    EXPECT_STREQ(message.format, format);
    EXPECT_EQ(message.severity, severity) << name;
}

void expect_module(const syslog_module_message_t &message, const char *name, const char *format,
                   std::uint32_t severity)
{
    EXPECT_STREQ(message.name, name);
    EXPECT_EQ(message.facility, &syslog_fac_LOG_BIOS_DAEMON) << name;
    EXPECT_STREQ(message.format, format);
    EXPECT_STREQ(message.kind, "LC") << name;
    EXPECT_EQ(message.severity, severity) << name;
}

TEST_F(BootFlashReport, HasTheFacilityOfTheDaemon)
{
    EXPECT_STREQ(syslog_fac_LOG_BIOS_DAEMON.name, "bios_daemon");
    EXPECT_EQ(syslog_fac_LOG_BIOS_DAEMON.number, 904u);
    EXPECT_EQ(syslog_fac_LOG_BIOS_DAEMON.first_level, 2);
    EXPECT_EQ(syslog_fac_LOG_BIOS_DAEMON.current_level, 2);
}

TEST_F(BootFlashReport, HasTheWholeCatalogue)
{
    expect_module(syslog_msg_BIOS_DAEMON_LC_ERROR, "BIOS_DAEMON_LC_ERROR",
                  "<<%%%s-%d-BIOS_DAEMON_LC_ERROR>> BIOS Sector (%d) is write protected", 2);
    expect_plain(syslog_msg_BIOS_DAEMON_SUP_ERROR, "BIOS_DAEMON_SUP_ERROR",
                 "<<%%%s-%d-BIOS_DAEMON_SUP_ERROR>> BIOS Sector (%d) is write protected", 2);
    expect_plain(syslog_msg_BIOS_DAEMON_FLASH_WARNING, "BIOS_DAEMON_FLASH_WARNING",
                 "<<%%%s-%d-BIOS_DAEMON_FLASH_WARNING>> Flash chip not supported by running image. Skipping bios "
                 "upgrade.",
                 2);
    expect_module(syslog_msg_BIOS_DAEMON_LC_PRI_BOOT_FAIL, "BIOS_DAEMON_LC_PRI_BOOT_FAIL",
                  "<<%%%s-%d-BIOS_DAEMON_LC_PRI_BOOT_FAIL>>  System booted from Alternate BIOS Flash", 2);
    expect_module(syslog_msg_BIOS_DAEMON_LC_PRI_BOOT, "BIOS_DAEMON_LC_PRI_BOOT",
                  "<<%%%s-%d-BIOS_DAEMON_LC_PRI_BOOT>>  System booted from Primary BIOS Flash", 5);
    expect_plain(syslog_msg_BIOS_DAEMON_PRI_BOOT_FAIL, "BIOS_DAEMON_PRI_BOOT_FAIL",
                 "<<%%%s-%d-BIOS_DAEMON_PRI_BOOT_FAIL>>  System booted from Alternate BIOS Flash", 2);
    expect_plain(syslog_msg_BIOS_DAEMON_PRI_BOOT, "BIOS_DAEMON_PRI_BOOT",
                 "<<%%%s-%d-BIOS_DAEMON_PRI_BOOT>> System booted from Primary BIOS Flash", 5);
}

TEST_F(BootFlashReport, IsNotSentWhileTheFacilitysLevelIsBelowTheSeverity)
{
    raise_syslog_message(syslog_msg_BIOS_DAEMON_PRI_BOOT);
    syslog_fac_LOG_BIOS_DAEMON.current_level = 4;
    raise_syslog_message(syslog_msg_BIOS_DAEMON_PRI_BOOT);
    EXPECT_EQ(platform().calls("vesk_syslog"), lines{});
}

TEST_F(BootFlashReport, IsSentOnceTheFacilitysLevelReachesTheSeverity)
{
    const std::string sent = "vesk_syslog(5, \"<<%%%s-%d-BIOS_DAEMON_PRI_BOOT>> System booted from Primary BIOS "
                             "Flash\", \"BIOS_DAEMON\", 5)";
    for (const int level : {5, 7, 255}) {
        syslog_fac_LOG_BIOS_DAEMON.current_level = static_cast<std::uint8_t>(level);
        raise_syslog_message(syslog_msg_BIOS_DAEMON_PRI_BOOT);
    }
    EXPECT_EQ(platform().calls("vesk_syslog"), lines(3, sent));
}

TEST_F(BootFlashReport, SendsAMessageOfSeverity2AtTheLevelOfTheStart)
{
    raise_syslog_message(syslog_msg_BIOS_DAEMON_PRI_BOOT_FAIL);
    EXPECT_EQ(platform().calls("vesk_syslog"),
              lines{"vesk_syslog(2, \"<<%%%s-%d-BIOS_DAEMON_PRI_BOOT_FAIL>>  System booted from Alternate BIOS "
                    "Flash\", \"BIOS_DAEMON\", 2)"});
}

TEST_F(BootFlashReport, NeverSeesABootFailure)
{
    EXPECT_EQ(bios_check_boot_failure(), 0);
}

} // namespace
