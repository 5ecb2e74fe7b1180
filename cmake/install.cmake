include(CMakePackageConfigHelpers)

install(TARGETS ksStereoCameraDriver
  EXPORT ksStereoCameraDriverTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/ksStereoCameraDriver.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

install(EXPORT ksStereoCameraDriverTargets
  NAMESPACE ksStereoCameraDriver::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ksStereoCameraDriver COMPONENT dev)
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/ksStereoCameraDriverConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ksStereoCameraDriverConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ksStereoCameraDriver)
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/ksStereoCameraDriverConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/ksStereoCameraDriverConfig.cmake
  ${PROJECT_BINARY_DIR}/ksStereoCameraDriverConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ksStereoCameraDriver COMPONENT dev)

# Relocatable: the prefix is found from where the .pc file lies.
file(RELATIVE_PATH KS_PC_RELATIVE_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
     ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" KS_PC_RELATIVE_PREFIX "${KS_PC_RELATIVE_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/ksStereoCameraDriver.pc.in
  ${PROJECT_BINARY_DIR}/ksStereoCameraDriver.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ksStereoCameraDriver.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
