# Run by CPack on the packages it has made: adds the field Multi-Arch, of which this CPack knows nothing. With it the
# 64-bit chassis tools may depend on the 32-bit daemon, and the -dev packages of both word sizes stay side by side.
foreach(package ${CPACK_PACKAGE_FILES})
    set(kind foreign)
    if(package MATCHES "-dev_[^/]*$")
        set(kind same)
    endif()
    set(work "${CPACK_TOPLEVEL_DIRECTORY}/multi-arch")
    file(REMOVE_RECURSE ${work})
    execute_process(COMMAND dpkg-deb --raw-extract ${package} ${work} COMMAND_ERROR_IS_FATAL ANY)
    file(READ ${work}/DEBIAN/control control)
    string(REPLACE "\nArchitecture:" "\nMulti-Arch: ${kind}\nArchitecture:" control "\n${control}")
    string(STRIP "${control}" control)
    file(WRITE ${work}/DEBIAN/control "${control}\n")
    execute_process(COMMAND dpkg-deb --build --root-owner-group ${work} ${package} OUTPUT_QUIET
                    COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE_RECURSE ${work})
endforeach()
