# Runs Doxygen over the public headers and fails, listing them, when any
# public symbol is undocumented or a comment does not parse.
file(REMOVE_RECURSE ${OUTPUT})
file(MAKE_DIRECTORY ${OUTPUT})
execute_process(COMMAND ${DOXYGEN} ${CONFIG} RESULT_VARIABLE result OUTPUT_QUIET ERROR_VARIABLE errors)
set(warnings "")
if(EXISTS ${OUTPUT}/warnings.txt)
    file(READ ${OUTPUT}/warnings.txt warnings)
endif()
string(STRIP "${warnings}${errors}" warnings)
if(NOT result EQUAL 0 OR NOT warnings STREQUAL "")
    message(FATAL_ERROR "The API reference is incomplete (doxygen exit ${result}):\n${warnings}")
endif()
message(STATUS "Every public symbol is documented")
