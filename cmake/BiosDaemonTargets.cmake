# How the project's targets are built. Every target links exactly one of
#   target_build  the target's word size: the daemon, the chassis platform, biosctl
#   test_build    likewise, for what only tests: compiled fast, as nothing waits for its speed
#   host_build    this machine's: tools that need libraries that are only there in this machine's word size
add_library(project_warnings INTERFACE)
target_compile_options(project_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
    $<$<CXX_COMPILER_ID:Clang>:-Wno-sign-conversion>) # which is no part of GCC's -Wconversion

# What two variants compile alike, as they do this machine's tools, is compiled once where there is a compiler cache, and
# what another checkout has compiled is not compiled again.
find_program(CCACHE ccache)
if(CCACHE AND EXISTS "${CCACHE}" AND NOT BIOS_DAEMON_COVERAGE)
    foreach(language C CXX)
        set(CMAKE_${language}_COMPILER_LAUNCHER env CCACHE_BASEDIR=${CMAKE_SOURCE_DIR}
            CCACHE_DEPEND=1 CCACHE_NOCOMPRESS=1 CCACHE_NOHASHDIR=1
            CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE})
    endforeach()
endif()

# The compiler collects its garbage later: there is memory enough.
add_compile_options($<$<CXX_COMPILER_ID:GNU>:--param=ggc-min-heapsize=524288>)

# What is tested has both sanitizers. The test itself has that of addresses only: what it reads of the tested is
# checked, and the macros of a test take a third less to compile.
add_library(sanitizers INTERFACE)
add_library(test_sanitizers INTERFACE)
if(BIOS_DAEMON_SANITIZE)
    target_compile_options(sanitizers INTERFACE -fsanitize=address,undefined -fno-sanitize-recover=all
                                                -fno-omit-frame-pointer)
    target_compile_options(test_sanitizers INTERFACE -fsanitize=address -fno-omit-frame-pointer)
    foreach(library sanitizers test_sanitizers)
        target_link_options(${library} INTERFACE -fsanitize=address,undefined)
        # For clang, 64-bit counters are a library's business in 32 bits.
        target_link_libraries(${library} INTERFACE $<$<CXX_COMPILER_ID:Clang>:atomic>)
    endforeach()
endif()

if(BIOS_DAEMON_FUZZ)
    target_compile_options(sanitizers INTERFACE -fsanitize=fuzzer-no-link)
endif()

# The target's word size alone, without the project's warnings: what others have written for the target.
add_library(word_size INTERFACE)
add_library(target_build INTERFACE)
target_link_libraries(target_build INTERFACE project_warnings sanitizers word_size)
add_library(test_build INTERFACE)
target_compile_options(test_build INTERFACE -O0 -g1)
target_link_libraries(test_build INTERFACE project_warnings test_sanitizers word_size)
if(BIOS_DAEMON_COVERAGE)
    # What ends a process without exit() writes its counts down itself.
    foreach(library target_build test_build)
        target_link_options(${library} INTERFACE --coverage LINKER:--undefined=__gcov_dump)
    endforeach()
endif()
if(BIOS_DAEMON_ARCH STREQUAL "i686")
    target_compile_options(word_size INTERFACE -m32 -march=i686 -msse2 -mfpmath=sse)
    target_link_options(word_size INTERFACE -m32)
elseif(NOT BIOS_DAEMON_ARCH STREQUAL "native")
    message(FATAL_ERROR "BIOS_DAEMON_ARCH is i686 or native, not ${BIOS_DAEMON_ARCH}")
endif()

# What a person types spends its time waiting for others: half the optimisation takes half the time to compile.
add_library(quick_build INTERFACE)
target_compile_options(quick_build INTERFACE $<$<CONFIG:RelWithDebInfo>:-O1 -g1>)

add_library(host_build INTERFACE)
target_link_libraries(host_build INTERFACE project_warnings sanitizers quick_build)

# precompile(target [header...])
#   Has the named headers, and those of the C++ library that most sources use, parsed once for all of the target. These
#   are headers from outside only: who needs one includes it all the same, as the daemon and the fuzzers are compiled
#   without.
function(precompile target)
    foreach(header algorithm array chrono filesystem functional map memory optional span sstream string string_view
                   vector ${ARGN})
        target_precompile_headers(${target} PRIVATE "$<$<COMPILE_LANGUAGE:CXX>:<${header}$<ANGLE-R>>")
    endforeach()
endfunction()

# Adds the objects of one folder of the daemon; they all end in libbios_daemon_core.a.
function(add_daemon_objects name)
    add_library(${name} OBJECT ${ARGN})
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/include
                                              ${CMAKE_SOURCE_DIR}/platform)
    target_compile_options(${name} PRIVATE -fno-exceptions -fno-rtti)
    if(BIOS_DAEMON_COVERAGE)
        # Else the compiler puts a function of its own in the place of fork.
        target_compile_options(${name} PRIVATE --coverage -O0 -fno-builtin-fork)
    endif()
    target_link_libraries(${name} PRIVATE target_build)
endfunction()
