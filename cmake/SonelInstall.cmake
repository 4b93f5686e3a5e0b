# Install rules: the shared library, its C header, a pkg-config file and a CMake package config so
# other projects can use `find_package(Sonel)` or `pkg-config sonel-audio-sdk`.
include(CMakePackageConfigHelpers)

install(TARGETS sonel-audio-sdk EXPORT SonelTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT SonelTargets NAMESPACE Sonel:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Sonel)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/SonelConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/SonelConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Sonel)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/SonelConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/SonelConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/SonelConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Sonel)

configure_file(${CMAKE_CURRENT_LIST_DIR}/sonel-audio-sdk.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/sonel-audio-sdk.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/sonel-audio-sdk.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The shipped models (enciphered form: the cleaners, the two detectors and the 0.0.5 cleaner for
# noise levels) for hosts that register a model by path, and the sonel tool, which has the
# default models compiled in.
file(GLOB sonel_shipped_models ${PROJECT_SOURCE_DIR}/models/sonel-nc-*.sw ${PROJECT_SOURCE_DIR}/models/sonel-vad.sw
     ${PROJECT_SOURCE_DIR}/models/sonel-ringtone.sw ${PROJECT_SOURCE_DIR}/models/sonel-noise-level.sw)
install(FILES ${sonel_shipped_models} DESTINATION ${CMAKE_INSTALL_DATADIR}/sonel/models)
install(TARGETS sonel RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
