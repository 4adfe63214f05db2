# Installs the build into a scratch prefix (not /usr) and builds against it
# as application teams do:
#   MODE=consumers: a widgets application with find_package(... COMPONENTS
#     Widgets) under every compiler given, a core-only tool with Qt Widgets
#     and OpenSSL made unfindable, the same tool through pkg-config, and a
#     look at what the shared libraries export;
#   MODE=headers: every installed header alone, under every compiler given.
# COMPILERS is a list of C++ compilers; missing ones are reported, not
# skipped silently.
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
file(GLOB libdir_candidates LIST_DIRECTORIES true ${prefix}/lib ${prefix}/lib64 ${prefix}/lib/*-linux-gnu)
find_path(cmake_dir OrvellaKitConfig.cmake PATHS ${prefix} PATH_SUFFIXES lib/cmake/OrvellaKit lib64/cmake/OrvellaKit
    NO_DEFAULT_PATH REQUIRED)
get_filename_component(libdir ${cmake_dir}/../.. ABSOLUTE)

set(compilers "")
foreach(compiler IN LISTS COMPILERS)
    find_program(found_${compiler} ${compiler})
    if(NOT found_${compiler})
        message(FATAL_ERROR "compiler ${compiler} not found (scripts/debian-packages.txt lists it)")
    endif()
    list(APPEND compilers ${found_${compiler}})
endforeach()

if(MODE STREQUAL "headers")
    foreach(compiler IN LISTS compilers)
        get_filename_component(name ${compiler} NAME)
        run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/headers -B ${WORK_DIR}/headers-${name} -G ${GENERATOR}
            -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${compiler} -DHEADERS_ROOT=${prefix}/include)
        run(${CMAKE_COMMAND} --build ${WORK_DIR}/headers-${name})
        message(STATUS "every header compiles alone with ${name}")
    endforeach()
    return()
endif()

foreach(expected include/OrvellaKit/OrvellaKit.h include/OrvellaKit/ORVExport.h include/OrvellaKit/ORVVersionMacros.h
                 include/OrvellaKitWidgets/ORVWidgetsExport.h share/orvellakit/translations/orvellakit_de.qm)
    if(NOT EXISTS ${prefix}/${expected})
        message(FATAL_ERROR "missing from the installation: ${expected}")
    endif()
endforeach()
foreach(expected cmake/OrvellaKit/OrvellaKitTargets.cmake cmake/OrvellaKit/OrvellaKitWidgetsTargets.cmake
                 pkgconfig/orvellakit.pc pkgconfig/orvellakit-widgets.pc)
    if(NOT EXISTS ${libdir}/${expected})
        message(FATAL_ERROR "missing from the installation: ${libdir}/${expected}")
    endif()
endforeach()

# What the libraries export: the API, and none of the libraries linked in.
foreach(library OrvellaKit OrvellaKitWidgets)
    run(nm -D --defined-only --demangle ${libdir}/lib${library}.so)
    string(REGEX MATCHALL "[^\n]+" symbols "${last_output}")
    list(LENGTH symbols count)
    set(leaked "")
    foreach(symbol IN LISTS symbols)
        if(symbol MATCHES "spdlog|fmt::|phonenumbers|protobuf|absl::|EVP_|OPENSSL|httplib")
            list(APPEND leaked "${symbol}")
        endif()
    endforeach()
    if(leaked)
        list(LENGTH leaked leaked_count)
        list(SUBLIST leaked 0 20 first)
        string(REPLACE ";" "\n" first "${first}")
        message(FATAL_ERROR "lib${library}.so exports ${leaked_count} symbols of libraries it links privately:\n${first}")
    endif()
    run(objdump -p ${libdir}/lib${library}.so)
    string(REGEX MATCH "SONAME +[^\n]+" soname "${last_output}")
    message(STATUS "lib${library}.so: ${count} exported symbols, ${soname}")
endforeach()

foreach(compiler IN LISTS compilers)
    get_filename_component(name ${compiler} NAME)
    set(dir ${WORK_DIR}/consumer-${name})
    run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/consumer -B ${dir} -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${prefix}
        -DCMAKE_CXX_COMPILER=${compiler} "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
    run(${CMAKE_COMMAND} --build ${dir})
    run(${dir}/consumer)
    if(NOT last_output MATCHES "consumer ok 00ABFF .*translations in ${prefix}/")
        message(FATAL_ERROR "unexpected consumer output (${name}): ${last_output}")
    endif()
    message(STATUS "${name}: ${last_output}")
endforeach()

# The core library alone must not need Qt Widgets or OpenSSL's development
# files: with both unfindable, configuring still succeeds.
set(dir ${WORK_DIR}/core-consumer)
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/core-consumer -B ${dir} -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_DISABLE_FIND_PACKAGE_OpenSSL=ON -DCMAKE_DISABLE_FIND_PACKAGE_Qt6Widgets=ON "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
run(${CMAKE_COMMAND} --build ${dir})
run(${dir}/core-consumer)
message(STATUS "core only: ${last_output}")

# The same tool through pkg-config.
set(ENV{PKG_CONFIG_PATH} ${libdir}/pkgconfig)
run(pkg-config --cflags --libs orvellakit)
string(STRIP "${last_output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(pkg-config --variable=translationsdir orvellakit)
string(STRIP "${last_output}" translations)
get_filename_component(translations ${translations} ABSOLUTE)
if(NOT translations STREQUAL "${prefix}/share/orvellakit/translations")
    message(FATAL_ERROR "pkg-config's translationsdir is ${translations}")
endif()
list(GET compilers 0 compiler)
separate_arguments(extra UNIX_COMMAND "${CXX_FLAGS}")
run(${compiler} -std=c++20 -fPIC ${extra} ${SOURCE_DIR}/core-consumer/main.cpp
    "-DORVELLAKIT_TRANSLATIONS=\"${translations}\"" ${flags} -o ${WORK_DIR}/pkg-consumer)
set(ENV{LD_LIBRARY_PATH} ${libdir})
run(${WORK_DIR}/pkg-consumer)
message(STATUS "pkg-config: ${last_output}")
