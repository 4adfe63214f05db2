# Runs Doxygen over the public headers and fails, listing them, on:
# - a public symbol without documentation, or a comment that does not parse
#   (Doxygen's own warnings);
# - a header without a \file block (Doxygen skips the free functions,
#   variables, macros and enums of such a header without a word);
# - a value of a public enum without documentation (Doxygen does not warn).
file(REMOVE_RECURSE ${OUTPUT})
file(MAKE_DIRECTORY ${OUTPUT})
execute_process(COMMAND ${DOXYGEN} ${CONFIG} RESULT_VARIABLE result OUTPUT_QUIET ERROR_VARIABLE errors)
set(warnings "")
if(EXISTS ${OUTPUT}/warnings.txt)
    file(READ ${OUTPUT}/warnings.txt warnings)
endif()
string(STRIP "${warnings}${errors}" warnings)

file(GLOB headers ${SOURCE_DIR}/include/OrvellaKit/*.h ${SOURCE_DIR}/include/OrvellaKitWidgets/*.h
    ${GENERATED_DIR}/OrvellaKit/ORVVersionMacros.h)
foreach(header IN LISTS headers)
    file(STRINGS ${header} file_blocks REGEX "[\\\\@]file")
    if(NOT file_blocks)
        string(APPEND warnings "\n${header}: no \\file block, so its free symbols are not checked")
    endif()
endforeach()

file(GLOB xml ${OUTPUT}/xml/*.xml)
if(NOT xml)
    string(APPEND warnings "\nDoxygen wrote no XML to check the enum values in")
else()
    execute_process(COMMAND awk -f ${CMAKE_CURRENT_LIST_DIR}/undocumented_enum_values.awk ${xml}
        OUTPUT_VARIABLE values RESULT_VARIABLE awk_result)
    if(NOT awk_result EQUAL 0)
        string(APPEND warnings "\nthe enum value check could not run (awk exit ${awk_result})")
    endif()
    string(STRIP "${values}" values)
    if(values)
        string(APPEND warnings "\nundocumented enum values:\n${values}")
    endif()
endif()

string(STRIP "${warnings}" warnings)
if(NOT result EQUAL 0 OR NOT warnings STREQUAL "")
    message(FATAL_ERROR "The API reference is incomplete (doxygen exit ${result}):\n${warnings}")
endif()
message(STATUS "Every public symbol is documented")
