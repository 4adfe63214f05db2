# Debian packages with CPack (scripts/package, or cpack -G DEB in a build
# folder configured with CMAKE_INSTALL_PREFIX=/usr):
#   liborvellakit0         the core library and the translations
#   liborvellakit-widgets0 the widgets library
#   liborvellakit-dev      headers, CMake package, pkg-config files, the
#                          link-time symlinks
# Install them with apt-get install ./<file>.deb, which fetches the Qt
# packages they depend on.
#
# SONAME policy: the shared libraries carry the major version
# (libOrvellaKit.so.0); it goes up with every release that breaks the ABI of
# what the headers export. Within a major version a release only adds, so a
# newer library runs an application built against an older one, and the
# CMake package accepts any version of the same major (SameMajorVersion).
# The runtime packages carry shlibs files, so dpkg-shlibdeps gives an
# application's own package the right dependency on them.
set(CPACK_PACKAGE_NAME orvellakit)
set(CPACK_PACKAGE_VENDOR "Orvella")
set(CPACK_PACKAGE_CONTACT "Orvella developers <developers@orvella.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL Runtime WidgetsRuntime Development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The library dependencies come from dpkg-shlibdeps, so they name the Debian
# packages of exactly the libraries linked.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(orv_runtime liborvellakit${PROJECT_VERSION_MAJOR})
set(orv_widgets_runtime liborvellakit-widgets${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${orv_runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}: core library and translations")
set(CPACK_DEBIAN_WIDGETSRUNTIME_PACKAGE_NAME ${orv_widgets_runtime})
set(CPACK_DEBIAN_WIDGETSRUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_WIDGETSRUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}: window components (Qt Widgets)")
# dpkg-shlibdeps finds the core library the widgets library links in the
# build tree, and cannot know the package that carries it: that dependency
# is written out.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)
set(CPACK_DEBIAN_WIDGETSRUNTIME_PACKAGE_DEPENDS "${orv_runtime} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME liborvellakit-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${PROJECT_DESCRIPTION}: headers, CMake and pkg-config files")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${orv_runtime} (= ${PROJECT_VERSION}), ${orv_widgets_runtime} (= ${PROJECT_VERSION}), qt6-base-dev (>= 6.4)")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
include(CPack)
