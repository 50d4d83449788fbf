# Writes the build's source lists to <build>/kovra-source-lists.cmake, so that checks such as
# the comparison with Android.bp read them from the build itself instead of a copy kept by hand.
# Each line is `kovra_sources(GROUP SOURCE_DIR "SOURCES")`, with SOURCES as the target has them
# (relative to SOURCE_DIR unless absolute). Groups: library, kovractl, tests.
function(kovra_source_line out group target)
    set(${out} "${${out}}kovra_sources(${group} \"$<TARGET_PROPERTY:${target},SOURCE_DIR>\" \"$<TARGET_PROPERTY:${target},SOURCES>\")\n" PARENT_SCOPE)
endfunction()

set(KOVRA_SOURCE_LINES "")
kovra_source_line(KOVRA_SOURCE_LINES library kovrabpf)
foreach(target kovractl kovractl_kernelside)
    if(TARGET ${target})
        kovra_source_line(KOVRA_SOURCE_LINES kovractl ${target})
    endif()
endforeach()
get_property(KOVRA_TEST_TARGETS GLOBAL PROPERTY KOVRA_TEST_TARGETS)
foreach(target kovra_sandbox kovra_harness ${KOVRA_TEST_TARGETS})
    kovra_source_line(KOVRA_SOURCE_LINES tests ${target})
endforeach()
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/kovra-source-lists.cmake CONTENT "${KOVRA_SOURCE_LINES}")
