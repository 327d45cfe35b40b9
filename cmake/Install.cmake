# What `cmake --install` puts under the prefix: the public headers, the libraries, the
# resource bundle (share/orvane, where the SDK looks beside an installed program) and the
# privacy manifest beside it, a CMake package (find_package(Orvane), Orvane::orvane) and a
# pkg-config file (orvane.pc).
include(CMakePackageConfigHelpers)

set(ORVANE_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Orvane)

install(DIRECTORY include/orvane DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  PATTERN "linux" EXCLUDE)
if(ORVANE_PLATFORM STREQUAL "linux")
  install(DIRECTORY include/orvane/platform/linux
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orvane/platform)
endif()
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/include/orvane/Version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orvane)
install(DIRECTORY resources/Orvane.bundle DESTINATION ${CMAKE_INSTALL_DATADIR}/orvane)
# The privacy manifest a mobile bridge ships with the SDK (docs/privacy.md).
install(FILES resources/PrivacyInfo.xcprivacy DESTINATION ${CMAKE_INSTALL_DATADIR}/orvane)

set(ORVANE_INSTALLED_TARGETS orvane)
if(TARGET orvane_platform_linux)
  list(APPEND ORVANE_INSTALLED_TARGETS orvane_platform_linux)
endif()
if(NOT BUILD_SHARED_LIBS)
  # A static core links the model runtime's archive too.
  list(APPEND ORVANE_INSTALLED_TARGETS orvane_coreml)
endif()
install(TARGETS ${ORVANE_INSTALLED_TARGETS} EXPORT OrvaneTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT OrvaneTargets NAMESPACE Orvane:: DESTINATION ${ORVANE_INSTALL_CMAKEDIR})

configure_package_config_file(cmake/OrvaneConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/OrvaneConfig.cmake INSTALL_DESTINATION ${ORVANE_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/OrvaneConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/OrvaneConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/OrvaneConfigVersion.cmake
  DESTINATION ${ORVANE_INSTALL_CMAKEDIR})

# pkg-config: the platform library first (it needs the core). A static build lists what its
# archives need from the system in Libs as well, since a host links them in; a shared build
# only names what the libraries do not pull in themselves.
set(ORVANE_PC_LIBS "-lorvane")
set(ORVANE_PC_REQUIRES_PRIVATE "zlib protobuf-lite")
set(ORVANE_PC_LIBS_PRIVATE "")
if(TARGET orvane_platform_linux)
  set(ORVANE_PC_LIBS "-lorvane_platform_linux -lorvane -Wl,--undefined=orvane_platform_linux_registered")
  string(APPEND ORVANE_PC_REQUIRES_PRIVATE " libcurl sqlite3 libssl libcrypto")
endif()
if(NOT BUILD_SHARED_LIBS)
  string(APPEND ORVANE_PC_LIBS " -lorvane_coreml -lprotobuf-lite -lz")
  if(TARGET orvane_platform_linux)
    string(APPEND ORVANE_PC_LIBS " -lcurl -lsqlite3 -lssl -lcrypto")
  endif()
  string(APPEND ORVANE_PC_LIBS " -lstdc++ -lm -pthread")
  set(ORVANE_PC_REQUIRES_PRIVATE "")
endif()
# Relative to the .pc file, so that `cmake --install --prefix` anywhere gives a working file.
file(RELATIVE_PATH ORVANE_PC_PREFIX_FROM_PCFILEDIR
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/orvane.pc.in ${CMAKE_CURRENT_BINARY_DIR}/orvane.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/orvane.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
