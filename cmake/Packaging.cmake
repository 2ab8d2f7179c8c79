# Debian packages (`cpack -G DEB` in the build directory), one per install
# component:
#   configmanager      Runtime: libraries, qenconfig, runners, Python SDK,
#                      manifest schemas
#   configmanager-dev  Development: headers, CMake package, pkg-config file,
#                      C++ plugin SDK
# Both install below /usr, where the runners find the host root "/". The
# runtime's library dependencies come from dpkg-shlibdeps.
set(CPACK_PACKAGE_NAME configmanager)
set(CPACK_PACKAGE_VENDOR "configmanager developers")
set(CPACK_PACKAGE_CONTACT "configmanager developers <configmanager@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Keeps a host's configuration in line with a desired-state JSON document")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# Installed with DESTDIR and the prefix /usr, so that what is written at
# install time (configmanager.pc) names /usr, not the staging tree.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Runtime Development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME configmanager)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION admin)
# The Python runner is a python3 script.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "python3")
# A shlibs file for packages built against ours (only the runtime package
# holds shared objects with a SONAME). The linker cache is updated through
# the ldconfig trigger; the postrm given here replaces the one CPack would
# write, which runs ldconfig directly, outside the root dpkg works in.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${QEN_SOURCE_DIR}/cmake/debian/postinst ${QEN_SOURCE_DIR}/cmake/debian/prerm
    ${QEN_SOURCE_DIR}/cmake/debian/postrm ${QEN_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "configuration manager library, qenconfig and the plugin runners")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME configmanager-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# Headers include RapidJSON's; the CMake package finds Boost and SQLite.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "configmanager (= ${PROJECT_VERSION}), rapidjson-dev, libboost-filesystem-dev, libboost-system-dev, libsqlite3-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "configuration manager headers, CMake package, pkg-config file and C++ plugin SDK")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS Runtime)

include(CPack)
