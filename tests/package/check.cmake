# Installs the build into a scratch prefix, then builds and runs an outside
# project against it, once through find_package and once through pkg-config.
# Arguments: BUILD_DIR, WORK_DIR, CONSUMER_DIR, QT_MAJOR.
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}\n${err}")
    endif()
    set(last_output "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/consumer -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
run(${WORK_DIR}/consumer/consumer)
if(NOT last_output MATCHES "^([0-9]+-)+[0-9]+\n$")
    message(FATAL_ERROR "unexpected consumer output: ${last_output}")
endif()
message(STATUS "find_package consumer printed ${last_output}")

find_program(PKG_CONFIG pkg-config)
find_program(CXX_COMPILER c++)
if(PKG_CONFIG AND CXX_COMPILER)
    set(ENV{PKG_CONFIG_PATH} "${prefix}/lib/pkgconfig:${prefix}/lib/x86_64-linux-gnu/pkgconfig")
    run(${PKG_CONFIG} --cflags --libs RvoDdi)
    string(STRIP "${last_output}" flags)
    separate_arguments(flags UNIX_COMMAND "${flags}")
    file(GLOB_RECURSE libdir_hint LIST_DIRECTORIES false "${prefix}/lib*/libRvoDdi.so")
    get_filename_component(libdir "${libdir_hint}" DIRECTORY)
    run(${CXX_COMPILER} -std=c++17 -fPIC ${CONSUMER_DIR}/main.cpp ${flags}
        -Wl,-rpath,${libdir} -o ${WORK_DIR}/consumer-pkgconfig)
    run(${WORK_DIR}/consumer-pkgconfig)
    message(STATUS "pkg-config consumer printed ${last_output}")
endif()
