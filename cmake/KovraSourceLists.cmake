# Writes the build's source lists to <build>/kovra-source-lists.cmake, so that checks such as
# the comparison with Android.bp read them from the build itself instead of a copy kept by hand.
# Each line is `kovra_sources(GROUP SOURCE_DIR "SOURCES")`, with SOURCES as the target has them
# (relative to SOURCE_DIR unless absolute). Groups: library, sandbox, kovractl, tests.
function(kovra_source_line out group target)
    set(${out} "${${out}}kovra_sources(${group} \"$<TARGET_PROPERTY:${target},SOURCE_DIR>\" \"$<TARGET_PROPERTY:${target},SOURCES>\")\n" PARENT_SCOPE)
endfunction()

set(KOVRA_SOURCE_LINES "")
kovra_source_line(KOVRA_SOURCE_LINES library kovrabpf)
kovra_source_line(KOVRA_SOURCE_LINES sandbox kovra_sandbox)
if(TARGET kovractl)
    kovra_source_line(KOVRA_SOURCE_LINES kovractl kovractl)
endif()
get_property(KOVRA_TEST_TARGETS GLOBAL PROPERTY KOVRA_TEST_TARGETS)
foreach(target kovra_harness ${KOVRA_TEST_TARGETS})
    kovra_source_line(KOVRA_SOURCE_LINES tests ${target})
endforeach()
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/kovra-source-lists.cmake CONTENT "${KOVRA_SOURCE_LINES}")
