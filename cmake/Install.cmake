# What `cmake --install` puts in place: the host's headers, the static and the shared library,
# the reference web host's library, the quillet command, a CMake package (find_package(QuilletSDK), targets QuilletSDK::sdk and
# QuilletSDK::sdk_static) and a pkg-config file (quillet.pc). The files the command's demo serves
# are installed by cli/.
include(CMakePackageConfigHelpers)

set(QUILLET_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/QuilletSDK)

install(TARGETS quillet_sdk quillet_sdk_shared
  EXPORT QuilletSDKTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})

# The headers a host uses: the facade, the records, the codec, the store and network layers it
# configures, the logger, the second layer with its delegate, the platform seam and every
# interface a host implements or calls. The rest of the library stays in the source tree, and
# only these headers mark anything QUILLET_EXPORT. scripts/check-install compiles each on its own
# against the installed tree.
set(QUILLET_PUBLIC_HEADERS
  base/AnalyticsRegistry.h base/Bytes.h base/Clock.h base/ConsentAction.h base/Endpoints.h
  base/Export.h base/Fatal.h base/Locale.h base/MainQueue.h base/Platform.h base/QltLog.h
  base/Result.h base/SharedList.h
  codec/Base64Url.h codec/BitReader.h codec/BitWriter.h codec/QLTCMPUtils.h codec/TCString.h
  codec/InAppValues.h codec/VendorIdSet.h
  core/QuilletCMP.h core/TcfApi.h
  model/BrandingConfig.h model/ConsentSelections.h model/DeviceStorageDisclosure.h
  model/PurposeModel.h model/VendorModel.h
  network/CurlHttpClient.h network/HttpClient.h network/QLTAPIServer.h
  storage/ConsentStorage.h storage/KeyValueStore.h storage/MemoryKeyValueStore.h
  storage/SqliteKeyValueStore.h storage/StoreValue.h
  ui/Screen.h ui/ScreenContent.h ui/ScreenHost.h ui/SecondLayerViewController.h)
foreach(header IN LISTS QUILLET_PUBLIC_HEADERS)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/sdk/quillet/${header}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quillet/${folder})
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/sdk/generated/quillet/base/Version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quillet/base)

# The reference web host, for hosts that show the screens in a browser; it links the static
# library.
if(TARGET quillet_webhost)
  install(TARGETS quillet_webhost EXPORT QuilletSDKTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(FILES ${PROJECT_SOURCE_DIR}/webhost/quillet/webhost/WebScreenHost.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quillet/webhost)
endif()

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
  install(TARGETS quillet quillet-demo RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
