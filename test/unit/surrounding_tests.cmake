# Tests of the chassis and of the command line.
foreach(subject
        bios_header commands diagnostics flash_bytes nor_file flash_events flash_faults flash_progress_file flash_service inventory module_lock
        notices transport_faults transport_frames transport_requests transport transport_tlv utc_time)
    # The one that fills event logs to their ends takes a minute: it is shared out.
    set(shards 1)
    if(subject STREQUAL "flash_events")
        set(shards 4)
    endif()
    add_unit_test(chassis_${subject}_test chassis_${subject}_test.cpp LIBS chassis_platform SHARDS ${shards})
endforeach()

foreach(subject description diagnostics_view endpoint_probe image_tools loader_tools standin)
    add_unit_test(chassis_${subject}_test chassis_${subject}_test.cpp LIBS tool_sources chassis_platform)
endforeach()
add_dependencies(chassis_image_tools_test bios_image veskadd)
add_dependencies(chassis_loader_tools_test bios_image init-system nbitool)
target_link_options(chassis_loader_tools_test PRIVATE "LINKER:--wrap=fsync,--wrap=renameat2,--wrap=write")
target_compile_definitions(chassis_description_test PRIVATE FAMILIES_DEMO="${CMAKE_SOURCE_DIR}/chassis/demo/families.toml")
target_compile_definitions(chassis_standin_test PRIVATE MODULE_STANDIN_PROGRAM="$<TARGET_FILE:module_standin>")
add_dependencies(chassis_standin_test module_standin)

add_unit_test(write_all_test write_all_test.cpp)
target_link_options(write_all_test PRIVATE LINKER:--wrap=write)

foreach(subject
        arguments events json loader lock metrics program_all program_report program_request program program_wait progress_bar
        result_text show source sync sync_plan terminal verdict watch)
    add_unit_test(biosctl_${subject}_test JSON biosctl_${subject}_test.cpp LIBS biosctl_under_test)
endforeach()
