# cmake -DCOMMAND=list -DEXIT_CODE=n -DOUTPUT=regex -P run.cmake: fails unless the command ends with that code
# and what it prints fits.
execute_process(COMMAND ${COMMAND} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
message("${output}")
if(NOT result STREQUAL EXIT_CODE)
    message(FATAL_ERROR "ended with ${result}, not ${EXIT_CODE}: ${COMMAND}")
endif()
if(NOT output MATCHES "${OUTPUT}")
    message(FATAL_ERROR "the output does not fit ${OUTPUT}")
endif()
