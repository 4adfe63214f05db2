file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
    execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "Failed (${result}): ${ARGV}\n${out}\n${err}")
    endif()
    set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(expected include/OrvellaKit/OrvellaKit.h lib/cmake/OrvellaKit/OrvellaKitConfig.cmake
                 share/orvellakit/translations/orvellakit_de.qm)
    if(NOT EXISTS ${prefix}/${expected})
        message(FATAL_ERROR "missing from the installation: ${expected}")
    endif()
endforeach()

run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/consumer -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
run(${WORK_DIR}/consumer/consumer)
if(NOT last_output MATCHES "consumer ok 00ABFF")
    message(FATAL_ERROR "unexpected consumer output: ${last_output}")
endif()
message(STATUS "${last_output}")
