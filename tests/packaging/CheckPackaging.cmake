# Builds and runs the consumer program against libkovrabpf, as a user of the project would.
#   cmake -DMODE=installed -DBUILD_DIR=<build> -DWORK_DIR=<tmp> [-DFLAGS=<cxx flags>] -P CheckPackaging.cmake
#     installs the build into a fresh prefix, checks what landed there, and builds the consumer
#     with find_package(kovrabpf) and with pkg-config;
#   cmake -DMODE=subdir -DSOURCE_DIR=<repo> -DWORK_DIR=<tmp> -P CheckPackaging.cmake
#     builds it with add_subdirectory(<repo> ... EXCLUDE_FROM_ALL).
# FLAGS carries the sanitizer flags of a sanitized build to the consumer.
cmake_minimum_required(VERSION 3.18)

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
    if(NOT rc EQUAL 0)
        string(REPLACE ";" " " line "${ARGN}")
        message(FATAL_ERROR "failed (${rc}): ${line}\n${out}")
    endif()
    set(output "${out}" PARENT_SCOPE)
endfunction()

function(expect_consumer_runs program)
    run(${program})
    if(NOT output MATCHES "kovrabpf consumer: 27 pinned maps, SpeedsValue 88 bytes")
        message(FATAL_ERROR "${program} printed: ${output}")
    endif()
endfunction()

get_filename_component(here ${CMAKE_CURRENT_LIST_FILE} DIRECTORY)
file(REMOVE_RECURSE ${WORK_DIR})

if(MODE STREQUAL "installed")
    set(prefix ${WORK_DIR}/prefix)
    run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
    # Every public header, whichever folder of the tree it comes from, under include/kovrabpf.
    file(GLOB headers RELATIVE ${here}/../.. ${here}/../../include/kovrabpf/*.h
         ${here}/../../bpf/include/kovrabpf/*.h)
    foreach(header ${headers})
        get_filename_component(name ${header} NAME)
        list(APPEND expected include/kovrabpf/${name})
    endforeach()
    list(APPEND expected bin/kovractl lib/libkovrabpf.so lib/pkgconfig/kovrabpf.pc
         lib/cmake/kovrabpf/kovrabpfConfig.cmake lib/cmake/kovrabpf/kovrabpfTargets.cmake)
    foreach(file ${expected})
        if(NOT EXISTS ${prefix}/${file})
            message(FATAL_ERROR "not installed: ${file}")
        endif()
    endforeach()
    run(${prefix}/bin/kovractl --help)

    run(${CMAKE_COMMAND} -S ${here}/installed -B ${WORK_DIR}/cmake -DCMAKE_PREFIX_PATH=${prefix}
        "-DCMAKE_CXX_FLAGS=${FLAGS}")
    run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake)
    expect_consumer_runs(${WORK_DIR}/cmake/consumer)

    set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
    run(pkg-config --cflags --libs kovrabpf)
    separate_arguments(pc_flags UNIX_COMMAND "${output} ${FLAGS}")
    run(c++ -std=c++17 ${here}/consumer.cpp -o ${WORK_DIR}/consumer-pc ${pc_flags})
    expect_consumer_runs(${WORK_DIR}/consumer-pc)
elseif(MODE STREQUAL "subdir")
    run(${CMAKE_COMMAND} -S ${here}/subdir -B ${WORK_DIR} -DKOVRA_SOURCE_DIR=${SOURCE_DIR})
    run(${CMAKE_COMMAND} --build ${WORK_DIR} -j 2)
    expect_consumer_runs(${WORK_DIR}/consumer)
else()
    message(FATAL_ERROR "MODE must be installed or subdir")
endif()
