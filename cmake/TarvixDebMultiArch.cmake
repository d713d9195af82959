# Run by cpack after it made the packages (CPACK_POST_BUILD_SCRIPTS): CPack's Debian
# generator knows no Multi-Arch field, so the QML module's package is opened, its control
# file given "Multi-Arch: same" after the Architecture field, and the package built again
# with dpkg-deb. Its files, and so their md5sums, stay as they were.
foreach(_deb IN LISTS CPACK_PACKAGE_FILES)
    get_filename_component(_name "${_deb}" NAME)
    if(NOT _name MATCHES "^${CPACK_TARVIX_MULTIARCH_PACKAGE}_.*\\.deb$")
        continue()
    endif()
    set(_tree "${CPACK_TOPLEVEL_DIRECTORY}/multiarch-${_name}")
    file(REMOVE_RECURSE "${_tree}")
    execute_process(COMMAND dpkg-deb -R "${_deb}" "${_tree}" RESULT_VARIABLE _result
                    ERROR_VARIABLE _error)
    if(NOT _result EQUAL 0)
        message(FATAL_ERROR "dpkg-deb -R ${_deb}: ${_error}")
    endif()
    file(READ "${_tree}/DEBIAN/control" _control)
    if(NOT _control MATCHES "(^|\n)Multi-Arch:")
        string(REGEX REPLACE "((^|\n)Architecture: [^\n]*\n)" "\\1Multi-Arch: same\n"
                             _control "${_control}")
        file(WRITE "${_tree}/DEBIAN/control" "${_control}")
    endif()
    execute_process(COMMAND dpkg-deb --root-owner-group -Zxz --build "${_tree}" "${_deb}"
                    RESULT_VARIABLE _result OUTPUT_QUIET ERROR_VARIABLE _error)
    if(NOT _result EQUAL 0)
        message(FATAL_ERROR "dpkg-deb --build ${_deb}: ${_error}")
    endif()
    file(REMOVE_RECURSE "${_tree}")
    message(STATUS "Multi-Arch: same in ${_name}")
endforeach()
