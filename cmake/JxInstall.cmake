include(CMakePackageConfigHelpers)

install(TARGETS jxcache EXPORT jxcacheTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The public headers only, included as <jxcache/...>; the private ones stay in the source tree.
install(DIRECTORY include/jxcache DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES LICENSE CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})

# CMake package: find_package(jxcache CONFIG) gives jxcache::jxcache. While the version is 0.x a
# minor release may break the interface, so only the same minor version is compatible.
install(EXPORT jxcacheTargets NAMESPACE jxcache:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/jxcache)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/jxcacheConfig.cmake.in
  ${CMAKE_BINARY_DIR}/jxcacheConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/jxcache)
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(jx_compatibility SameMinorVersion)
else()
  set(jx_compatibility SameMajorVersion)
endif()
write_basic_package_version_file(${CMAKE_BINARY_DIR}/jxcacheConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY ${jx_compatibility})
install(FILES ${CMAKE_BINARY_DIR}/jxcacheConfig.cmake ${CMAKE_BINARY_DIR}/jxcacheConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/jxcache)

# pkg-config: the prefix is found from the .pc file's own place, so that an installed tree can be
# moved (or installed with `cmake --install --prefix`) and still describe itself.
file(RELATIVE_PATH JX_PC_PREFIX_FROM_PCFILEDIR
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" JX_PC_PREFIX_FROM_PCFILEDIR "${JX_PC_PREFIX_FROM_PCFILEDIR}")
# A static archive needs the thread library at the program's link; a shared one brings its own.
if(BUILD_SHARED_LIBS)
  set(JX_PC_LIBS "")
  set(JX_PC_LIBS_PRIVATE "-lxxhash -lhiredis -lpthread")
else()
  set(JX_PC_LIBS " -lxxhash -lhiredis -lpthread")
  set(JX_PC_LIBS_PRIVATE "")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/jxcache.pc.in ${CMAKE_BINARY_DIR}/jxcache.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/jxcache.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
