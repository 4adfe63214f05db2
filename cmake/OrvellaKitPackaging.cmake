# Debian packages with CPack (cpack -G DEB in a build folder, or
# scripts/package): the runtime package holds the two shared libraries and
# the translations, the development package the headers, the CMake package,
# the pkg-config files and the link-time symlinks. Install both with
# apt-get install ./<file>.deb, which fetches the Qt packages they depend on.
#
# SONAME policy: the shared libraries carry the major version
# (libOrvellaKit.so.0); it goes up with every change that breaks the ABI of
# what the headers export. Within one major version a newer library runs an
# application built against an older one; the CMake package accepts the same
# minor version (SameMinorVersion) since 0.x minor releases may still add to
# the API.
set(CPACK_PACKAGE_NAME orvellakit)
set(CPACK_PACKAGE_VENDOR "Orvella")
set(CPACK_PACKAGE_CONTACT "Orvella developers <developers@orvella.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL Runtime Development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# The runtime package's library dependencies come from dpkg-shlibdeps, so
# they name the Debian packages of exactly the libraries linked.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME liborvellakit${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}: shared libraries and translations")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME liborvellakit-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${PROJECT_DESCRIPTION}: headers, CMake and pkg-config files")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "liborvellakit${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), qt6-base-dev (>= 6.4)")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
include(CPack)
