# `make package` (cpack in a build tree): Debian packages named as Debian names them.
#   qml-module-tarvix-worksurface   (Qt 5 build) the QML module alone: plugin, qmldir and
#   qml6-module-tarvix-worksurface  (Qt 6 build) type description in Qt's QML directory.
#                                   Multi-Arch: same, so that a console image can carry the
#                                   module for two architectures, and the Qt 5 and the Qt 6
#                                   module install side by side.
#   worksurface-tool                (Qt 5 build) the bench tool in /usr/bin.
# The architecture is the build's (amd64, or arm64 from the arm64 preset); the dependencies
# are what dpkg-shlibdeps finds the binaries need.
set(TARVIX_PACKAGE_MAINTAINER "Tarvix Worksurface Maintainers <worksurface@tarvix.example>"
    CACHE STRING "The Maintainer field of the Debian packages")

if(TARVIX_QT_MAJOR STREQUAL "6")
    set(_module_package qml6-module-tarvix-worksurface)
    # The bench tool is packaged from the Qt 5 build only: one package of it, not one per Qt.
    set(CPACK_COMPONENTS_ALL module)
else()
    set(_module_package qml-module-tarvix-worksurface)
    set(CPACK_COMPONENTS_ALL module tool)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGE_NAME tarvixworksurface)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "${TARVIX_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE tarvixworksurface)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()

set(CPACK_DEBIAN_MODULE_PACKAGE_NAME ${_module_package})
set(CPACK_DEBIAN_MODULE_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_MODULE_DESCRIPTION
    "Qt ${TARVIX_QT_MAJOR} QML module Tarvix.Worksurface for console worksurfaces
The module joins a console's QML user interface to its physical worksurface:
the sections' motorised faders, rotary encoders, buttons, LEDs, meters and
headphone pot, each section on its own serial line. It supervises every link,
calibrates faders and updates the sections' firmware; a software surface plays
the hardware in-process.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME worksurface-tool)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION electronics)
set(CPACK_COMPONENT_TOOL_DESCRIPTION
    "Bench tool for console worksurface sections
worksurface-tool talks to a worksurface section over its serial line: it finds
the ports, probes the sections, monitors and decodes their traffic, exercises
their controls, reads trace files and flashes firmware through the sections'
serial bootloader.")

# Each package's own copyright and changelog (compressed reproducibly: the files of a
# Multi-Arch: same package must be the same for every architecture).
set(_changelog "${CMAKE_BINARY_DIR}/debian/changelog.gz")
file(MAKE_DIRECTORY "${CMAKE_BINARY_DIR}/debian")
execute_process(COMMAND gzip -9 -n -c "${PROJECT_SOURCE_DIR}/cmake/debian/changelog"
                OUTPUT_FILE "${_changelog}" RESULT_VARIABLE _gzip)
if(NOT _gzip EQUAL 0)
    message(FATAL_ERROR "gzip of the package changelog failed: ${_gzip}")
endif()
foreach(_component module tool)
    string(TOUPPER ${_component} _upper)
    set(_docdir "${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${_upper}_PACKAGE_NAME}")
    install(FILES "${PROJECT_SOURCE_DIR}/cmake/debian/copyright" "${_changelog}"
            DESTINATION "${_docdir}" COMPONENT ${_component})
endforeach()

# CPack's Debian generator writes no Multi-Arch field; the module's package gets it after.
set(CPACK_POST_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/cmake/TarvixDebMultiArch.cmake")
set(CPACK_TARVIX_MULTIARCH_PACKAGE "${_module_package}")
include(CPack)
