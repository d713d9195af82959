# The bench tool's manual page says what the tool's own help says: every command, every
# option each command's help lists, every exit code and the version. It fails when an option
# or an exit code is added to the tool and not to the page, and when groff warns about the
# page's markup.
#   cmake -DTOOL=<worksurface-tool> -DPAGE=<worksurface-tool.1> [-DEMULATOR=<program|args>]
#         -P check-manpage.cmake
string(REPLACE "|" ";" emulator "${EMULATOR}")
file(READ "${PAGE}" page)
set(missing)

function(help_of out)
    execute_process(COMMAND ${emulator} "${TOOL}" ${ARGN} --help
                    RESULT_VARIABLE code OUTPUT_VARIABLE text ERROR_VARIABLE err)
    if(NOT code EQUAL 0)
        message(FATAL_ERROR "worksurface-tool ${ARGN} --help: exit ${code}\n${err}")
    endif()
    set(${out} "${text}" PARENT_SCOPE)
endfunction()

# The first words of the lines of a block of the tool's help (between the regular
# expressions `from` and `to`) that start with two spaces and a word matching `word`.
function(entries_of out help from to word what)
    string(REGEX MATCH "${from}\n(.*)\n${to}" _ "${help}")
    string(REGEX MATCHALL "\n  ${word} " entries "\n${CMAKE_MATCH_1}")
    list(TRANSFORM entries STRIP)
    if(NOT entries)
        message(FATAL_ERROR "no ${what} found in the tool's help:\n${help}")
    endif()
    set(${out} "${entries}" PARENT_SCOPE)
endfunction()

help_of(help)
entries_of(commands "${help}" "Commands:" "\nCommon options" "[a-z]+" commands)

set(helps "${help}")
foreach(command IN LISTS commands)
    # A command is named on a line of its own in the page's synopsis and described under
    # a tagged paragraph of COMMANDS.
    if(NOT page MATCHES "\n\\.B ${command}\n" OR NOT page MATCHES "\n\\.TP\n\\.B[IR]? ${command}[ \n]")
        list(APPEND missing "command ${command}")
    endif()
    help_of(command_help ${command})
    string(APPEND helps "\n${command_help}")
endforeach()

# Every long option any help lists, written as the page writes it (\-\- and \- for the
# dashes, so that man shows ASCII hyphens that can be copied to a shell).
string(REGEX MATCHALL "--[a-z][a-z-]*" options "${helps}")
list(REMOVE_DUPLICATES options)
foreach(option IN LISTS options)
    string(REPLACE "-" "\\-" written "${option}")
    string(FIND "${page}" "${written}" at)
    if(at EQUAL -1)
        list(APPEND missing "option ${option}")
    endif()
endforeach()

# Every exit code of the help's "Exit codes:" block, as a tagged paragraph of EXIT STATUS.
entries_of(codes "${help}" "Exit codes:" "With several" "[0-9]+" "exit codes")
string(FIND "${page}" "\n.SH EXIT STATUS\n" status_at)
if(status_at EQUAL -1)
    message(FATAL_ERROR "${PAGE} has no EXIT STATUS section")
endif()
string(SUBSTRING "${page}" ${status_at} -1 status_section)
foreach(code IN LISTS codes)
    if(NOT status_section MATCHES "\n\\.TP\n\\.B ${code}\n")
        list(APPEND missing "exit code ${code}")
    endif()
endforeach()

execute_process(COMMAND ${emulator} "${TOOL}" --version OUTPUT_VARIABLE version
                OUTPUT_STRIP_TRAILING_WHITESPACE)
string(FIND "${page}" "\"${version}\"" at)
if(at EQUAL -1)
    list(APPEND missing "the version \"${version}\" in the title line")
endif()

if(missing)
    list(JOIN missing "\n  " missing)
    message(FATAL_ERROR "${PAGE} lacks what the tool's help says:\n  ${missing}")
endif()

# The markup: groff's man macros with every warning on, output thrown away.
find_program(GROFF groff REQUIRED)
execute_process(COMMAND "${GROFF}" -man -ww -z "${PAGE}" RESULT_VARIABLE code
                ERROR_VARIABLE warnings)
if(NOT code EQUAL 0 OR NOT warnings STREQUAL "")
    message(FATAL_ERROR "groff warns about ${PAGE}:\n${warnings}")
endif()
list(LENGTH commands command_count)
list(LENGTH options option_count)
list(LENGTH codes code_count)
message(STATUS "${command_count} commands, ${option_count} options, ${code_count} exit codes")
