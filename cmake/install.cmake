# Install rules: headers and library, the CMake package (qnbrl::qnbrl), qnbrl.pc, the command-line
# client, and the Debian packages made by CPack.
#
# A shared library links its dependencies itself, so its packages name none for the application's
# link. A static one leaves them to the application: the internal Socket.IO archive is installed
# beside it, the CMake package finds Boost, OpenSSL, RE2 and libsecret again, and qnbrl.pc lists them
# for `pkg-config --static`.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QNBRL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qnbrl)
set(QNBRL_SHARED ${BUILD_SHARED_LIBS})
if(QNBRL_SHARED)
  set(QNBRL_SHARED ON)
  set(qnbrl_install_targets qnbrl)
else()
  set(QNBRL_SHARED OFF)
  set(qnbrl_install_targets qnbrl qnbrl_socketio)
endif()

install(TARGETS ${qnbrl_install_targets} EXPORT qnbrlTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
  FILE_SET HEADERS COMPONENT Development)
if(QNBRL_BUILD_CLI)
  install(TARGETS qnbrl_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Cli)
endif()
install(EXPORT qnbrlTargets NAMESPACE qnbrl:: DESTINATION ${QNBRL_CMAKE_DIR} COMPONENT Development)

configure_package_config_file(cmake/qnbrlConfig.cmake.in ${PROJECT_BINARY_DIR}/qnbrlConfig.cmake
  INSTALL_DESTINATION ${QNBRL_CMAKE_DIR})
# Before 1.0 a minor version may change the API.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qnbrlConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qnbrlConfig.cmake ${PROJECT_BINARY_DIR}/qnbrlConfigVersion.cmake
  DESTINATION ${QNBRL_CMAKE_DIR} COMPONENT Development)

# qnbrl.pc finds its prefix from where it lies, so an unpacked package works wherever it is.
file(RELATIVE_PATH QNBRL_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" QNBRL_PC_TO_PREFIX "${QNBRL_PC_TO_PREFIX}")
if(QNBRL_SHARED)
  set(QNBRL_PC_REQUIRES_PRIVATE "")
  set(QNBRL_PC_LIBS_PRIVATE "")
else()
  set(QNBRL_PC_REQUIRES_PRIVATE "re2 libsecret-1 libssl libcrypto")
  set(QNBRL_PC_LIBS_PRIVATE "-lqnbrl_socketio -lboost_json -lboost_url")
endif()
configure_file(cmake/qnbrl.pc.in ${PROJECT_BINARY_DIR}/qnbrl.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qnbrl.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

# Debian packages: with a shared build, the runtime library (libqnbrl<soversion>) and the development
# files (libqnbrl-dev); with a static build, one development package whose dependencies are the
# development packages of everything the application's link needs.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qnbrl)
set(CPACK_PACKAGE_VENDOR qnbrl)
set(CPACK_PACKAGE_CONTACT "qnbrl maintainers <qnbrl@example.com>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
if(QNBRL_SHARED)
  set(CPACK_COMPONENTS_ALL Runtime Development)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libqnbrl${QNBRL_SOVERSION})
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqnbrl-dev)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libqnbrl${QNBRL_SOVERSION} (= ${PROJECT_VERSION})")
else()
  set(CPACK_COMPONENTS_ALL Development)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqnbrl-static-dev)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_CONFLICTS libqnbrl-dev)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libboost1.81-dev, libboost-json1.81-dev, libboost-url1.81-dev, libssl-dev (>= 3), libre2-dev, libsecret-1-dev, pkg-config")
endif()
# The command-line client is a package of its own, qnbrl-cli: its libraries are found by dpkg-shlibdeps,
# except a shared libqnbrl of this build, which it names itself.
if(QNBRL_BUILD_CLI)
  list(APPEND CPACK_COMPONENTS_ALL Cli)
  set(CPACK_DEBIAN_CLI_PACKAGE_NAME qnbrl-cli)
  set(CPACK_DEBIAN_CLI_PACKAGE_SECTION net)
  set(CPACK_DEBIAN_CLI_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
  if(QNBRL_SHARED)
    set(CPACK_DEBIAN_CLI_PACKAGE_DEPENDS "libqnbrl${QNBRL_SOVERSION} (= ${PROJECT_VERSION})")
  endif()
  set(CPACK_COMPONENT_CLI_DESCRIPTION "${PROJECT_DESCRIPTION}: the qnbrl command-line client")
endif()
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${PROJECT_DESCRIPTION}: headers, CMake and pkg-config files")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}: shared library")
include(CPack)
