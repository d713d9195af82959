# Runs Qt 6's qmllint over QML files the way Qt Creator and qmlls see them with the build
# tree on the import path, together with a generated file that uses every type the module
# exports, and fails when an import, a type of the module or a type the module's own
# description names does not resolve. What else qmllint says (unqualified access to ids and
# delegates' model data, properties it cannot see through Repeater.itemAt(), ...) is listed,
# not failed. Then the same files without the build tree: the module must be reported
# missing, so the check is known to be able to fail.
#
#   cmake -DQMLLINT=<qmllint> -DQML_ROOT=<build>/qml -DQT_QML_DIR=<Qt's QML directory>
#         -DMODULE=Tarvix.Worksurface -DSOURCES=<folder>|<folder>... -DSCRATCH=<folder>
#         -P scripts/check-qml-imports.cmake
#
# Every *.qml under the SOURCES folders is linted. qmllint runs with --bare and the import
# paths in this order, so a copy of the module installed into Qt's QML directory cannot
# stand in for the build tree's, and in an empty working directory, from which qmllint
# would otherwise import any qmldir or *.qmltypes it finds.
cmake_minimum_required(VERSION 3.21)

foreach(var QMLLINT QML_ROOT QT_QML_DIR MODULE SOURCES SCRATCH)
    if(NOT DEFINED ${var})
        message(FATAL_ERROR "check-qml-imports: -D${var}=... is missing")
    endif()
endforeach()

# Messages of qmllint 6.4 that mean an import or a type did not resolve. "Type ... of
# property ... not found" names a property type that a module's description uses but whose
# module it does not declare (qmldir `depends`). A type used as a value (a singleton, an
# enum) that does not resolve is only an "Unqualified access", handled below.
set(unresolved "Failed to (import|find)|was not found\\. Did you add all import paths")
string(APPEND unresolved "|is used but it is not resolved|[Cc]annot resolve|cannot be resolved")
string(APPEND unresolved "|Type not found in namespace|No type found for property")
string(APPEND unresolved "|Type (\"[^\"]*\" )?of property \"[^\"]*\" not found")
string(APPEND unresolved "|unknown attached property scope")

string(REPLACE "|" ";" SOURCES "${SOURCES}")
set(files)
foreach(folder ${SOURCES})
    file(GLOB_RECURSE found "${folder}/*.qml")
    list(APPEND files ${found})
endforeach()
list(SORT files)
if(NOT files)
    message(FATAL_ERROR "check-qml-imports: no *.qml under ${SOURCES}")
endif()

# A finding, and a file's text as a list of its lines, go into CMake lists with ';', '[', ']'
# and '\' (which a list would split at or escape) as single control bytes, so that each line
# keeps its length; restore() puts them back for printing.
string(ASCII 1 semicolon)
string(ASCII 2 open_bracket)
string(ASCII 3 close_bracket)
string(ASCII 4 backslash)
macro(keep_in_list var)
    string(REPLACE "\\" "${backslash}" ${var} "${${var}}")
    string(REPLACE ";" "${semicolon}" ${var} "${${var}}")
    string(REPLACE "[" "${open_bracket}" ${var} "${${var}}")
    string(REPLACE "]" "${close_bracket}" ${var} "${${var}}")
endmacro()
macro(restore var)
    string(REPLACE "${backslash}" "\\" ${var} "${${var}}")
    string(REPLACE "${semicolon}" ";" ${var} "${${var}}")
    string(REPLACE "${open_bracket}" "[" ${var} "${${var}}")
    string(REPLACE "${close_bracket}" "]" ${var} "${${var}}")
endmacro()
function(read_lines file out)
    file(READ "${file}" text)
    keep_in_list(text)
    string(REPLACE "\n" ";" text "${text}")
    set(${out} "${text}" PARENT_SCOPE)
endfunction()

# Every type the module exports, from its type description in the build tree, goes into a
# generated file that makes one of each (a property of each type that cannot be made), so
# that each of them, its base types included, must resolve whatever the linted files use.
string(REPLACE "." "/" module_path "${MODULE}")
set(qmltypes "${QML_ROOT}/${module_path}/plugins.qmltypes")
if(NOT EXISTS "${qmltypes}")
    message(FATAL_ERROR "check-qml-imports: no ${qmltypes}; build the module first")
endif()
file(READ "${qmltypes}" description)
keep_in_list(description)
string(REGEX MATCHALL "\n    Component {\n(        [^\n]*\n)*    }" components "${description}")
string(REPLACE "." "\\." module_regex "${MODULE}")
# Qt 6 syntax (qmllint is Qt 6's): an import without a version has every version's types.
set(every_type "import QtQml\nimport ${MODULE}\n\nQtObject {\n")
set(type_count 0)
foreach(component ${components})
    string(REGEX MATCHALL "\"${module_regex}/[A-Za-z_][A-Za-z0-9_]* " exports "${component}")
    list(TRANSFORM exports REPLACE "^\"${module_regex}/([A-Za-z0-9_]+) $" "\\1")
    list(REMOVE_DUPLICATES exports)
    foreach(type ${exports})
        if(component MATCHES "\n *isSingleton: true" OR component MATCHES "\n *isCreatable: false")
            string(APPEND every_type "    property ${type} type${type_count}\n")
        else()
            string(APPEND every_type "    property ${type} type${type_count}: ${type} {}\n")
        endif()
        math(EXPR type_count "${type_count} + 1")
    endforeach()
endforeach()
if(type_count EQUAL 0)
    message(FATAL_ERROR "check-qml-imports: ${qmltypes} exports no ${MODULE} type")
