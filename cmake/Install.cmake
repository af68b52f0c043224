# What an outside program builds with: the headers, the libraries, a CMake package and pkg-config files.
include(CMakePackageConfigHelpers)

set(ZEL_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zelSysSsCpRp)

install(TARGETS zelSysSsCpRp zelAclMgr EXPORT zelSysSsCpRpTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/zel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(EXPORT zelSysSsCpRpTargets FILE zelSysSsCpRpConfig.cmake NAMESPACE zelSysSsCpRp:: DESTINATION ${ZEL_PACKAGE_DIR})
write_basic_package_version_file(zelSysSsCpRpConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelSysSsCpRpConfigVersion.cmake DESTINATION ${ZEL_PACKAGE_DIR})

file(RELATIVE_PATH ZEL_INCLUDE_FROM_PC /${CMAKE_INSTALL_LIBDIR}/pkgconfig /${CMAKE_INSTALL_INCLUDEDIR})
foreach(library zelSysSsCpRp zelAclMgr)
  configure_file(cmake/${library}.pc.in ${library}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${library}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
