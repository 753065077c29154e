# The packages of the lab and of who works with it, one for each component. Included by packaging/CMakeLists.txt.
include(${CMAKE_CURRENT_LIST_DIR}/format.cmake)

# pgrep and mount are what the daemon runs and is not in every Debian system.
describe_package(daemon PROGRAMS SODIUM NAME bios-daemon SECTION admin
    SUMMARY "BIOS upgrade daemon of a modular switch"
    TEXT "Tells the versions of BIOS images and flashes of the chassis' cards,
programs the flashes with retries and a read-back of every byte, and
installs boot loaders. Runs on the supervisor cards as a service."
    DEPENDS "procps, mount" LIBRARIES "${needs_libc}" RECOMMENDS biosctl SUGGESTS bios-daemon-chassis)
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA "${service_scripts};${CMAKE_CURRENT_LIST_DIR}/conffiles")

describe_package(biosctl PROGRAMS NAME biosctl SECTION admin
    SUMMARY "command line of the BIOS upgrade daemon"
    TEXT "Shows which cards of a chassis have which BIOS versions, programs them and
follows each programming to its end."
    LIBRARIES "${needs_libstdcxx}")

describe_package(dev NAME bios-daemon-dev SECTION libdevel
    SUMMARY "BIOS upgrade daemon as a library, for platforms"
    TEXT "The daemon's code as a static library, the headers of its messages and of
the platform services that it calls, and a CMake package to link the daemon
with a platform's own library. The conformance kit, as sources, tests whether
such a library keeps what the headers promise."
    SUGGESTS googletest)

describe_package(chassis PROGRAMS SODIUM NAME bios-daemon-chassis SECTION utils
    SUMMARY "chassis on one machine for the BIOS upgrade daemon"
    TEXT "Runs the cards of a chassis as processes with roots of their own, with
message transport, module locks and flash devices that behave like NOR
flash, and makes BIOS images, image trees and system images for them."
    DEPENDS "bios-daemon (= ${PROJECT_VERSION}), procps, mount" RECOMMENDS biosctl)

include(CPack)
