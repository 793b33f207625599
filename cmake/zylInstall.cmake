# Installs the shared library with its one header (include/zyl/zylCodec.h, and the plain records
# it includes as include/zyl/base/zylTypes.h), the zyl tool, a
# pkg-config file and a CMake package, so that a host can find_package(zyl) or
# pkg-config --cflags --libs zyl.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS zyl EXPORT zylTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/codec/zylCodec.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zyl)
install(FILES ${PROJECT_SOURCE_DIR}/base/zylTypes.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zyl/base)
if(TARGET zyl_cli)
  install(TARGETS zyl_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

set(ZYL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zyl)
install(EXPORT zylTargets NAMESPACE zyl:: DESTINATION ${ZYL_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/zylConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zylConfig.cmake INSTALL_DESTINATION ${ZYL_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zylConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zylConfig.cmake ${PROJECT_BINARY_DIR}/zylConfigVersion.cmake
  DESTINATION ${ZYL_CMAKE_DIR})

configure_file(${CMAKE_CURRENT_LIST_DIR}/zyl.pc.in ${PROJECT_BINARY_DIR}/zyl.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zyl.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
