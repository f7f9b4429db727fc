# `cmake --install`: headers, the libraries (static, or shared with
# BUILD_SHARED_LIBS as the Debian packages build them), the `ferrow` tool
# with its systemd unit, a CMake package (find_package(ferrow) ->
# ferrow::ferrow) and a pkg-config file. Three components, one Debian
# package each (cmake/package.cmake): runtime (the shared libraries),
# development (the rest of the library) and tool.
include(CMakePackageConfigHelpers)

set(FERROW_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/ferrow")

# Installed names: ferrow::messages and ferrow::connection as in the build
# tree; the logger library gets a name that cannot clash in a shared libdir.
set_target_properties(ferrow_messages PROPERTIES EXPORT_NAME messages)
set_target_properties(ferrow_connection PROPERTIES EXPORT_NAME connection)
set_target_properties(logger PROPERTIES OUTPUT_NAME ferrow_logger)

# Shared libraries change their interface with every minor version while
# the major one is 0: the minor version is part of the soname.
set(FERROW_SOVERSION "${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}")
foreach(library logger ferrow_messages ferrow_connection ferrow)
  set_target_properties(${library} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${FERROW_SOVERSION})
endforeach()

install(TARGETS logger utility ferrow_messages ferrow_connection ferrow
  EXPORT ferrowTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(TARGET ferrow_cli)
  install(TARGETS ferrow_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
  # `ferrow register` as a service of systemd, for programs that cannot link
  # the library: one instance of the unit per record, configured by
  # /etc/ferrow/register/<name>.conf (the example shows every setting).
  configure_file(${PROJECT_SOURCE_DIR}/tools/systemd/ferrow-register@.service.in
    ${PROJECT_BINARY_DIR}/ferrow-register@.service @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/ferrow-register@.service
    DESTINATION lib/systemd/system COMPONENT tool)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/systemd/register.conf.example
    DESTINATION ${CMAKE_INSTALL_DATADIR}/ferrow COMPONENT tool)
endif()

# The licence, as Debian keeps it: /usr/share/doc/<package>/copyright in
# each package, pointing to the full text in /usr/share/common-licenses.
configure_file(${CMAKE_CURRENT_LIST_DIR}/copyright.in ${PROJECT_BINARY_DIR}/copyright COPYONLY)
foreach(component_package "runtime;libferrow${FERROW_SOVERSION}" "development;libferrow-dev" "tool;ferrow")
  list(GET component_package 0 component)
  list(GET component_package 1 package)
  install(FILES ${PROJECT_BINARY_DIR}/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
    COMPONENT ${component})
endforeach()

install(DIRECTORY
    ${PROJECT_SOURCE_DIR}/logger/include/logger
    ${PROJECT_SOURCE_DIR}/utility/include/utility
    ${PROJECT_SOURCE_DIR}/ferrow/include/ferrow
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
  FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/messaging/generated/messaging/ferrow/service.pb.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/messaging/ferrow COMPONENT development)
# For programs in other languages that read or write instance nodes.
install(FILES ${PROJECT_SOURCE_DIR}/messaging/ferrow/service.proto
  DESTINATION ${CMAKE_INSTALL_DATADIR}/ferrow COMPONENT development)

install(EXPORT ferrowTargets NAMESPACE ferrow:: DESTINATION ${FERROW_INSTALL_CMAKEDIR} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/ferrowConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ferrowConfig.cmake
  INSTALL_DESTINATION ${FERROW_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ferrowConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ferrowConfig.cmake ${PROJECT_BINARY_DIR}/ferrowConfigVersion.cmake
  DESTINATION ${FERROW_INSTALL_CMAKEDIR} COMPONENT development)

# The .pc file finds its prefix from its own location, so it stays right
# whatever --prefix the install is given.
file(RELATIVE_PATH FERROW_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" FERROW_PC_TO_PREFIX "${FERROW_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/ferrow.pc.in ${PROJECT_BINARY_DIR}/ferrow.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ferrow.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
