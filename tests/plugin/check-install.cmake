# Installs the module's part of the build tree into a scratch DESTDIR and checks that the
# module folder lands under Qt's QML directory with the plugin, its qmldir and its type
# description.
#   cmake -DBUILD_DIR=<build> -DPREFIX=<install prefix> -DQML_DIR=<Qt's QML dir, relative
#         to the prefix or absolute> -DSCRATCH=<dir> -P check-install.cmake
file(REMOVE_RECURSE "${SCRATCH}")
execute_process(COMMAND "${CMAKE_COMMAND}" -E env "DESTDIR=${SCRATCH}"
                        "${CMAKE_COMMAND}" --install "${BUILD_DIR}" --component module
                RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "cmake --install failed:\n${output}")
endif()
if(NOT IS_ABSOLUTE "${QML_DIR}")
    set(QML_DIR "${PREFIX}/${QML_DIR}")
endif()
set(module "${SCRATCH}${QML_DIR}/Tarvix/Worksurface")
foreach(file libtarvixworksurface.so qmldir plugins.qmltypes)
    if(NOT EXISTS "${module}/${file}")
        message(FATAL_ERROR "not installed: ${module}/${file}\n${output}")
    endif()
endforeach()
file(READ "${module}/qmldir" qmldir)
if(NOT qmldir MATCHES "module Tarvix.Worksurface")
    message(FATAL_ERROR "installed qmldir does not name the module:\n${qmldir}")
endif()
file(REMOVE_RECURSE "${SCRATCH}")
message(STATUS "installed into ${QML_DIR}/Tarvix/Worksurface")
