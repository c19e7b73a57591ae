# Installs what hosts are built with. Libraries and programs are installed by their own folder's CMakeLists.txt.
include(CMakePackageConfigHelpers)
set(config_folder ${CMAKE_INSTALL_LIBDIR}/cmake/tsmconnector)

install(FILES ${PROJECT_SOURCE_DIR}/api/tsmconnector.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tsmconnectorConfig.cmake.in tsmconnectorConfig.cmake
  INSTALL_DESTINATION ${config_folder} PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR
  NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(tsmconnectorConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tsmconnectorConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/tsmconnectorConfigVersion.cmake
  DESTINATION ${config_folder} COMPONENT development)

# Written at installation, as the prefix may be another one by then.
install(CODE "
  set(PROJECT_VERSION \"${PROJECT_VERSION}\")
  set(libdir \"${CMAKE_INSTALL_LIBDIR}\")
  set(includedir \"${CMAKE_INSTALL_INCLUDEDIR}\")
  cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX OUTPUT_VARIABLE prefix)
  foreach(folder libdir includedir)
    cmake_path(ABSOLUTE_PATH \${folder} BASE_DIRECTORY \"\${prefix}\")
  endforeach()
  configure_file(\"${CMAKE_CURRENT_LIST_DIR}/tsmconnector.pc.in\" \"${CMAKE_CURRENT_BINARY_DIR}/tsmconnector.pc\" @ONLY)"
  COMPONENT development)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tsmconnector.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
