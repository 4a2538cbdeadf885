# Runs PROGRAM with the list ARGUMENTS; fails unless it succeeds and prints the text of the file
# EXPECTED.
execute_process(COMMAND ${PROGRAM} ${ARGUMENTS} OUTPUT_VARIABLE printed RESULT_VARIABLE result)
file(READ ${EXPECTED} expected)
if(NOT result EQUAL 0 OR NOT printed STREQUAL expected)
    message(FATAL_ERROR "status ${result}; expected:\n${expected}printed:\n${printed}")
endif()
