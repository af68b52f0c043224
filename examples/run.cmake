# Runs an example and holds it to its word: exit 0, and the text of the file EXPECTED.
cmake_policy(SET CMP0007 NEW)
list(REMOVE_ITEM RUN "")
execute_process(COMMAND ${RUN} OUTPUT_VARIABLE printed RESULT_VARIABLE status)
file(READ ${EXPECTED} expected)
if(NOT status EQUAL 0 OR NOT printed STREQUAL expected)
  message(FATAL_ERROR "exit ${status}; printed:\n${printed}expected:\n${expected}")
endif()
