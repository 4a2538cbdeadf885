# Runs one program of the documents in a new folder that holds the sample tables, and compares its
# output: cmake -DPROGRAM= -DNAME= -DEXPECTED= -DSAMPLES= -DFOLDER= -P run_doc_sample.cmake

file(REMOVE_RECURSE ${FOLDER})
file(COPY ${SAMPLES}/ DESTINATION ${FOLDER}/samples FILES_MATCHING PATTERN *.dbf PATTERN *.fpt)
execute_process(COMMAND ${PROGRAM} ${NAME}
    WORKING_DIRECTORY ${FOLDER} OUTPUT_VARIABLE output RESULT_VARIABLE result)
file(READ ${EXPECTED} expected)
if(NOT result STREQUAL "0" OR NOT "${output}" STREQUAL "${expected}")
    message(FATAL_ERROR "${NAME} ended with ${result} and printed\n${output}\ninstead of\n${expected}")
endif()
