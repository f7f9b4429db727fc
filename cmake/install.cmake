# `cmake --install`: headers, static libraries, the `ferrow` tool, a CMake
# package (find_package(ferrow) -> ferrow::ferrow) and a pkg-config file.
include(CMakePackageConfigHelpers)

set(FERROW_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/ferrow")

# Installed names: ferrow::messages and ferrow::connection as in the build
# tree; the logger library gets a name that cannot clash in a shared libdir.
set_target_properties(ferrow_messages PROPERTIES EXPORT_NAME messages)
set_target_properties(ferrow_connection PROPERTIES EXPORT_NAME connection)
set_target_properties(logger PROPERTIES OUTPUT_NAME ferrow_logger)

install(TARGETS logger utility ferrow_messages ferrow_connection ferrow
  EXPORT ferrowTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(TARGET ferrow_cli)
  install(TARGETS ferrow_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

install(DIRECTORY
    ${PROJECT_SOURCE_DIR}/logger/include/logger
    ${PROJECT_SOURCE_DIR}/utility/include/utility
    ${PROJECT_SOURCE_DIR}/ferrow/include/ferrow
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/messaging/generated/messaging/ferrow/service.pb.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/messaging/ferrow)
# For programs in other languages that read or write instance nodes.
install(FILES ${PROJECT_SOURCE_DIR}/messaging/ferrow/service.proto
  DESTINATION ${CMAKE_INSTALL_DATADIR}/ferrow)

install(EXPORT ferrowTargets NAMESPACE ferrow:: DESTINATION ${FERROW_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/ferrowConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ferrowConfig.cmake
  INSTALL_DESTINATION ${FERROW_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ferrowConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ferrowConfig.cmake ${PROJECT_BINARY_DIR}/ferrowConfigVersion.cmake
  DESTINATION ${FERROW_INSTALL_CMAKEDIR})

# The .pc file finds its prefix from its own location, so it stays right
# whatever --prefix the install is given.
file(RELATIVE_PATH FERROW_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" FERROW_PC_TO_PREFIX "${FERROW_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/ferrow.pc.in ${PROJECT_BINARY_DIR}/ferrow.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ferrow.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
