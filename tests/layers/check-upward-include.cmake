# Copies src/ to a scratch folder, adds an include of the QML layer to a serial-link file
# and expects scripts/check-layers to fail on it, naming the file and the line.
file(REMOVE_RECURSE "${SCRATCH}")
file(COPY "${SOURCE_DIR}/src" DESTINATION "${SCRATCH}")
set(_victim "${SCRATCH}/src/serial/sectionconnection.cpp")
file(READ "${_victim}" _text)
file(WRITE "${_victim}" "#include \"qml/sectioninfomodel.h\"\n${_text}")

execute_process(COMMAND "${SOURCE_DIR}/scripts/check-layers" "${SCRATCH}/src"
                RESULT_VARIABLE _result OUTPUT_VARIABLE _out ERROR_VARIABLE _err)
if(_result EQUAL 0)
    message(FATAL_ERROR "check-layers passed an upward include:\n${_out}${_err}")
endif()
set(_expected "src/serial/sectionconnection.cpp:1: includes \"qml/sectioninfomodel.h\"")
string(FIND "${_err}" "${_expected}" _at)
if(_at LESS 0)
    message(FATAL_ERROR "check-layers failed without naming the include:\n${_err}")
endif()

# The untouched copy passes.
file(WRITE "${_victim}" "${_text}")
execute_process(COMMAND "${SOURCE_DIR}/scripts/check-layers" "${SCRATCH}/src"
                RESULT_VARIABLE _result OUTPUT_VARIABLE _out ERROR_VARIABLE _err)
if(NOT _result EQUAL 0)
    message(FATAL_ERROR "check-layers failed on the untouched copy:\n${_out}${_err}")
endif()
file(REMOVE_RECURSE "${SCRATCH}")
message(STATUS "check-layers names an upward include: ${_expected}")
