# `cmake --install`: the public headers, both libraries, and what find_package and pkg-config need. Programs
# that are linked with the shared library need its component, `runtime`, alone.
include(CMakePackageConfigHelpers)

set(config_folder ${CMAKE_INSTALL_LIBDIR}/cmake/cTessel)
set(config ${PROJECT_BINARY_DIR}/config)

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)
install(TARGETS cTessel_static cTessel_shared EXPORT cTesselTargets
        LIBRARY COMPONENT runtime NAMELINK_COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/recon/cTessel.h ${PROJECT_SOURCE_DIR}/recon/ctessel.hpp TYPE INCLUDE)
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/NOTICE TYPE DOC COMPONENT texts)
install(EXPORT cTesselTargets NAMESPACE cTessel:: DESTINATION ${config_folder})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/package/cTesselConfig.cmake.in
  ${config}/cTesselConfig.cmake INSTALL_DESTINATION ${config_folder})
# Before 1.0 a new minor version may change the interface.
write_basic_package_version_file(${config}/cTesselConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${config}/cTesselConfig.cmake ${config}/cTesselConfigVersion.cmake
        DESTINATION ${config_folder})

# Relative to the file itself, so that an installed tree can be moved.
file(RELATIVE_PATH up_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" up_to_prefix "${up_to_prefix}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/package/cTessel.pc.in ${config}/cTessel.pc @ONLY)
install(FILES ${config}/cTessel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
