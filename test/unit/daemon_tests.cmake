# Tests of the daemon, on the recording platform of test/support.
# Calls of the C library that the recording platform answers.
set(wrapped_calls
    access backtrace backtrace_symbols calloc chdir chmod creat exit fflush fopen fork get_current_dir_name getcwd
    lstat lstat64 malloc mkdir mmap munmap on_exit open openat pclose popen remove rename setpriority sleep stat syslog
    system unlink waitpid write
)
list(TRANSFORM wrapped_calls PREPEND "LINKER:--wrap=" OUTPUT_VARIABLE wrap_options)

add_library(recording_platform OBJECT
    ${CMAKE_SOURCE_DIR}/test/support/daemon_process.cpp
    ${CMAKE_SOURCE_DIR}/test/support/recording_platform.cpp
    ${CMAKE_SOURCE_DIR}/test/support/recording_services.cpp
    ${CMAKE_SOURCE_DIR}/test/support/recording_transport.cpp
    ${CMAKE_SOURCE_DIR}/test/support/wrapped_files.cpp
    ${CMAKE_SOURCE_DIR}/test/support/wrapped_libc.cpp
)
target_include_directories(recording_platform PUBLIC ${CMAKE_SOURCE_DIR}/test/support)
target_include_directories(recording_platform PRIVATE ${CMAKE_SOURCE_DIR}/include ${CMAKE_SOURCE_DIR}/platform)
# -fno-builtin keeps the definitions of malloc's stand-ins from being taken for malloc itself.
target_compile_options(recording_platform PRIVATE -fno-builtin)
target_link_libraries(recording_platform PRIVATE test_build)

# The daemon's main under the name daemon_main, for the tests that run the whole daemon.
add_library(daemon_main_source OBJECT ${CMAKE_SOURCE_DIR}/sup/sup_bios_daemon/main.cpp)
target_include_directories(daemon_main_source
    PRIVATE $<TARGET_PROPERTY:bios_daemon_core,INTERFACE_INCLUDE_DIRECTORIES>)
target_compile_options(daemon_main_source PRIVATE -fno-exceptions -fno-rtti)
if(BIOS_DAEMON_COVERAGE)
    target_compile_options(daemon_main_source PRIVATE --coverage -O0 -fno-builtin-fork)
endif()
target_link_libraries(daemon_main_source PRIVATE target_build)
set(daemon_main ${CMAKE_CURRENT_BINARY_DIR}/daemon_main.o)
add_custom_command(OUTPUT ${daemon_main}
    COMMAND ${CMAKE_OBJCOPY} --redefine-sym main=daemon_main $<TARGET_OBJECTS:daemon_main_source> ${daemon_main}
    DEPENDS daemon_main_source $<TARGET_OBJECTS:daemon_main_source>
    COMMAND_EXPAND_LISTS VERBATIM)
add_custom_target(daemon_main DEPENDS ${daemon_main})

add_custom_target(daemon_unit_tests)

# add_daemon_test(name [MAIN] [SOURCES source...] [WRAP function...]) compiles <name>.cpp and the sources; WRAP
# names further functions that the test stands in for, MAIN links the daemon's main too, for run_daemon().
function(add_daemon_test name)
    cmake_parse_arguments(PARSE_ARGV 1 daemon "MAIN" "" "SOURCES;WRAP")
    add_unit_test(${name} ${name}.cpp ${daemon_SOURCES} LIBS recording_platform bios_daemon_core)
    target_include_directories(${name} PRIVATE
        ${CMAKE_SOURCE_DIR}/common/common_bios_daemon ${CMAKE_SOURCE_DIR}/sup/child_sup_bios_daemon
        ${CMAKE_SOURCE_DIR}/sup/sup_bios_daemon ${CMAKE_SOURCE_DIR}/sup/sup_map_tbl_func)
    add_dependencies(daemon_unit_tests ${name})
    list(TRANSFORM daemon_WRAP PREPEND "LINKER:--wrap=")
    target_link_options(${name} PRIVATE ${wrap_options} ${daemon_WRAP})
    if(daemon_MAIN)
        target_sources(${name} PRIVATE ${daemon_main})
        add_dependencies(${name} daemon_main)
    endif()
endfunction()

add_daemon_test(bios_cmd_check_test)
add_daemon_test(bios_log_test)
add_daemon_test(bios_messages_test)
add_daemon_test(boot_flash_report_test)
add_daemon_test(card_identification_test)
add_daemon_test(card_table_test)
add_daemon_test(bios_flash_entry_tbl_test)
add_daemon_test(exit_handler_test)
add_daemon_test(file_exists_test)
add_daemon_test(flash_programming_test)
add_daemon_test(flash_selection_test)
add_daemon_test(flash_walk_test)
add_daemon_test(harmless_path_test)
add_daemon_test(image_comparison_test WRAP close)
add_daemon_test(image_extraction_test)
add_daemon_test(image_mapping_test)
add_daemon_test(loader_files_test)
add_daemon_test(loader_install_test WRAP getuid)
add_daemon_test(main_test MAIN)
add_daemon_test(message_loop_test MAIN WRAP bios_daemon_child_process)
add_daemon_test(module_lock_test)
add_daemon_test(module_node_test)
add_daemon_test(module_programming_test)
add_daemon_test(module_version_test WRAP cmi_remote_req_resp cmi_response free tlv_aligned_array_get_next_tlv)
add_daemon_test(output_redirection_test WRAP dup dup2)
add_daemon_test(ppc_version_test)
add_daemon_test(programming_child_test
    WRAP bios_get_card_id_ent bios_prog_all_bios_flashes bios_prog_in_modules)
add_daemon_test(programming_start_test MAIN WRAP bios_daemon_child_process)
add_daemon_test(running_version_test)
add_daemon_test(self_version_test WRAP mod_get_bios_version)
add_daemon_test(source_version_test WRAP bios_get_card_id_ent cmi_response free)
add_daemon_test(tarvik_a_override_test)
add_daemon_test(version_accessors_test
    WRAP get_ppc_bios_version get_ppc_lc2dc3_bios_version get_x86_bios_version get_x86n_bios_version
         get_x86s_bios_version)
add_daemon_test(version_compare_test)
add_daemon_test(version_requests_test
    WRAP bios_get_new_self_version_info bios_get_self_version_info bios_get_version_info_from_mod
         bios_return_src_version get_sw_card_id)
add_daemon_test(x86_version_test)
add_daemon_test(card_families_test)
target_link_libraries(card_families_test PRIVATE tool_sources)
