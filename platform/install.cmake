# For writing agents: headers, the library, a CMake package and a pkg-config file. The headers of the stores, of what
# only a host uses, and of the tables of colours stay here; tests/install checks that platform/pinlamp.h reaches every
# header that is installed.
install(TARGETS pinlamp-platform EXPORT pinlamp-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pinlamp COMPONENT development
  FILES_MATCHING PATTERN "*.h"
  PATTERN "colourmembers.h" EXCLUDE
  PATTERN "colours.h" EXCLUDE
  PATTERN "covertable.h" EXCLUDE
  PATTERN "entitytree.h" EXCLUDE
  PATTERN "entrytable.h" EXCLUDE
  PATTERN "external.h" EXCLUDE
  PATTERN "lastseen.h" EXCLUDE
  PATTERN "lateness.h" EXCLUDE
  PATTERN "lightwords.h" EXCLUDE
  PATTERN "memorystate.h" EXCLUDE
  PATTERN "memorystore.h" EXCLUDE
  PATTERN "mounts.h" EXCLUDE
  PATTERN "mounttable.h" EXCLUDE
  PATTERN "partialsnapshot.h" EXCLUDE
  PATTERN "pathset.h" EXCLUDE
  PATTERN "pathwalker.h" EXCLUDE
  PATTERN "printable.h" EXCLUDE
  PATTERN "publisher.h" EXCLUDE
  PATTERN "refusals.h" EXCLUDE
  PATTERN "row.h" EXCLUDE
  PATTERN "rowapplier.h" EXCLUDE
  PATTERN "schema.h" EXCLUDE
  PATTERN "store.h" EXCLUDE
  PATTERN "subscriptions.h" EXCLUDE
  PATTERN "table.h" EXCLUDE)
install(EXPORT pinlamp-targets NAMESPACE Pinlamp:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pinlamp
  COMPONENT development)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/pinlamp-config.cmake.in
  ${PROJECT_BINARY_DIR}/pinlamp-config.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pinlamp)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/pinlamp-config-version.cmake COMPATIBILITY SameMinorVersion)
configure_file(${PROJECT_SOURCE_DIR}/cmake/pinlamp-platform.pc.in ${PROJECT_BINARY_DIR}/pinlamp-platform.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/pinlamp-config.cmake ${PROJECT_BINARY_DIR}/pinlamp-config-version.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pinlamp COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/pinlamp-platform.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)
