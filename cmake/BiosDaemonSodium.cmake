# libsodium, for signatures of images. It is linked in: no package depends on it.
#   sodium_target  the target's word size; 32 bits come from a package that is unpacked, as this machine need not know
#                  that architecture
#   sodium_host    this machine's, for the image tools; there is none where these are not built
# SODIUM_COPYRIGHT is the file with its terms.
set(BIOS_DAEMON_SODIUM "${CMAKE_SOURCE_DIR}/build/libsodium" CACHE PATH
    "Folder in which Debian's libsodium-dev for the 32-bit target is unpacked; it is fetched when it is not there")

function(import_sodium name library includes)
    add_library(${name} STATIC IMPORTED GLOBAL)
    set_target_properties(${name} PROPERTIES IMPORTED_LOCATION ${library} INTERFACE_INCLUDE_DIRECTORIES ${includes})
endfunction()

if(BIOS_DAEMON_ARCH STREQUAL "native" OR has_chassis)
    find_library(SODIUM_HOST_LIBRARY libsodium.a REQUIRED)
    find_path(SODIUM_HOST_INCLUDE sodium.h REQUIRED)
    import_sodium(sodium_host ${SODIUM_HOST_LIBRARY} ${SODIUM_HOST_INCLUDE})
endif()

if(BIOS_DAEMON_ARCH STREQUAL "i686")
    set(sodium_library ${BIOS_DAEMON_SODIUM}/usr/lib/i386-linux-gnu/libsodium.a)
    if(NOT EXISTS ${sodium_library} AND EXISTS ${CMAKE_SOURCE_DIR}/script/unpack-i386)
        execute_process(COMMAND ${CMAKE_SOURCE_DIR}/script/unpack-i386 ${BIOS_DAEMON_SODIUM} libsodium-dev)
    endif()
    if(NOT EXISTS ${sodium_library})
        message(FATAL_ERROR "${sodium_library} is not there: script/unpack-i386 FOLDER libsodium-dev fetches it, and "
                            "-DBIOS_DAEMON_SODIUM=FOLDER says where it is")
    endif()
    import_sodium(sodium_target ${sodium_library} ${BIOS_DAEMON_SODIUM}/usr/include)
    set(SODIUM_COPYRIGHT ${BIOS_DAEMON_SODIUM}/usr/share/doc/libsodium-dev/copyright)
else()
    import_sodium(sodium_target ${SODIUM_HOST_LIBRARY} ${SODIUM_HOST_INCLUDE})
    set(SODIUM_COPYRIGHT /usr/share/doc/libsodium-dev/copyright)
endif()
