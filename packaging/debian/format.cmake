# What all Debian packages have in common. Included by packaging/CMakeLists.txt, which sets package_architecture and
# package_components.
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL ${package_components})
set(CPACK_PACKAGE_NAME bios-daemon)
set(CPACK_PACKAGE_VENDOR "bios_daemon developers")
set(CPACK_PACKAGE_CONTACT "bios_daemon developers <bios-daemon@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                                WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${package_architecture})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/multi_arch.cmake)

# dpkg-shlibdeps knows the libraries of this machine's architecture. Those of the other word size come from other
# packages here than where the packages are installed: there, the versions built with are asked for.
if(package_architecture STREQUAL "i386")
    set(shared_libraries OFF)
    execute_process(COMMAND getconf GNU_LIBC_VERSION OUTPUT_VARIABLE libc_version OUTPUT_STRIP_TRAILING_WHITESPACE)
    string(REGEX REPLACE "^glibc " "" libc_version "${libc_version}")
    string(REGEX MATCH "^[0-9]+" compiler_version ${CMAKE_CXX_COMPILER_VERSION})
    set(needs_libc "libc6 (>= ${libc_version}), libgcc-s1 (>= ${compiler_version})")
    set(needs_libstdcxx "${needs_libc}, libstdc++6 (>= ${compiler_version})")
else()
    set(shared_libraries ON)
endif()

# describe_package(component NAME name SECTION section SUMMARY line TEXT text [DEPENDS packages] [...])
#   PROGRAMS  the package has programs; LIBRARIES is what they depend on when dpkg-shlibdeps cannot tell
#   SODIUM    one of them has libsodium linked in, whose terms are to go with it
file(READ ${CMAKE_SOURCE_DIR}/LICENSE own_terms)
file(READ ${SODIUM_COPYRIGHT} sodium_terms)
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/terms_with_libsodium
     "${own_terms}\nlibsodium, which is linked in:\n\n${sodium_terms}")
function(describe_package component)
    cmake_parse_arguments(PARSE_ARGV 1 package "PROGRAMS;SODIUM"
        "NAME;SECTION;SUMMARY;TEXT;DEPENDS;LIBRARIES;RECOMMENDS;SUGGESTS" "")
    string(TOUPPER ${component} upper)
    set(depends ${package_DEPENDS} ${package_LIBRARIES})
    if(package_PROGRAMS)
        set(CPACK_DEBIAN_${upper}_PACKAGE_SHLIBDEPS ${shared_libraries} PARENT_SCOPE)
    endif()
    list(JOIN depends ", " depends)
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package_NAME} PARENT_SCOPE)
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${package_SECTION} PARENT_SCOPE)
    set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}" PARENT_SCOPE)
    set(CPACK_DEBIAN_${upper}_PACKAGE_RECOMMENDS "${package_RECOMMENDS}" PARENT_SCOPE)
    set(CPACK_DEBIAN_${upper}_PACKAGE_SUGGESTS "${package_SUGGESTS}" PARENT_SCOPE)
    set(CPACK_COMPONENT_${upper}_DESCRIPTION "${package_SUMMARY}\n${package_TEXT}" PARENT_SCOPE)
    set(terms ${CMAKE_SOURCE_DIR}/LICENSE)
    if(package_SODIUM)
        set(terms ${CMAKE_CURRENT_BINARY_DIR}/terms_with_libsodium)
    endif()
    install(FILES ${terms} DESTINATION share/doc/${package_NAME} RENAME copyright COMPONENT ${component})
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz DESTINATION share/doc/${package_NAME}
            COMPONENT ${component})
endfunction()

# What is run in packages with services.
set(service_scripts ${CMAKE_CURRENT_LIST_DIR}/postinst ${CMAKE_CURRENT_LIST_DIR}/prerm ${CMAKE_CURRENT_LIST_DIR}/postrm)
