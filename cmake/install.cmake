include(CMakePackageConfigHelpers)
set(TIRN_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tirn)

set(installed_libraries tirn hurn)
if(TIRN_KERNEL_SIDE STREQUAL "standin")
  list(APPEND installed_libraries zut)
endif()
install(TARGETS ${installed_libraries} EXPORT tirnTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/tirn DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")
install(FILES platform/hurn/hurn.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT tirnTargets NAMESPACE tirn:: DESTINATION ${TIRN_PACKAGE_DIR})

configure_package_config_file(cmake/tirnConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/tirnConfig.cmake
  INSTALL_DESTINATION ${TIRN_PACKAGE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tirnConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tirnConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/tirnConfigVersion.cmake
  DESTINATION ${TIRN_PACKAGE_DIR})

# The pkg-config file computes the prefix from its own location, so an installed tree can be moved as a whole.
file(RELATIVE_PATH TIRN_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/tirn.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tirn.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tirn.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
