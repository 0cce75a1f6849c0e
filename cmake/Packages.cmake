# Debian packages, one for each install component; script/package makes them. Which files a component has, the install
# rules beside these say; what happens when it comes to a device and goes, packaging/COMPONENT/.

include(GNUInstallDirs)

set(PROPERTYSERVICE_MAINTAINER "PropertyService maintainers <maintainers@propertyservice.invalid>"
    CACHE STRING "Whom the packages name as their maintainer")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME propertyservice)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${PROPERTYSERVICE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

string(TIMESTAMP PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)

# project_package(COMPONENT NAME SECTION SUMMARY LINE...): COMPONENT becomes the package NAME, which is described by
# SUMMARY and LINEs.
macro(project_package component name section summary)
  string(TOUPPER ${component} upper)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  string(JOIN "\n" CPACK_COMPONENT_${upper}_DESCRIPTION "${summary}" ${ARGN})
  file(GLOB CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/${component}/*)
  list(FILTER CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA EXCLUDE REGEX "lintian-overrides$")

  set(PACKAGE_NAME ${name})
  configure_file(packaging/changelog.in ${PROJECT_BINARY_DIR}/packaging/${component}/changelog @ONLY)
  install_document(${PROJECT_BINARY_DIR}/packaging/${component}/changelog ${component}
                   ${CMAKE_INSTALL_DATADIR}/doc/${name})
  install(FILES packaging/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
  if(EXISTS ${PROJECT_SOURCE_DIR}/packaging/${component}/lintian-overrides)
    install(FILES packaging/${component}/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
            RENAME ${name} COMPONENT ${component})
  endif()
endmacro()

project_package(
  daemon propertyservice net "daemon that owns the configuration of a networked telephone"
  "It answers requests for the device's settings over MQTT, checks each write"
  "against the rules of the setting, announces every change, and writes and"
  "restores backups."
  "."
  "What a device's settings are, a database script says that comes with the"
  "device's firmware. There is one to try in propertyservice-sample-device.")
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS 
    "mosquitto (>= 2.0), sqlite3, systemd | systemd-sysusers, systemd | systemd-tmpfiles")
set(CPACK_DEBIAN_DAEMON_PACKAGE_SUGGESTS "propctl, propertyservice-sample-device")

project_package(
  sample propertyservice-sample-device net "settings of a sample telephone for propertyservice"
  "A database script with its migrations and customisations, to try"
  "propertyservice on any computer. Real devices have their own.")
set(CPACK_DEBIAN_SAMPLE_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_SAMPLE_PACKAGE_DEPENDS propertyservice)
set(CPACK_DEBIAN_SAMPLE_PACKAGE_SHLIBDEPS OFF)

project_package(
  propctl propctl net "command-line client of propertyservice"
  "Reads, writes and watches the settings of a networked telephone, on the device"
  "or over the network, and checks a device's configuration files.")

project_package(
  propclient libpropclient-dev libdevel "client library of propertyservice"
  "For C++ programs that read, write and watch the settings of a networked"
  "telephone: header, static library, CMake package and pkg-config file.")
set(CPACK_DEBIAN_PROPCLIENT_PACKAGE_DEPENDS "libjsoncpp-dev, libmosquitto-dev")
set(CPACK_DEBIAN_PROPCLIENT_PACKAGE_SHLIBDEPS OFF)

include(CPack)
