# Runs the built bench tool's offline commands as a user would, through EMULATOR on a cross
# build (the QProcess-based tool test cannot run under user-mode emulation), and compares
# their whole output and exit codes.
#   cmake -DTOOL=<worksurface-tool> -DSCRATCH=<dir> [-DEMULATOR=<program|args>] -P check-tool-runs.cmake
string(REPLACE "|" ";" emulator "${EMULATOR}")
file(REMOVE_RECURSE "${SCRATCH}")
file(MAKE_DIRECTORY "${SCRATCH}")

function(expect_run expected_code expected_out expected_err)
    execute_process(COMMAND ${emulator} "${TOOL}" ${ARGN}
                    RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT code STREQUAL "${expected_code}" OR NOT out STREQUAL "${expected_out}"
       OR NOT err STREQUAL "${expected_err}")
        message(FATAL_ERROR "worksurface-tool ${ARGN}\n"
                            "exit ${code}, expected ${expected_code}\n"
                            "stdout:\n${out}\nexpected:\n${expected_out}\n"
                            "stderr:\n${err}\nexpected:\n${expected_err}")
    endif()
endfunction()

# A capture: a fader move (05 07 03 01 8f 9f), two bytes of noise (ff fe) and a press of
# layer up (04 14 28 01 41), written byte by byte.
set(capture "")
foreach(byte 5 7 3 1 143 159 255 254 4 20 40 1 65)
    string(ASCII ${byte} char)
    string(APPEND capture "${char}")
endforeach()
file(WRITE "${SCRATCH}/capture.bin" "${capture}")

expect_run(0
    "       0  section 0  in   fader position  device 3  fader 3  position 399\n\
       6  section 0  in   noise  fffe\n\
       8  section 0  in   button  device 40  layer up  pressed\n"
    ""
    decode "${SCRATCH}/capture.bin")
expect_run(0
    "{\"offset\":0,\"section\":0,\"dir\":\"in\",\"type\":7,\"typeName\":\"fader position\",\"device\":3,\"control\":\"fader 3\",\"value\":399,\"hex\":\"050703018f9f\"}\n\
{\"offset\":6,\"section\":0,\"dir\":\"in\",\"noise\":\"fffe\"}\n\
{\"offset\":8,\"section\":0,\"dir\":\"in\",\"type\":20,\"typeName\":\"button\",\"device\":40,\"control\":\"layer up\",\"value\":\"pressed\",\"hex\":\"0414280141\"}\n"
    ""
    decode --json --raw "${SCRATCH}/capture.bin")
expect_run(4 ""
    "worksurface-tool: cannot read ${SCRATCH}/none.bin: No such file or directory\n"
    decode "${SCRATCH}/none.bin")
expect_run(2
    "section 0  ${SCRATCH}/no-tty  missing  not openable: No such file or directory\n"
    ""
    ports --section 0 --ports "${SCRATCH}/no-tty")
expect_run(2
    "{\"section\":1,\"device\":\"${SCRATCH}/no-tty\",\"exists\":false,\"openable\":false,\"error\":\"No such file or directory\"}\n"
    ""
    ports --json --model K40 --section 1 --port "${SCRATCH}/no-tty")
expect_run(1 "" "worksurface-tool: --ports has 4 entries; the K60 has 3 sections\n"
    ports --ports a,b,c,d)

file(REMOVE_RECURSE "${SCRATCH}")
message(STATUS "decode and ports ran as expected")
