include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS jxcache EXPORT jxcacheTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
foreach(dir host lifecycle items bag disk compute mediamap)
  install(DIRECTORY ${dir}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/jxcache/${dir}
    FILES_MATCHING PATTERN "*.h" PATTERN "testing" EXCLUDE)
endforeach()
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT jxcacheTargets NAMESPACE jxcache:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/jxcache)
file(WRITE ${CMAKE_BINARY_DIR}/jxcacheConfig.cmake.in
  "@PACKAGE_INIT@\ninclude(CMakeFindDependencyMacro)\nfind_dependency(Threads)\nfind_dependency(Boost 1.74)\ninclude(\"\${CMAKE_CURRENT_LIST_DIR}/jxcacheTargets.cmake\")\n")
configure_package_config_file(${CMAKE_BINARY_DIR}/jxcacheConfig.cmake.in
  ${CMAKE_BINARY_DIR}/jxcacheConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/jxcache)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/jxcacheConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/jxcacheConfig.cmake ${CMAKE_BINARY_DIR}/jxcacheConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/jxcache)
file(WRITE ${CMAKE_BINARY_DIR}/jxcache.pc
  "prefix=${CMAKE_INSTALL_PREFIX}\nlibdir=\${prefix}/${CMAKE_INSTALL_LIBDIR}\nincludedir=\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}\n\nName: jxcache\nDescription: Shared cache library of a video-compositing host\nVersion: ${PROJECT_VERSION}\nLibs: -L\${libdir} -ljxcache -lpthread\nCflags: -I\${includedir} -I\${includedir}/jxcache\n")
install(FILES ${CMAKE_BINARY_DIR}/jxcache.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
