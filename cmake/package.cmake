# Debian packages with CPack (scripts/package builds them): the shared
# libraries, the development files and the tool, one package per install
# component (cmake/install.cmake). Built from a tree configured with
# BUILD_SHARED_LIBS=ON and CMAKE_INSTALL_PREFIX=/usr.
set(FERROW_RUNTIME_PACKAGE "libferrow${FERROW_SOVERSION}")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ferrow)
set(CPACK_PACKAGE_VENDOR "ferrow")
set(CPACK_PACKAGE_CONTACT "ferrow maintainers <ferrow@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_COMPONENTS_ALL runtime development tool)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# Dependencies on system libraries from the binaries; ours are found in the
# build tree and named below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  "${PROJECT_BINARY_DIR}/ferrow" "${PROJECT_BINARY_DIR}/logger" "${PROJECT_BINARY_DIR}/messaging")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${FERROW_RUNTIME_PACKAGE})
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Service discovery over ZooKeeper: shared libraries")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libferrow-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${FERROW_RUNTIME_PACKAGE} (= ${PROJECT_VERSION}), libzookeeper-mt-dev, libprotobuf-dev, libboost1.81-dev | libboost-dev (>= 1.81), zlib1g-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "Service discovery over ZooKeeper: headers, CMake package, pkg-config file and service.proto")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME ferrow)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${FERROW_RUNTIME_PACKAGE} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_TOOL_DESCRIPTION
  "Service discovery over ZooKeeper: the ferrow command-line tool and the ferrow-register@ systemd unit")

include(CPack)
