# cmake -DWORK=DIRECTORY -DPROGRAM=PROGRAM... -P run_in_empty_directory.cmake: empties the directory and hands
# it to the program, which has to succeed.
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
execute_process(COMMAND ${PROGRAM} ${WORK} RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${PROGRAM} ended with ${result}")
endif()
