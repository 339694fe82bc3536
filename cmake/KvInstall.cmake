# Libraries, headers and tools, and what other projects find them by: a CMake package and pkg-config files.
include(CMakePackageConfigHelpers)

set_target_properties(brevane_kernel PROPERTIES EXPORT_NAME brevane INSTALL_RPATH "$ORIGIN")
set_target_properties(kv PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(kvctl PROPERTIES
    INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

install(TARGETS kv brevane_kernel EXPORT kvTargets LIBRARY)
install(TARGETS kvctl RUNTIME)
install(DIRECTORY libkv/include/kv brevane/include/brevane TYPE INCLUDE)

set(package ${CMAKE_INSTALL_LIBDIR}/cmake/kv)
foreach(targets kvTargets kvSimulatorTargets)
    install(EXPORT ${targets} NAMESPACE kv:: DESTINATION ${package})
endforeach()
configure_package_config_file(cmake/kvConfig.cmake.in ${PROJECT_BINARY_DIR}/kvConfig.cmake INSTALL_DESTINATION ${package})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kvConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kvConfig.cmake ${PROJECT_BINARY_DIR}/kvConfigVersion.cmake cmake/KvModel.cmake
    DESTINATION ${package})

# The files tell their prefix from where they lie, so that an installed tree may be moved.
set(pkgconfig ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH prefix_from_pkgconfig /${pkgconfig} /)
foreach(file kv.pc brevane.pc)
    configure_file(cmake/${file}.in ${PROJECT_BINARY_DIR}/${file} @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${file} DESTINATION ${pkgconfig})
endforeach()

configure_file(docs/man/kvsim.1.in ${PROJECT_BINARY_DIR}/man/kvsim.1 @ONLY)
configure_file(docs/man/kvctl.1 ${PROJECT_BINARY_DIR}/man/kvctl.1 COPYONLY)
install(DIRECTORY ${PROJECT_BINARY_DIR}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
foreach(tool kvctl kvsim)
    install(FILES tools/completion/${tool}.bash RENAME ${tool}
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endforeach()
set(KV_ZSH_COMPLETIONS ${CMAKE_INSTALL_DATADIR}/zsh/site-functions CACHE STRING "Where zsh finds completions, below the prefix")
install(FILES tools/completion/kv.zsh RENAME _kv DESTINATION ${KV_ZSH_COMPLETIONS})
configure_file(cmake/environment.sh.in ${PROJECT_BINARY_DIR}/environment.sh @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/environment.sh DESTINATION ${CMAKE_INSTALL_DATADIR}/kv)
