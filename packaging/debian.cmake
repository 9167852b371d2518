# The Debian packages, one a component. cmake/package.sh builds twice: the simulator's daemon lives in its
# directory, everything else comes from the terminal's build. It gives CPack what only it knows: the
# architecture and, as LS_DEPENDS_<component>, the dependencies that the programs' libraries make.
find_program(GZIP gzip REQUIRED)
set(contact "The location_service authors <maintainers@location-service.invalid>"
  CACHE STRING "Maintainer of the Debian packages: Name <address>")
mark_as_advanced(contact)

set(packages "")
# ls_package(COMPONENT NAME SECTION DEPENDS SUMMARY DESCRIPTION): names the package and installs its
# documentation. Files of packaging/debian/ that begin with its name are its control files.
macro(ls_package component name section depends summary description)
  string(TOUPPER ${component} upper)
  list(APPEND packages ${component})
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_COMPONENT_${upper}_DESCRIPTION "${summary}\n${description}")
  set(CPACK_LS_DEPENDS_${upper} "${depends}")
  file(GLOB control "${CMAKE_CURRENT_SOURCE_DIR}/debian/${name}.*")
  set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA "")
  foreach(file ${control})
    get_filename_component(kind "${file}" EXT)
    string(SUBSTRING "${kind}" 1 -1 kind)
    if(kind STREQUAL "lintian-overrides")
      install(FILES "${file}" DESTINATION share/lintian/overrides RENAME ${name} COMPONENT ${component})
    else()
      configure_file("${file}" "debian/${name}/${kind}" @ONLY)
      list(APPEND CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA
        "${CMAKE_CURRENT_BINARY_DIR}/debian/${name}/${kind}")
    endif()
  endforeach()
  install(FILES debian/copyright "${CMAKE_CURRENT_BINARY_DIR}/changelog.gz"
    DESTINATION share/doc/${name} COMPONENT ${component})
endmacro()

execute_process(
  COMMAND awk -v "maintainer=${contact}" -f "${CMAKE_CURRENT_SOURCE_DIR}/debian/changelog.awk"
    "${PROJECT_SOURCE_DIR}/CHANGELOG.md"
  COMMAND "${GZIP}" -9nc
  OUTPUT_FILE "${CMAKE_CURRENT_BINARY_DIR}/changelog.gz" COMMAND_ERROR_IS_FATAL ANY)

set(same "(= ${PROJECT_VERSION})")
# systemd-sysusers and systemd-tmpfiles make the users and directories; both come without systemd, too.
set(makers "systemd | systemd-standalone-sysusers, systemd | systemd-standalone-tmpfiles")
if(LS_ROOT STREQUAL "")
  ls_package(daemon location-service net "${makers}"
    "GNSS location service of the terminal"
    "The daemon that owns the terminal's satellite receiver, on the local serial
line or behind another service of the message bus. It answers the other
services: position, time, speed, satellites, receiver power, parameters for
the cellular side, periodic updates and a location history.
.
It runs as a user of its own, without privileges.")
  ls_package(platform terminal-platform libs "${makers}"
    "bus, settings and hardware abstraction of the terminal"
    "The three libraries between the terminal's services and the system:
libmqutils (the message bus), libdbhandler (the settings database) and
libzukhal (log, board type, timers and votes against sleep). A fourth,
libdbhandler_admin, lets tools change the settings.
.
With them come the bus directory, in which every service owns the place of
its own id and no other, and the users of the services.")
  ls_package(library liblocation-client3 libs ""
    "client library of the terminal's location service"
    "Typed requests to the location service over the terminal's message bus, with
time-outs and errors that say what is wrong; blocking, or with a descriptor
for an event loop.
.
This package contains the shared library.")
  ls_package(client lsctl utils ""
    "command for the terminal's location service"
    "One sub-command for each thing the location service can be asked: position,
time, speed, satellites, power, periodic updates, history, engineering
commands and settings, in people's units or as JSON.
.
Its users must be members of the groups terminal-bus and terminal-tools.")
  ls_package(python python3-location-client python "python3:any (>= 3.9)"
    "Python client of the terminal's location service"
    "The module location_client: typed, blocking requests to the location service
over the terminal's message bus, an iterator of position updates, and errors
that say what is wrong, with the names and units of lsctl --json.
.
It is pure Python and speaks to the bus itself. Its users must be members of
the groups terminal-bus and terminal-tools.")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
  ls_package(dev liblocation-client-dev libdevel
    "liblocation-client3 ${same}, terminal-platform ${same}"
    "development files of the terminal's location service"
    "Headers, pkg-config and CMake files of the client library
liblocation_client, and of the platform libraries libmqutils, libdbhandler
and libzukhal.
.
The headers are C11 and C++; location_client.hpp is C++20.")
else()
  ls_package(simulator simterm utils ""
    "simulated terminal with a satellite receiver"
    "Makes a directory into a terminal, with a receiver model on its serial line,
power lines, a bus of its own and stand-ins for the other services, and runs
the location service in it. The receiver follows a route, stands still or
repeats a recording; faults are switched while it runs.
.
It needs no privileges, and any number run side by side.")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME location-service)
# Each package has its own; the one of the project would come before it.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_CONTACT "${contact}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_COMPONENTS_ALL ${packages})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PROJECT_CONFIG_FILE "${CMAKE_CURRENT_SOURCE_DIR}/debian_depends.cmake")
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_CURRENT_SOURCE_DIR}/debian_compress.cmake")
include(CPack)
