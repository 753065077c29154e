# libsodium, for signatures of images. It is linked in: no package depends on it.
#   sodium_target  the target's word size; 32 bits come from a package that is unpacked, as this machine need not know
#                  that architecture
#   sodium_host    this machine's
set(BIOS_DAEMON_SODIUM "${CMAKE_SOURCE_DIR}/build/libsodium" CACHE PATH
    "Folder in which Debian's libsodium-dev for the 32-bit target is unpacked; it is fetched when it is not there")

add_library(sodium_host STATIC IMPORTED)
find_library(SODIUM_HOST_LIBRARY libsodium.a REQUIRED)
find_path(SODIUM_HOST_INCLUDE sodium.h REQUIRED)
set_target_properties(sodium_host PROPERTIES IMPORTED_LOCATION ${SODIUM_HOST_LIBRARY}
                                             INTERFACE_INCLUDE_DIRECTORIES ${SODIUM_HOST_INCLUDE})

add_library(sodium_target STATIC IMPORTED)
if(BIOS_DAEMON_ARCH STREQUAL "i686")
    set(sodium_library ${BIOS_DAEMON_SODIUM}/usr/lib/i386-linux-gnu/libsodium.a)
    if(NOT EXISTS ${sodium_library} AND EXISTS ${CMAKE_SOURCE_DIR}/script/unpack-i386)
        execute_process(COMMAND ${CMAKE_SOURCE_DIR}/script/unpack-i386 ${BIOS_DAEMON_SODIUM} libsodium-dev)
    endif()
    if(NOT EXISTS ${sodium_library})
        message(FATAL_ERROR "${sodium_library} is not there: script/unpack-i386 FOLDER libsodium-dev fetches it, and "
                            "-DBIOS_DAEMON_SODIUM=FOLDER says where it is")
    endif()
    set_target_properties(sodium_target PROPERTIES IMPORTED_LOCATION ${sodium_library}
                                                   INTERFACE_INCLUDE_DIRECTORIES ${BIOS_DAEMON_SODIUM}/usr/include)
else()
    set_target_properties(sodium_target PROPERTIES IMPORTED_LOCATION ${SODIUM_HOST_LIBRARY}
                                                   INTERFACE_INCLUDE_DIRECTORIES ${SODIUM_HOST_INCLUDE})
endif()
