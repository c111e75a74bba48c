# Install rules: the library with its SONAME links, the public headers,
# pkg-config and CMake package files, redfishctl, man pages and licence.
# The library's own dependencies stay private (it is only ever shared), so
# neither bmcredfish.pc nor the CMake package names them.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS bmcredfish EXPORT bmcredfishTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(FILES include/bmcredfish.h ${CMAKE_BINARY_DIR}/include/bmcredfish_version.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

# Written at install time so that the prefix is the one installed to
# (cmake --install --prefix), not the one configured.
install(CODE "
  set(CMAKE_INSTALL_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(CMAKE_INSTALL_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  set(PROJECT_VERSION \"${PROJECT_VERSION}\")
  configure_file(\"${CMAKE_SOURCE_DIR}/bmcredfish.pc.in\" \"${CMAKE_BINARY_DIR}/bmcredfish.pc\" @ONLY)"
  COMPONENT dev)
install(FILES ${CMAKE_BINARY_DIR}/bmcredfish.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT dev)

set(BMCREDFISH_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/bmcredfish)
install(EXPORT bmcredfishTargets NAMESPACE bmcredfish:: DESTINATION ${BMCREDFISH_CMAKE_DIR}
        COMPONENT dev)
configure_package_config_file(cmake/bmcredfishConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/bmcredfishConfig.cmake
                              INSTALL_DESTINATION ${BMCREDFISH_CMAKE_DIR})
# A new major is a new SONAME: only the same major is compatible.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/bmcredfishConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/bmcredfishConfig.cmake
              ${CMAKE_BINARY_DIR}/bmcredfishConfigVersion.cmake
        DESTINATION ${BMCREDFISH_CMAKE_DIR} COMPONENT dev)

# redfishctl finds the library in the standard libdir once installed: no RUNPATH.
if(TARGET redfishctl)
  set_target_properties(redfishctl PROPERTIES INSTALL_RPATH "")
  install(TARGETS redfishctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT cli)
endif()

# bmcredfish(3): its list of result codes is generated from the header's table.
configure_file(docs/man/bmcredfish.3.in ${CMAKE_BINARY_DIR}/man/bmcredfish.3.in @ONLY)
add_executable(man_result_codes cmake/man_result_codes.c)
target_include_directories(man_result_codes PRIVATE ${CMAKE_SOURCE_DIR}/include)
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/man/bmcredfish.3
                   COMMAND man_result_codes ${CMAKE_BINARY_DIR}/man/bmcredfish.3.in
                           ${CMAKE_BINARY_DIR}/man/bmcredfish.3
                   DEPENDS man_result_codes ${CMAKE_BINARY_DIR}/man/bmcredfish.3.in
                   COMMENT "Generating bmcredfish.3")
add_custom_target(man ALL DEPENDS ${CMAKE_BINARY_DIR}/man/bmcredfish.3)
install(FILES ${CMAKE_BINARY_DIR}/man/bmcredfish.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3
        COMPONENT dev)
install(FILES docs/man/redfishctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT cli)

install(FILES LICENSE CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)
