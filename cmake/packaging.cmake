# Install-side packaging of qel_hspace: the export rule of the shared
# library, the pkg-config file and the CMake package. Included by the
# top-level CMakeLists.txt after the install(TARGETS ...) rule that fills the
# export set qel_hspace_targets.

include(CMakePackageConfigHelpers)

set(QEL_PKGCONFIG_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(QEL_CMAKE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qel_hspace)

# The shared library exports the public API and nothing else: hidden
# visibility hides the library's own functions, the version script also
# hides what the C++ runtime's headers would export (template
# instantiations, typeinfo) and the linker's own symbols.
target_link_options(qel_hspace PRIVATE "-Wl,--version-script=${CMAKE_CURRENT_LIST_DIR}/qel_hspace.map")
set_property(TARGET qel_hspace APPEND PROPERTY LINK_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/qel_hspace.map)

# The static library is C++ inside: an application written in C that links
# it needs the C++ runtime too (a C++ application links it anyway).
target_link_libraries(qel_hspace_static INTERFACE $<INSTALL_INTERFACE:stdc++>)

# pkg-config: paths relative to the .pc file, so that an installed tree
# works wherever `cmake --install --prefix` put it.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(QEL_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(QEL_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  file(RELATIVE_PATH QEL_PC_UP "/${QEL_PKGCONFIG_INSTALL_DIR}" "/")
  string(REGEX REPLACE "/$" "" QEL_PC_UP "${QEL_PC_UP}")
  set(QEL_PC_PREFIX "\${pcfiledir}/${QEL_PC_UP}")
  set(QEL_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(QEL_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(QEL_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/qel_hspace.pc.in ${PROJECT_BINARY_DIR}/qel_hspace.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qel_hspace.pc DESTINATION ${QEL_PKGCONFIG_INSTALL_DIR})

# CMake package: find_package(qel_hspace) gives qel_hspace::qel_hspace
# (shared) and qel_hspace::qel_hspace_static.
install(EXPORT qel_hspace_targets
  NAMESPACE qel_hspace::
  FILE qel_hspaceTargets.cmake
  DESTINATION ${QEL_CMAKE_INSTALL_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/qel_hspaceConfig.cmake.in
  ${PROJECT_BINARY_DIR}/qel_hspaceConfig.cmake
  INSTALL_DESTINATION ${QEL_CMAKE_INSTALL_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qel_hspaceConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/qel_hspaceConfig.cmake
  ${PROJECT_BINARY_DIR}/qel_hspaceConfigVersion.cmake
  DESTINATION ${QEL_CMAKE_INSTALL_DIR})
