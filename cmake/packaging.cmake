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
install(FILES ${PROJECT_BINARY_DIR}/qel_hspace.pc DESTINATION ${QEL_PKGCONFIG_INSTALL_DIR} COMPONENT dev)

# CMake package: find_package(qel_hspace) gives qel_hspace::qel_hspace
# (shared) and qel_hspace::qel_hspace_static.
install(EXPORT qel_hspace_targets
  NAMESPACE qel_hspace::
  FILE qel_hspaceTargets.cmake
  DESTINATION ${QEL_CMAKE_INSTALL_DIR}
  COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/qel_hspaceConfig.cmake.in
  ${PROJECT_BINARY_DIR}/qel_hspaceConfig.cmake
  INSTALL_DESTINATION ${QEL_CMAKE_INSTALL_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qel_hspaceConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/qel_hspaceConfig.cmake
  ${PROJECT_BINARY_DIR}/qel_hspaceConfigVersion.cmake
  DESTINATION ${QEL_CMAKE_INSTALL_DIR}
  COMPONENT dev)

# Debian packages (cpack -G DEB, or scripts/package): the shared library,
# the development files, and the tools with their manual pages, completion
# and systemd unit. Every install rule above names its component.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qel-hspace)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "qel_hspace developers <qel-hspace@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "client library of the hspace keyed object store")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL lib dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# Our own library, found in the build tree while the tools' dependencies are
# worked out; the packages' Depends name it explicitly.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(QEL_DEB_VERSION "${PROJECT_VERSION}-1")
set(CPACK_DEBIAN_LIB_PACKAGE_NAME libqel-hspace1)
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIB_DESCRIPTION "client library of the hspace keyed object store\n\
qel_hspace connects to an hspace service over TCP and stores, fetches, removes and\n\
subscribes to objects under string keys, through a C99 and a C++17 API.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libqel-hspace-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libqel-hspace1 (= ${QEL_DEB_VERSION})")
set(CPACK_DEBIAN_DEV_DESCRIPTION "development files of qel_hspace\n\
Headers (qel_hspace.h, qel_hspace.hpp and the kro headers), the static library,\n\
the pkg-config file and the CMake package.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME hspace-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libqel-hspace1 (= ${QEL_DEB_VERSION})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "hspace command-line client and the hspaced service\n\
hspace stores, fetches, lists, removes and watches objects; hspaced is the\n\
reference service, with a systemd unit (not enabled on install).")
include(CPack)
