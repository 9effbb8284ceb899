# What `cmake --install` puts in place: headers, the static and the shared library, the quillet
# command, a CMake package (find_package(QuilletSDK), targets QuilletSDK::sdk and
# QuilletSDK::sdk_static) and a pkg-config file (quillet.pc). The files the command's demo serves
# are installed by cli/.
include(CMakePackageConfigHelpers)

set(QUILLET_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/QuilletSDK)

install(TARGETS quillet_sdk quillet_sdk_shared
  EXPORT QuilletSDKTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/sdk/quillet ${PROJECT_BINARY_DIR}/sdk/generated/quillet
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(EXPORT QuilletSDKTargets NAMESPACE QuilletSDK:: DESTINATION ${QUILLET_CMAKE_DIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/QuilletSDKConfig.cmake.in
  ${PROJECT_BINARY_DIR}/QuilletSDKConfig.cmake
  INSTALL_DESTINATION ${QUILLET_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QuilletSDKConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QuilletSDKConfig.cmake
              ${PROJECT_BINARY_DIR}/QuilletSDKConfigVersion.cmake
  DESTINATION ${QUILLET_CMAKE_DIR})

configure_file(${PROJECT_SOURCE_DIR}/cmake/quillet.pc.in ${PROJECT_BINARY_DIR}/quillet.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/quillet.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TARGET quillet)
  install(TARGETS quillet RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
