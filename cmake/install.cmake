# Install rules and packages.
#   runtime     the shared library (libkvxpx.so.3 and its versioned file; kvxpx.dll)
#   development the header, the linker name or import library, the .def file,
#               the CMake package (find_package(kvxpx) -> kvxpx::kvxpx) and kvxpx.pc
include(CMakePackageConfigHelpers)

set(KVX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kvxpx)
set(KVX_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS kvxpx EXPORT kvxpxTargets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/include/kvxpx.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
if(KVX_DEF_FILE)
  install(FILES ${KVX_DEF_FILE} DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
endif()

install(EXPORT kvxpxTargets NAMESPACE kvxpx:: DESTINATION ${KVX_CMAKE_DIR} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kvxpxConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/kvxpxConfig.cmake INSTALL_DESTINATION ${KVX_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kvxpxConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kvxpxConfig.cmake ${PROJECT_BINARY_DIR}/kvxpxConfigVersion.cmake
        DESTINATION ${KVX_CMAKE_DIR} COMPONENT development)

# kvxpx.pc finds the prefix from its own place, so the tree can be installed
# with any --prefix or moved afterwards.
file(RELATIVE_PATH _kvx_pc_up /${KVX_PC_DIR} /)
string(REGEX REPLACE "/$" "" _kvx_pc_up "${_kvx_pc_up}")
set(KVX_PC_PREFIX "\${pcfiledir}/${_kvx_pc_up}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/kvxpx.pc.in ${PROJECT_BINARY_DIR}/kvxpx.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kvxpx.pc DESTINATION ${KVX_PC_DIR} COMPONENT development)

# Packages: a Debian pair (libkvxpx3, libkvxpx-dev) on Linux, a zip on Windows.
set(CPACK_PACKAGE_NAME kvxpx)
set(CPACK_PACKAGE_VENDOR "kvxpx developers")
set(CPACK_PACKAGE_CONTACT "kvxpx developers <kvxpx@example.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGE_FILE_NAME kvxpx-${PROJECT_VERSION}-${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR})
if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_ARCHIVE_COMPONENT_INSTALL OFF)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION libs)
  set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
  find_program(KVX_DPKG_SHLIBDEPS dpkg-shlibdeps)
  if(KVX_DPKG_SHLIBDEPS)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
  endif()
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkvxpx${PROJECT_VERSION_MAJOR})
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkvxpx-dev)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
  set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
  set(CPACK_COMPONENTS_ALL runtime development)
endif()
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "kvxpx shared library")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "kvxpx header, CMake package and pkg-config file")
include(CPack)
