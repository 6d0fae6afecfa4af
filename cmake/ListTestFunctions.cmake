# Writes the CTest file OUTPUT with one test for each test function of EXECUTABLE.
# Arguments: NAME, EXECUTABLE, LAUNCHER (a list, may be empty), LABELS, TIMEOUT, OUTPUT.

execute_process(COMMAND "${EXECUTABLE}" -functions
                OUTPUT_VARIABLE functions
                RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "${EXECUTABLE} -functions ended with ${status}")
endif()
string(REGEX MATCHALL "[A-Za-z0-9_]+\\(\\)" functions "${functions}")
if(NOT functions)
    message(FATAL_ERROR "${EXECUTABLE} has no test function")
endif()

set(command)
foreach(word IN LISTS LAUNCHER ITEMS "${EXECUTABLE}")
    string(APPEND command " [==[${word}]==]")
endforeach()

# A test that may take long costs much, so it starts early and does not run on alone at the end.
set(content)
foreach(function IN LISTS functions)
    string(REPLACE "()" "" function "${function}")
    string(APPEND content
        "add_test([==[${NAME}.${function}]==] ${command} ${function})\n"
        "set_tests_properties([==[${NAME}.${function}]==] PROPERTIES"
        " SKIP_RETURN_CODE 77 TIMEOUT ${TIMEOUT} COST ${TIMEOUT} LABELS [==[${LABELS}]==])\n")
endforeach()
file(WRITE "${OUTPUT}" "${content}")
