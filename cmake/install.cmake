# Install rules, the CMake package, the pkg-config file, and the Debian packages of `cpack`.

include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/mira)

install(TARGETS mira
    EXPORT mira-targets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(FILES library/mira.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT mira-targets
    NAMESPACE mira::
    DESTINATION ${package_dir}
    COMPONENT development)

configure_package_config_file(cmake/mira-config.cmake.in ${PROJECT_BINARY_DIR}/mira-config.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/mira-config-version.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/mira-config.cmake
    ${PROJECT_BINARY_DIR}/mira-config-version.cmake
    DESTINATION ${package_dir}
    COMPONENT development)

# The pkg-config file finds its prefix from its own place, so that the tree can be moved; and it
# names the C++ run-time libraries for callers that link the static library another way.
set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
    set(pc_prefix ${CMAKE_INSTALL_PREFIX})
else()
    file(RELATIVE_PATH up /${pc_dir} /)
    string(REGEX REPLACE "/$" "" up ${up})
    set(pc_prefix "\${pcfiledir}/${up}")
endif()
foreach(kind INCLUDEDIR LIBDIR)
    if(IS_ABSOLUTE ${CMAKE_INSTALL_${kind}})
        set(pc_${kind} ${CMAKE_INSTALL_${kind}})
    else()
        set(pc_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
    endif()
endforeach()
set(pc_libs_private "")
foreach(name stdc++ c++ m)
    if(name IN_LIST CMAKE_CXX_IMPLICIT_LINK_LIBRARIES)
        string(APPEND pc_libs_private " -l${name}")
    endif()
endforeach()
configure_file(cmake/mira.pc.in ${PROJECT_BINARY_DIR}/mira.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/mira.pc DESTINATION ${pc_dir} COMPONENT development)

if(BUILD_SHARED_LIBS AND NOT IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
    file(RELATIVE_PATH from_bin /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
    set_target_properties(miradump PROPERTIES INSTALL_RPATH "$ORIGIN/${from_bin}")
endif()
install(TARGETS miradump RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(FILES docs/miradump.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
install(FILES LICENSE README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)

# ---------------------------------------------------------------------------------------------
# Debian packages: libmira, libmira-dev, miradump. A static build has no libmira.
# ---------------------------------------------------------------------------------------------

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME mira)
set(CPACK_PACKAGE_VENDOR "MIRAlib contributors")
set(CPACK_PACKAGE_CONTACT "MIRAlib contributors <mira@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_COMPONENTS_ALL development tools)
if(BUILD_SHARED_LIBS)
    list(APPEND CPACK_COMPONENTS_ALL runtime)
    set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
    set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
endif()
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "The shared library for dBase-family tables.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Header, library and build files of MIRAlib.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "Prints the records of a dBase-family table as text.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libmira)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libmira-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME miradump)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
include(CPack)
