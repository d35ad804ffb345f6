# Debian packages from the installed components (`cpack -G DEB` in a build folder):
#   libtarnioscommonkit0       runtime         the shared core library
#   libtarnioscommonkit-dev    development     headers, CMake package, pkg-config file, link name
#   libtarnioscommonkitqt0     qt              the shared Qt library
#   libtarnioscommonkitqt-dev  qt-development  its headers, CMake export, pkg-config file
#   tarn-tools                 tools           the tarn command
# Build them from a shared build (-DBUILD_SHARED_LIBS=ON); a static build packages only the
# development files and the command. Every package installs under /usr;
# `apt install ./*.deb` resolves the Debian dependencies listed here and found by dpkg-shlibdeps.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarnioscommonkit)
set(CPACK_PACKAGE_VENDOR "TarniOSCommonKit developers")
set(CPACK_PACKAGE_CONTACT "TarniOSCommonKit developers <tarn@example.com>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Client-side customer-engagement library in C++20")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://example.com/tarnioscommonkit")
# Dependencies on system libraries come from dpkg-shlibdeps; the libraries of this project that a
# package links are found in the build folder and named by the component dependencies below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/qt)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtarnioscommonkit${PROJECT_VERSION_MAJOR})
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "TarniOSCommonKit shared library")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtarnioscommonkit-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "TarniOSCommonKit headers, CMake package (find_package(TarniOSCommonKit)) and pkg-config file")
# The headers include nlohmann/json; pkg-config resolves the private modules too.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "nlohmann-json3-dev (>= 3.10), libcurl4-openssl-dev | libcurl-dev, libsqlite3-dev, libplist-dev, uuid-dev, pkg-config | pkgconf")
if(OpenSSL_FOUND)
    string(APPEND CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ", libssl-dev")
endif()

set(CPACK_DEBIAN_QT_PACKAGE_NAME libtarnioscommonkitqt${PROJECT_VERSION_MAJOR})
set(CPACK_COMPONENT_QT_DESCRIPTION "TarniOSCommonKit Qt 6 Widgets integration, shared library")

set(CPACK_DEBIAN_QT-DEVELOPMENT_PACKAGE_NAME libtarnioscommonkitqt-dev)
set(CPACK_DEBIAN_QT-DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_QT-DEVELOPMENT_DESCRIPTION
    "TarniOSCommonKit Qt integration headers, CMake component Qt and pkg-config file")
set(CPACK_DEBIAN_QT-DEVELOPMENT_PACKAGE_DEPENDS "qt6-base-dev")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tarn-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "The tarn command: development server (tarn serve), file checks, demo")

if(BUILD_SHARED_LIBS)
    set(CPACK_COMPONENTS_ALL runtime development)
    set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
    set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
    set(CPACK_COMPONENT_QT_DEPENDS runtime)
    set(CPACK_COMPONENT_QT-DEVELOPMENT_DEPENDS qt development)
else()
    set(CPACK_COMPONENTS_ALL development)
    set(CPACK_COMPONENT_QT-DEVELOPMENT_DEPENDS development)
endif()
if(TARN_BUILD_QT)
    list(APPEND CPACK_COMPONENTS_ALL qt-development)
    if(BUILD_SHARED_LIBS)
        list(APPEND CPACK_COMPONENTS_ALL qt)
    endif()
endif()
if(TARN_BUILD_TOOLS)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
include(CPack)
