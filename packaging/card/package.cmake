# The package of a real card: daemon, agent and command line on the kernel's drivers, and what starts them. The units
# are those of the lab's package; drop-ins say what is different on a card. Included by packaging/CMakeLists.txt.
add_manual(card bios_daemon 8)
add_manual(card bios_agent 8)
add_manual(card biosctl 1)
add_completions(card biosctl)

install(TARGETS bios_daemon bios_agent DESTINATION sbin COMPONENT card)
install(TARGETS biosctl DESTINATION bin COMPONENT card)
install(PROGRAMS card/prepare_card DESTINATION lib/bios-daemon COMPONENT card)
install(FILES card/card DESTINATION /etc/bios-daemon COMPONENT card)
set(units /lib/systemd/system)
install(FILES systemd/bios-daemon.service systemd/bios-agent.service systemd/bios-daemon-platform.target
              card/bios-card.service
        DESTINATION ${units} COMPONENT card)
foreach(service bios-daemon bios-agent)
    install(FILES card/${service}.conf DESTINATION ${units}/${service}.service.d RENAME card.conf COMPONENT card)
endforeach()

add_custom_target(package_files ALL DEPENDS ${packaged_texts})
add_dependencies(package_files programs)

include(debian/format.cmake)
describe_package(card PROGRAMS SODIUM NAME bios-daemon-card SECTION admin
    SUMMARY "BIOS upgrade daemon on a card of a modular switch"
    TEXT "Shows the versions of the chassis' cards and programs their flashes, which
are MTDs of the kernel. The cards talk to each other over TIPC.
/etc/bios-daemon/card says which card it is."
    DEPENDS "procps, mount" LIBRARIES "${needs_libstdcxx}")
set(CPACK_DEBIAN_CARD_PACKAGE_CONFLICTS "bios-daemon, biosctl, bios-daemon-chassis")
set(CPACK_DEBIAN_CARD_PACKAGE_CONTROL_EXTRA "${service_scripts};${CMAKE_CURRENT_LIST_DIR}/conffiles")
include(CPack)
