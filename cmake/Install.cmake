# What `cmake --install` puts where. Two components, which the Debian
# packaging turns into two packages:
#   Runtime      the shared libraries, qenconfig, the runners, the Python
#                plugin SDK and the manifest schemas: what a host runs.
#   Development  headers, the CMake package, configmanager.pc and the C++
#                plugin SDK: what building against the library needs.
#
#   <prefix>/<libdir>/libconfigmanager.so.0, libqenplatform.so.0
#   <prefix>/include/configmanager/   the library's interface
#   <prefix>/include/qenplatform/     the platform's interface (the library's
#                                     headers include it by bare name, so a
#                                     consumer compiles with both directories)
#   <prefix>/bin/qenconfig
#   <prefix>/lib/corvane/configmanager/bin/{py,cpp}_plugin_runner
#   <prefix>/lib/corvane/configmanager/python/qenplugin/
#   <prefix>/lib/corvane/configmanager/plugin_schemas/
#   <prefix>/lib/corvane/configmanager/sdk/{include,lib}/   the C++ plugin SDK
#
# The sample host (its key schemas, plugins and documents) is not installed:
# a host brings its own below apply_modules/ and the schema store.
include(CMakePackageConfigHelpers)

set(QEN_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/configmanager)
set(QEN_HOSTLIB_SOURCE ${QEN_SOURCE_DIR}/host/root/usr/lib/corvane/configmanager)

# An installed tree works wherever it is put: qenconfig finds the libraries
# and libconfigmanager finds libqenplatform relative to their own place.
file(RELATIVE_PATH QEN_BIN_TO_LIB ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(configmanager PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(qenconfig PROPERTIES INSTALL_RPATH "$ORIGIN/${QEN_BIN_TO_LIB}")

install(TARGETS qenplatform configmanager EXPORT configmanagerTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development)
install(TARGETS qenconfig RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)

install(DIRECTORY ${QEN_SOURCE_DIR}/include/configmanager
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${QEN_SOURCE_DIR}/platform/include/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qenplatform COMPONENT Development FILES_MATCHING PATTERN "*.h")

# The host library directory. Its layout is fixed: the library and the
# runners look for these files by their logical paths.
install(TARGETS cpp_plugin_runner RUNTIME DESTINATION ${QEN_INSTALL_HOSTLIBDIR}/bin COMPONENT Runtime)
install(PROGRAMS ${QEN_SOURCE_DIR}/runners/python/py_plugin_runner
  DESTINATION ${QEN_INSTALL_HOSTLIBDIR}/bin COMPONENT Runtime)
install(DIRECTORY ${QEN_SOURCE_DIR}/runners/python/qenplugin
  DESTINATION ${QEN_INSTALL_HOSTLIBDIR}/python COMPONENT Runtime FILES_MATCHING PATTERN "*.py")
install(DIRECTORY ${QEN_HOSTLIB_SOURCE}/plugin_schemas
  DESTINATION ${QEN_INSTALL_HOSTLIBDIR} COMPONENT Runtime FILES_MATCHING PATTERN "*.json")

# The C++ plugin SDK: QenPlugin.h and the archives a plugin links. The
# archives keep their build names, which the SDK's link options hide by name
# (--exclude-libs); a plugin links the target configmanager::qenpluginsdk.
set_target_properties(configmanager_static PROPERTIES EXPORT_NAME pluginsdk_configmanager)
set_target_properties(qenplatform_static PROPERTIES EXPORT_NAME pluginsdk_platform)
install(TARGETS qenpluginsdk configmanager_static qenplatform_static EXPORT configmanagerTargets
  ARCHIVE DESTINATION ${QEN_INSTALL_HOSTLIBDIR}/sdk/lib COMPONENT Development)
# A stripped install (`cmake --install --strip`, the packages) strips only
# executables and shared objects; the archives lose their debug sections here.
install(CODE "
  if(CMAKE_INSTALL_DO_STRIP)
    foreach(archive qenpluginsdk configmanager_static qenplatform_static)
      execute_process(COMMAND \"${CMAKE_STRIP}\" --strip-debug
        \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${QEN_INSTALL_HOSTLIBDIR}/sdk/lib/lib\${archive}.a\")
    endforeach()
  endif()" COMPONENT Development)
install(FILES ${QEN_SOURCE_DIR}/runners/cpp/include/QenPlugin.h ${QEN_SOURCE_DIR}/runners/cpp/include/QenPluginAbi.h
  DESTINATION ${QEN_INSTALL_HOSTLIBDIR}/sdk/include COMPONENT Development)

# find_package(configmanager): configmanager::configmanager (with the
# platform library and both include directories), configmanager::qenplatform,
# configmanager::qenpluginsdk.
install(EXPORT configmanagerTargets NAMESPACE configmanager::
  DESTINATION ${QEN_INSTALL_CMAKEDIR} COMPONENT Development)
configure_package_config_file(${QEN_SOURCE_DIR}/cmake/configmanagerConfig.cmake.in
  ${QEN_BINARY_DIR}/configmanagerConfig.cmake INSTALL_DESTINATION ${QEN_INSTALL_CMAKEDIR})
# 0.x: a new minor version may change the interface.
write_basic_package_version_file(${QEN_BINARY_DIR}/configmanagerConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${QEN_BINARY_DIR}/configmanagerConfig.cmake ${QEN_BINARY_DIR}/configmanagerConfigVersion.cmake
  DESTINATION ${QEN_INSTALL_CMAKEDIR} COMPONENT Development)

# configmanager.pc carries absolute paths, so it is written when installing:
# `cmake --install --prefix DIR` and the packages each get their own prefix.
set(QEN_PC_PREFIX "@QEN_PC_PREFIX@")  # kept for the install-time pass
configure_file(${QEN_SOURCE_DIR}/cmake/configmanager.pc.in ${QEN_BINARY_DIR}/pkgconfig/configmanager.pc.in @ONLY)
install(CODE "
  set(QEN_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${QEN_BINARY_DIR}/pkgconfig/configmanager.pc.in\"
                 \"${QEN_BINARY_DIR}/pkgconfig/install/configmanager.pc\" @ONLY)"
  COMPONENT Development)
install(FILES ${QEN_BINARY_DIR}/pkgconfig/install/configmanager.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)
