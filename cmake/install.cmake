# Install rules, the CMake package and the pkg-config file.

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

# Programs find the shared library of their own installation, wherever that is moved.
set(install_rpath "")
if(BUILD_SHARED_LIBS AND NOT IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
    file(RELATIVE_PATH from_bin /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
    set(install_rpath "$ORIGIN/${from_bin}")
endif()
if(MIRA_BUILD_DUMP)
    set_target_properties(miradump PROPERTIES INSTALL_RPATH "${install_rpath}")
    install(TARGETS miradump RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    install(FILES docs/miradump.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endif()
if(MIRA_BUILD_TOOL)
    set_target_properties(mira_program PROPERTIES INSTALL_RPATH "${install_rpath}")
    install(TARGETS mira_program RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    if(MIRA_PAGE_FILE)
        install(FILES ${MIRA_PAGE_FILE} RENAME mira.html COMPONENT tools
            DESTINATION ${CMAKE_INSTALL_DATADIR}/mira)
    endif()
    install(FILES docs/mira.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
    if(NOT CMAKE_CROSSCOMPILING)
        set(scripts ${PROJECT_BINARY_DIR}/tool)
        install(FILES ${scripts}/mira.bash RENAME mira COMPONENT tools
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
        install(FILES ${scripts}/mira.zsh RENAME _mira COMPONENT tools
            DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
        install(FILES ${scripts}/mira.fish COMPONENT tools
            DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
    endif()
endif()
if(MIRA_BUILD_SQLITE)
    set_target_properties(mira_sqlite PROPERTIES INSTALL_RPATH "$ORIGIN")
    install(TARGETS mira_sqlite LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT sqlite)
endif()
if(MIRA_BUILD_ARROW)
    set_target_properties(mira_arrow PROPERTIES INSTALL_RPATH "$ORIGIN")
    install(TARGETS mira_arrow
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT arrow NAMELINK_COMPONENT development)
    install(FILES arrow/mira_arrow.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
endif()
if(MIRA_BUILD_DUCKDB)
    install(FILES ${PROJECT_BINARY_DIR}/duckdb/mira.duckdb_extension
        DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT duckdb)
endif()
if(SKBUILD)  # a wheel is being built; see python/pyproject.toml
    install(TARGETS mira_arrow mira_sqlite
        LIBRARY DESTINATION . COMPONENT python NAMELINK_SKIP)
endif()
install(FILES LICENSE README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
