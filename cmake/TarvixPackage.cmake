# `make package` (cpack -G DEB in a build tree): one Debian package holding the QML module
# (plugin, qmldir, type description) in Qt's QML directory and the bench tool in /usr/bin.
# The architecture is the build's: amd64 from the default build, arm64 from the arm64 one.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarvixworksurface)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "tarvixworksurface maintainers <tarvixworksurface@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "QML module Tarvix.Worksurface for work surface sections, and the bench tool")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()
# The Qt runtime the plugin and the tool link, at the version they were built against.
if(TARVIX_QT_MAJOR STREQUAL "6")
    set(CPACK_DEBIAN_PACKAGE_DEPENDS
        "libc6, libstdc++6, libqt6core6 (>= 6.4), libqt6gui6 (>= 6.4), libqt6qml6 (>= 6.4), libqt6serialport6 (>= 6.4)")
else()
    set(CPACK_DEBIAN_PACKAGE_DEPENDS
        "libc6, libstdc++6, libqt5core5a (>= 5.15), libqt5gui5 (>= 5.15), libqt5qml5 (>= 5.15), libqt5serialport5 (>= 5.15)")
endif()
include(CPack)
