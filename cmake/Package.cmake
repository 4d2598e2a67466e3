# Packages: library, development files, programs and service for Debian, and one archive for panels without a package
# manager. scripts/package configures the build for them and sets the processor.
set(MICRO850_ARCHITECTURE "" CACHE STRING "Debian's name of the processor: amd64, arm64 or armhf")
if(NOT MICRO850_ARCHITECTURE)
  return()
endif()

set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "The micro850 developers <micro850@micro850.invalid>")
set(CPACK_PACKAGE_VENDOR "The micro850 developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_FILE_NAME micro850-${PROJECT_VERSION}-${MICRO850_ARCHITECTURE})
set(CPACK_GENERATOR DEB TGZ)
set(CPACK_STRIP_FILES ON)
set(CPACK_THREADS 1)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# Sets the time of every file, so that the same commit gives the same packages.
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/PackageFiles.cmake)

# ---- The archive holds everything in one tree
set(CPACK_ARCHIVE_COMPONENT_INSTALL OFF)

# ---- Debian's packages
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${MICRO850_ARCHITECTURE})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(needs "libc6 (>= 2.34), libgcc-s1, libqt5core5a (>= 5.15.1), libstdc++6 (>= 12)")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libmicro850-${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS ${needs})
# The package that programs linked to the library depend on, and the update of the loader's cache.
file(WRITE ${PROJECT_BINARY_DIR}/shlibs
  "libmicro850 ${PROJECT_VERSION_MAJOR} ${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION})\n")
file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/shlibs ${PROJECT_BINARY_DIR}/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
"The shared library that an operator panel's runtime loads to read and write
the variables of a Micro850 controller over a serial line.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libmicro850-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION}), qtbase5-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
"Headers, CMake package, pkg-config file and documents for building a host of
the driver.")
install(FILES packaging/libmicro850-dev.lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
  COMPONENT Development RENAME libmicro850-dev)

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME micro850-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
  "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION}), ${needs}, libqt5serialport5 (>= 5.15.1)")
# Values are logged to SQLite through Qt's plugin; histories are read with the library itself.
string(APPEND CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS ", libqt5sql5 (>= 5.15.1), libqt5sql5-sqlite, libsqlite3-0 (>= 3.35), libedit2")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
"micro850-host reads, writes and watches the variables of a Micro850
controller; micro850-sim is a simulated controller on a pseudo-terminal or a
serial port.")

set(CPACK_DEBIAN_GATEWAY_PACKAGE_NAME micro850-gateway)
set(CPACK_DEBIAN_GATEWAY_PACKAGE_SECTION net)
set(CPACK_DEBIAN_GATEWAY_PACKAGE_DEPENDS
  "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION}), ${needs}, libqt5serialport5 (>= 5.15.1)")
# The last creates the user of the service.
string(APPEND CPACK_DEBIAN_GATEWAY_PACKAGE_DEPENDS
  ", libsqlite3-0 (>= 3.35), libmosquitto1 (>= 2.0), libssl3 | libssl3t64, libprotobuf-c1, libsystemd0"
  ", libmicrohttpd12 (>= 0.9.75) | libmicrohttpd12t64, libgnutls30 (>= 3.7) | libgnutls30t64, zlib1g"
  ", systemd | systemd-standalone-sysusers | systemd-sysusers")
# The page draws trends with the last one.
set(CPACK_DEBIAN_GATEWAY_PACKAGE_RECOMMENDS "micro850-tools, libjs-dygraphs")
foreach(script postinst prerm postrm)
  list(APPEND CPACK_DEBIAN_GATEWAY_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/gateway/${script})
endforeach()
set(CPACK_COMPONENT_GATEWAY_DESCRIPTION
"micro850-gateway is a service that owns the lines to Micro850 controllers and
lets many programs read, write and record their variables at once. A page
shows them live in browsers. It starts when /etc/micro850/gateway.json has
been written.")

# Each package has copyright and changelog in a folder of its own.
string(TIMESTAMP MICRO850_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(packaging/debian-changelog.in debian-changelog @ONLY)
execute_process(COMMAND gzip -9n -c ${PROJECT_BINARY_DIR}/debian-changelog
  OUTPUT_FILE ${PROJECT_BINARY_DIR}/changelog.gz RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "gzip is needed for the packages' changelog")
endif()
foreach(component Runtime Development Tools Gateway)
  string(TOUPPER ${component} COMPONENT)
  set(folder ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME})
  install(FILES ${PROJECT_BINARY_DIR}/changelog.gz DESTINATION ${folder} COMPONENT ${component})
  install(FILES LICENSE DESTINATION ${folder} COMPONENT ${component} RENAME copyright)
endforeach()
include(CPack)
