# Install rules, the CMake package and the pkg-config file.

include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/mira)

set(libraries mira)
if(BUILD_SHARED_LIBS)
    list(APPEND libraries mira_static)
endif()
install(TARGETS ${libraries}
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

# The pkg-config file names the C++ run-time libraries for callers that link the static library
# another way. Installed where this build was configured for, it tells whole paths; elsewhere, with
# `cmake --install --prefix`, it finds them from its own place, so that the tree can be moved.
set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(pc_libs_private "")
foreach(name stdc++ c++ m)
    if(name IN_LIST CMAKE_CXX_IMPLICIT_LINK_LIBRARIES)
        string(APPEND pc_libs_private " -l${name}")
    endif()
endforeach()
foreach(kind INCLUDEDIR LIBDIR)
    set(pc_${kind} ${CMAKE_INSTALL_FULL_${kind}})
endforeach()
set(pc_prefix ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/mira.pc.in ${PROJECT_BINARY_DIR}/mira.pc @ONLY)
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR} OR IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
    install(FILES ${PROJECT_BINARY_DIR}/mira.pc DESTINATION ${pc_dir} COMPONENT development)
else()
    file(RELATIVE_PATH up /${pc_dir} /)
    string(REGEX REPLACE "/$" "" pc_prefix "\${pcfiledir}/${up}")
    foreach(kind INCLUDEDIR LIBDIR)
        set(pc_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
    endforeach()
    configure_file(cmake/mira.pc.in ${PROJECT_BINARY_DIR}/movable/mira.pc @ONLY)
    set(configured ${CMAKE_INSTALL_PREFIX})
    install(CODE "set(mira_pc \"${PROJECT_BINARY_DIR}/movable/mira.pc\")
  if(CMAKE_INSTALL_PREFIX STREQUAL \"${configured}\")
    set(mira_pc \"${PROJECT_BINARY_DIR}/mira.pc\")
  endif()
  file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${pc_dir}\" TYPE FILE FILES \"\${mira_pc}\")"
        COMPONENT development)
endif()

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
    install(FILES docs/mira-filter.7 DESTINATION ${CMAKE_INSTALL_MANDIR}/man7 COMPONENT tools)
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
