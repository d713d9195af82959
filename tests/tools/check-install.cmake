# Installs the bench tool's part of the build tree into a scratch DESTDIR and checks that
# the tool lands in the install prefix's bin/ and runs from there, and its compressed manual
# page in the prefix's man1/.
#   cmake -DBUILD_DIR=<build> -DBIN_DIR=<the prefix's bin/, absolute>
#         -DMAN_DIR=<the prefix's man/, absolute> -DSCRATCH=<dir>
#         [-DEMULATOR=<program and arguments, |-separated>] -P check-install.cmake
# A cross build runs the installed tool through EMULATOR.
file(REMOVE_RECURSE "${SCRATCH}")
execute_process(COMMAND "${CMAKE_COMMAND}" -E env "DESTDIR=${SCRATCH}"
                        "${CMAKE_COMMAND}" --install "${BUILD_DIR}" --component tool
                RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "cmake --install failed:\n${output}")
endif()
set(tool "${SCRATCH}${BIN_DIR}/worksurface-tool")
if(NOT EXISTS "${tool}")
    message(FATAL_ERROR "not installed: ${tool}\n${output}")
endif()
set(page "${SCRATCH}${MAN_DIR}/man1/worksurface-tool.1.gz")
if(NOT EXISTS "${page}")
    message(FATAL_ERROR "manual page not installed: ${page}\n${output}")
endif()
string(REPLACE "|" ";" emulator "${EMULATOR}")
execute_process(COMMAND ${emulator} "${tool}" --version RESULT_VARIABLE result OUTPUT_VARIABLE version
                ERROR_VARIABLE version)
if(NOT result EQUAL 0 OR NOT version MATCHES "^worksurface-tool [0-9]")
    message(FATAL_ERROR "installed tool does not run: ${result}\n${version}")
endif()
file(REMOVE_RECURSE "${SCRATCH}")
message(STATUS "installed into ${BIN_DIR}")
