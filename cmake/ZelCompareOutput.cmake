# Runs PROGRAM with nothing on its standard input; fails unless it ends with 0 and, where EXPECTED names a
# file, has printed exactly what that holds.
execute_process(COMMAND ${PROGRAM} INPUT_FILE /dev/null OUTPUT_VARIABLE printed RESULT_VARIABLE status)
if(NOT status STREQUAL "0")
    message(FATAL_ERROR "ended with ${status}, having printed:\n${printed}")
endif()
if(EXPECTED)
    file(READ ${EXPECTED} expected)
    if(NOT printed STREQUAL expected)
        message(FATAL_ERROR "printed:\n${printed}\ninstead of ${EXPECTED}:\n${expected}")
    endif()
endif()
