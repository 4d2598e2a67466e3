# What is installed, in four components, each with its own package: the library (Runtime), the files that a host
# is built with (Development), the programs with their documents (Tools), and the service that owns lines (Gateway).
include(CMakePackageConfigHelpers)
set(MICRO850_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/micro850)

install(TARGETS micro850 EXPORT micro850Targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development)
install(FILES ${MICRO850_HEADERS}
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/micro850 COMPONENT Development)

# CMake package: find_package(micro850), target micro850::micro850.
install(EXPORT micro850Targets NAMESPACE micro850::
  DESTINATION ${MICRO850_CMAKE_DIR} COMPONENT Development)
configure_package_config_file(packaging/micro850Config.cmake.in micro850Config.cmake
  INSTALL_DESTINATION ${MICRO850_CMAKE_DIR} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(micro850ConfigVersion.cmake COMPATIBILITY SameMajorVersion)
if(MICRO850_QT EQUAL 4)
  install(FILES cmake/FindQt4.cmake DESTINATION ${MICRO850_CMAKE_DIR} COMPONENT Development)
endif()
install(FILES ${PROJECT_BINARY_DIR}/micro850Config.cmake ${PROJECT_BINARY_DIR}/micro850ConfigVersion.cmake
  DESTINATION ${MICRO850_CMAKE_DIR} COMPONENT Development)

# The pkg-config file finds its prefix from its own place, so that an installation can be moved.
file(RELATIVE_PATH MICRO850_PREFIX_FROM_PC
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(packaging/micro850.pc.in micro850.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/micro850.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

install(FILES man/micro850.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT Development)
file(GLOB documents CONFIGURE_DEPENDS docs/*.md docs/*.svg docs/*.png)
install(FILES README.md CHANGELOG.md LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Development)
install(FILES ${documents} DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT Development)
install(FILES examples/CMakeLists.txt examples/minimal-host.cpp examples/careful-host.cpp
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT Development)

if(MICRO850_PROGRAMS)
  install(TARGETS micro850-host micro850-sim
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Tools)
  file(GLOB examples CONFIGURE_DEPENDS examples/plant*.json examples/*.csv)
  install(FILES ${examples} DESTINATION ${CMAKE_INSTALL_DATADIR}/micro850/examples COMPONENT Tools)
  # The rule is not active there; it says itself how to make it so.
  install(FILES share/micro850/project.schema.json share/micro850/host-output.schema.json share/micro850/60-micro850-adapters.rules
    DESTINATION ${CMAKE_INSTALL_DATADIR}/micro850 COMPONENT Tools)
  install(FILES share/bash-completion/completions/micro850-host
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT Tools)
  # Where Debian's Wireshark looks for plugins if the prefix is /usr; docs/wireshark.md says what to do for others.
  install(FILES tools/wireshark/df1_cip.lua DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins COMPONENT Tools)
  install(FILES man/micro850-host.1 man/micro850-sim.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT Tools)

  install(TARGETS micro850-gateway RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Gateway)
  # The configuration is not among them: the service starts as soon as there is one.
  install(FILES examples/gateway.json examples/gateway-broker.json examples/press.project.json
    examples/oven.project.json examples/nginx.conf examples/prometheus.yml examples/prometheus-alerts.yml
    DESTINATION ${CMAKE_INSTALL_DATADIR}/micro850/examples COMPONENT Gateway)
  install(FILES share/micro850/gateway.schema.json share/micro850/gateway-protocol.schema.json share/micro850/openapi.yaml
    DESTINATION ${CMAKE_INSTALL_DATADIR}/micro850 COMPONENT Gateway)
  install(FILES share/bash-completion/completions/micro850-gateway
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT Gateway)
  install(FILES man/micro850-gateway.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT Gateway)
  install(FILES man/micro850-gateway.json.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT Gateway)
  configure_file(packaging/gateway/micro850-gateway.service.in micro850-gateway.service @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/micro850-gateway.service
    DESTINATION lib/systemd/system COMPONENT Gateway)
  install(FILES packaging/gateway/micro850-gateway.sysusers
    DESTINATION lib/sysusers.d COMPONENT Gateway RENAME micro850-gateway.conf)
endif()