endif()
string(APPEND every_type "}\n")
string(REPLACE "." "" every_type_name "${MODULE}")
set(every_type_file "${SCRATCH}/types/Every${every_type_name}Type.qml")
file(REMOVE_RECURSE "${SCRATCH}/types")
file(WRITE "${every_type_file}" "${every_type}")
list(APPEND files "${every_type_file}")

# lint(<name> <import folder>...): runs qmllint over the files and sets <name>_failures
# (what did not resolve) and <name>_others (every other finding), one
# "<file>:<line>:<column>: <message>" each.
function(lint name)
    set(run "${SCRATCH}/${name}")
    file(REMOVE_RECURSE "${run}")
    file(MAKE_DIRECTORY "${run}/cwd")
    set(imports)
    foreach(folder ${ARGN})
        list(APPEND imports -I "${folder}")
    endforeach()
    # The categories that report resolving stay warnings whatever a .qmllint.ini says.
    execute_process(
        COMMAND "${QMLLINT}" --bare ${imports} --import warning --type warning
                --unqualified warning --json "${run}/report.json" ${files}
        WORKING_DIRECTORY "${run}/cwd"
        OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE status)
    if(NOT EXISTS "${run}/report.json")
        message(FATAL_ERROR "check-qml-imports: qmllint wrote no report (${status}):\n${output}")
    endif()
    file(READ "${run}/report.json" report)
    string(JSON file_count LENGTH "${report}" files)
    set(failures)
    set(others)
    if(file_count GREATER 0)
        math(EXPR last_file "${file_count} - 1")
        foreach(i RANGE ${last_file})
            string(JSON entry GET "${report}" files ${i})
            string(JSON file GET "${entry}" filename)
            set(shown "${file}")
            string(FIND "${file}" "${SOURCE_DIR}/" in_source)
            if(in_source EQUAL 0)
                file(RELATIVE_PATH shown "${SOURCE_DIR}" "${file}")
            endif()
            string(JSON warning_count LENGTH "${entry}" warnings)
            if(warning_count EQUAL 0)
                continue()
            endif()
            set(have_lines FALSE)
            math(EXPR last_warning "${warning_count} - 1")
            foreach(w RANGE ${last_warning})
                string(JSON warning GET "${entry}" warnings ${w})
                string(JSON type GET "${warning}" type)
                string(JSON message GET "${warning}" message)
                string(JSON line ERROR_VARIABLE no_line GET "${warning}" line)
                string(JSON column ERROR_VARIABLE no_column GET "${warning}" column)
                string(JSON length ERROR_VARIABLE no_length GET "${warning}" length)
                set(where "${shown}")
                if(NOT no_line AND NOT no_column)
                    string(APPEND where ":${line}:${column}")
                endif()
                # One line of the message is enough to find it; qmllint prints the rest.
                string(REGEX REPLACE "\n.*" "" first_line "${message}")
                set(finding "${where}: ${first_line}")
                keep_in_list(finding)
                if(type STREQUAL "critical" OR message MATCHES "${unresolved}")
                    list(APPEND failures "${finding}")
                    continue()
                endif()
                if(message MATCHES "^Unqualified access" AND NOT no_line AND NOT no_column
                   AND NOT no_length)
                    if(NOT have_lines)
                        read_lines("${file}" lines)
                        set(have_lines TRUE)
                    endif()
                    math(EXPR index "${line} - 1")
                    math(EXPR start "${column} - 1")
                    list(GET lines ${index} source_line)
                    string(SUBSTRING "${source_line}" ${start} ${length} accessed)
                    # Ids and properties start with a small letter: a capital is a type
                    # (a singleton, an enum's holder) that did not resolve.
                    if(accessed MATCHES "^[A-Z]")
                        list(APPEND failures "${where}: type ${accessed} is not resolved")
                        continue()
                    endif()
                    string(APPEND finding " (${accessed})")
                endif()
                list(APPEND others "${finding}")
            endforeach()
        endforeach()
    endif()
    list(REMOVE_DUPLICATES failures)
    set(${name}_failures "${failures}" PARENT_SCOPE)
    set(${name}_others "${others}" PARENT_SCOPE)
endfunction()

get_filename_component(SOURCE_DIR "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
list(LENGTH files file_count)

lint(with_module "${QML_ROOT}" "${QT_QML_DIR}")
if(with_module_others)
    list(LENGTH with_module_others other_count)
    list(JOIN with_module_others "\n  " shown)
    restore(shown)
    message(STATUS "qmllint: ${other_count} finding(s) not about resolving, "
                   "which this check leaves alone:\n  ${shown}")
endif()
if(with_module_failures)
    list(JOIN with_module_failures "\n  " shown)
    restore(shown)
    message(FATAL_ERROR "check-qml-imports: with ${QML_ROOT} on the import path, qmllint "
                        "cannot resolve:\n  ${shown}")
endif()
message(STATUS "qmllint: every import and type in ${file_count} file(s) resolves with "
               "${QML_ROOT}")

# Without the build tree the module must be missing, or the check above proves nothing.
if(EXISTS "${QT_QML_DIR}/${module_path}/qmldir")
    message(STATUS "qmllint: ${MODULE} is installed in ${QT_QML_DIR}, so it cannot be "
                   "linted without the module; that half of the check is left out")
    return()
endif()
lint(without_module "${QT_QML_DIR}")
list(FILTER without_module_failures INCLUDE REGEX "Failed to import ${module_regex}\\.")
if(NOT without_module_failures)
    message(FATAL_ERROR "check-qml-imports: without ${QML_ROOT}, qmllint did not report "
                        "${MODULE} as missing, so this check could not have failed")
endif()
message(STATUS "qmllint: without ${QML_ROOT}, ${MODULE} is reported missing as it should be")
