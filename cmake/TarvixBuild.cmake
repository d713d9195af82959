# Helpers shared by every CMakeLists.txt of the project: the compile options all targets
# take, the layer libraries under src/ and the test executables under tests/.

# Warnings, -Werror and the sanitizers, for every target of the project (and only for them:
# nothing is added globally). Targets take it with target_link_libraries(… PRIVATE
# Tarvix::CompileOptions); the layer libraries pass it on to what links them.
add_library(tarvix_compile_options INTERFACE)
add_library(Tarvix::CompileOptions ALIAS tarvix_compile_options)
target_compile_options(tarvix_compile_options INTERFACE -Wall -Wextra
                       $<$<BOOL:${TARVIX_WERROR}>:-Werror>)
# The sources use Qt 5.15 API that Qt 6 still has but marks deprecated (QMetaProperty::type
# and the like); on Qt 6 those stay quiet rather than break -Werror.
if(TARVIX_QT_MAJOR STREQUAL "6")
    target_compile_definitions(tarvix_compile_options INTERFACE QT_NO_DEPRECATED_WARNINGS)
endif()
if(TARVIX_SANITIZE)
    target_compile_options(tarvix_compile_options INTERFACE
        -fsanitize=${TARVIX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    # fuzzer-no-link instruments the code; only the fuzzers themselves link libFuzzer.
    string(REPLACE "fuzzer-no-link," "" _tarvix_link_sanitize "${TARVIX_SANITIZE}")
    target_link_options(tarvix_compile_options INTERFACE -fsanitize=${_tarvix_link_sanitize})
endif()

# lld links the tests about three times faster than the default ld.bfd (a relink of every
# test after a change in src/tasks: 30-40 s instead of 100-130 s on 2 cores). Used with GCC
# on native builds when the compiler can link with it, otherwise the default linker, without
# a word. Not for the fuzzers (clang and libFuzzer) nor the aarch64 cross build, which keep
# the linker they were set up with.
option(TARVIX_FAST_LINKER "Link the project's targets with lld when it is there" ON)
if(TARVIX_FAST_LINKER AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND NOT CMAKE_CROSSCOMPILING
   AND NOT TARVIX_BUILD_FUZZ)
    include(CheckLinkerFlag)
    check_linker_flag(CXX -fuse-ld=lld TARVIX_HAVE_LLD)
    if(TARVIX_HAVE_LLD)
        target_link_options(tarvix_compile_options INTERFACE -fuse-ld=lld)
    endif()
endif()

# The layers under src/, bottom to top. A folder includes only its own headers and those of
# the folders listed before it.
set(TARVIX_LAYERS tasks base updater serial surface bindings software qml plugin)

# tarvix_add_layer(<folder> <Name> [LINKS <libraries>…])
#
# The static library tarvix_<folder> (alias Tarvix::<Name>) of the sources listed with
# target_sources() in src/<folder>/. It links the layer right below it, and through it all
# lower ones. Its include root shows only src/<folder>/ and the folders below, so
# `#include "<higher folder>/…"` does not compile in it; scripts/check-layers (a ctest)
# reports the same with file and line.
function(tarvix_add_layer folder name)
    cmake_parse_arguments(ARG "" "" "LINKS" ${ARGN})
    list(FIND TARVIX_LAYERS "${folder}" _index)
    if(_index LESS 0)
        message(FATAL_ERROR "tarvix_add_layer: ${folder} is not in TARVIX_LAYERS")
    endif()
    set(_target tarvix_${folder})
    add_library(${_target} STATIC)
    add_library(Tarvix::${name} ALIAS ${_target})
    set_target_properties(${_target} PROPERTIES POSITION_INDEPENDENT_CODE ON AUTOMOC ON)

    set(_root "${PROJECT_BINARY_DIR}/layers/${folder}")
    file(REMOVE_RECURSE "${_root}")
    file(MAKE_DIRECTORY "${_root}")
    foreach(_i RANGE ${_index})
        list(GET TARVIX_LAYERS ${_i} _visible)
        file(CREATE_LINK "${PROJECT_SOURCE_DIR}/src/${_visible}" "${_root}/${_visible}" SYMBOLIC)
    endforeach()
    target_include_directories(${_target} PUBLIC "${_root}")

    if(_index GREATER 0)
        math(EXPR _below "${_index} - 1")
        list(GET TARVIX_LAYERS ${_below} _below_folder)
        target_link_libraries(${_target} PUBLIC tarvix_${_below_folder})
    endif()
    target_link_libraries(${_target} PUBLIC ${ARG_LINKS} PRIVATE Tarvix::CompileOptions)
endfunction()

# tarvix_add_test(<folder> <name> [SOURCES <extra files>…] [LINKS <libraries>…] [PLUGIN])
#
# The Qt Test executable <name> from tests/<folder>/<name>.cpp (and the extra files, such as
# a .qrc), run by ctest as <folder>/<name> on the offscreen platform. PLUGIN: the test loads
# the built QML module, so building it builds the plugin first.
function(tarvix_add_test folder name)
    cmake_parse_arguments(ARG "PLUGIN" "" "SOURCES;LINKS" ${ARGN})
    add_executable(${name} "${folder}/${name}.cpp")
    if(ARG_SOURCES)
        list(TRANSFORM ARG_SOURCES PREPEND "${folder}/")
        target_sources(${name} PRIVATE ${ARG_SOURCES})
    endif()
    set_target_properties(${name} PROPERTIES AUTOMOC ON AUTORCC ON)
    target_link_libraries(${name} PRIVATE Tarvix::TestSupport ${ARG_LINKS}
                                          Tarvix::CompileOptions)
    if(ARG_PLUGIN)
        add_dependencies(${name} tarvixworksurface)
        # Tests that load the module as QML does find it here. Only they have the build
        # folder in their compile line, which keeps ccache from sharing their objects
        # between checkouts.
        target_compile_definitions(${name} PRIVATE TARVIX_QML_ROOT="${TARVIX_QML_ROOT}")
    endif()
    add_test(NAME ${folder}/${name} COMMAND ${name})
    set_tests_properties(${folder}/${name} PROPERTIES
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;QML2_IMPORT_PATH=${TARVIX_QML_ROOT}"
        LABELS "${folder}" TIMEOUT 300)
endfunction()

# The same binaries run again with the links on the surface thread
# (TARVIX_WORKSURFACE_LINK_THREAD=1, as a console would set it): everything QML sees must be
# the same wherever the links run. Label "linkthread"; each keeps its first run's
# environment and time-out. Under user-mode emulation, where the QML suite alone
# takes most of the arm64 run, the second runs are left out by the "not-emulated" label.
function(tarvix_add_link_thread_run test)
    add_test(NAME linkthread/${test} COMMAND ${ARGN})
    get_test_property(${test} ENVIRONMENT environment)
    get_test_property(${test} TIMEOUT timeout)
    set(labels linkthread)
    if(CMAKE_CROSSCOMPILING)
        list(APPEND labels not-emulated)
    endif()
    set_tests_properties(linkthread/${test} PROPERTIES
        ENVIRONMENT "${environment};TARVIX_WORKSURFACE_LINK_THREAD=1"
        LABELS "${labels}" TIMEOUT ${timeout})
endfunction()
