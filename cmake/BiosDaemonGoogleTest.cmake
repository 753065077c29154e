# GoogleTest, compiled here from the distribution's sources, because it has to have the target's word size.
set(BIOS_DAEMON_GOOGLETEST "/usr/src/googletest" CACHE PATH "Sources of GoogleTest and GoogleMock")

block()
    set(BUILD_GMOCK ON)
    set(INSTALL_GTEST OFF)
    if(BIOS_DAEMON_ARCH STREQUAL "i686")
        string(APPEND CMAKE_CXX_FLAGS " -m32 -march=i686 -msse2 -mfpmath=sse")
    endif()
    add_subdirectory(${BIOS_DAEMON_GOOGLETEST} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
endblock()
