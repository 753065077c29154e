# The conformance kit as a program, for these sources and for projects of platform teams.
set(platform_contract_folder ${CMAKE_CURRENT_LIST_DIR})

# add_contract_kit(name HEADERS folder... CORE file PLATFORM library... SURROUNDINGS source...)
#   HEADERS       folders of include/ and platform/
#   CORE          the daemon's library, for platforms that read its globals; of its functions none is called. As a
#                 file, so that the kit cannot include its headers
#   PLATFORM      the tested library, with all that it needs
#   SURROUNDINGS  sources with the functions of contract_surroundings.h, compiled as the project compiles its own
# NAME is the program, NAME_kit the kit's own objects. The target GTest::gtest has to be there.
function(add_contract_kit name)
    cmake_parse_arguments(PARSE_ARGV 1 contract "" "CORE" "HEADERS;PLATFORM;SURROUNDINGS")
    set(sources
        bios_flash_test.cpp
        cctrl_test.cpp
        cmi_test.cpp
        contract_test.cpp
        descriptors_test.cpp
        exec_cmd_test.cpp
        image_files_test.cpp
        main.cpp
        modlock_test.cpp
        mts_test.cpp
        peer.cpp
        peer_commands.cpp
        pfm_test.cpp
        programming.cpp
        result_code.cpp
        sdwrap_test.cpp
        sprom_test.cpp
        sysmgr_test.cpp
        tlv_test.cpp
        watchdog.cpp)
    list(TRANSFORM sources PREPEND ${platform_contract_folder}/)
    add_library(${name}_kit OBJECT ${sources})
    target_compile_features(${name}_kit PRIVATE cxx_std_20)
    target_include_directories(${name}_kit PRIVATE ${platform_contract_folder} ${contract_HEADERS})
    target_link_libraries(${name}_kit PRIVATE GTest::gtest)

    add_executable(${name} ${contract_SURROUNDINGS})
    target_include_directories(${name} PRIVATE ${platform_contract_folder} ${contract_HEADERS})
    # The daemon's library between two mentions of the platform's: each may need the other.
    target_link_libraries(${name} PRIVATE ${name}_kit GTest::gtest ${contract_PLATFORM} ${contract_CORE}
                                          ${contract_PLATFORM})
    set_target_properties(${name} PROPERTIES LINKER_LANGUAGE CXX)
endfunction()
