# Checks that Android.bp builds the same sources as CMake: the library, the desk's kernel side,
# kovractl and the tests.
#   cmake -DLISTS=<build>/kovra-source-lists.cmake -DROOT=<repo> -DBUILD=<build> -P CheckAndroidBp.cmake
# Sources under a host/ folder are host-only stand-ins for platform libraries and stay out of
# the device build, and so do the files CMake generates in the build tree.
cmake_minimum_required(VERSION 3.18)
include(${CMAKE_CURRENT_LIST_DIR}/../ListDifferences.cmake)

set(modules library=libkovrabpf sandbox=libkovra_sandbox kovractl=kovractl tests=libkovrabpf_tests)

function(kovra_sources group dir sources)
    foreach(source ${sources})
        get_filename_component(path ${source} ABSOLUTE BASE_DIR ${dir})
        string(FIND "${path}" "${BUILD}/" generated)
        file(RELATIVE_PATH path ${ROOT} ${path})
        if(NOT generated EQUAL 0 AND NOT path MATCHES "(^|/)host/")
            set_property(GLOBAL APPEND PROPERTY cmake_${group} ${path})
        endif()
    endforeach()
endfunction()
include(${LISTS})

# The quoted entries of the srcs list of the module named `name`.
function(bp_sources name out)
    file(READ ${ROOT}/Android.bp bp)
    string(FIND "${bp}" "name: \"${name}\"," start)
    if(start EQUAL -1)
        message(FATAL_ERROR "Android.bp has no module ${name}")
    endif()
    string(SUBSTRING "${bp}" ${start} -1 module)
    string(REGEX MATCH "srcs: \\[[^]]*\\]" srcs "${module}")
    string(REGEX MATCHALL "\"[^\"]+\"" quoted "${srcs}")
    string(REPLACE "\"" "" list "${quoted}")
    set(${out} ${list} PARENT_SCOPE)
endfunction()

set(problems "")
foreach(entry ${modules})
    string(REPLACE "=" ";" pair ${entry})
    list(GET pair 0 group)
    list(GET pair 1 module)
    get_property(cmake GLOBAL PROPERTY cmake_${group})
    bp_sources(${module} bp)
    list(SORT cmake)
    list(REMOVE_DUPLICATES cmake)
    list(SORT bp)
    if(NOT cmake STREQUAL bp)
        kovra_list_differences("${cmake}" "${bp}" only_cmake only_bp)
        string(APPEND problems "\n${module}: only in CMake: ${only_cmake}; only in Android.bp: ${only_bp}")
    endif()
endforeach()
if(problems)
    message(FATAL_ERROR "Android.bp and the CMake build differ:${problems}")
endif()
