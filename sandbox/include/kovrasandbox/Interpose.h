// For the executables that define their own syscall() to count or steer the library's bpf
// commands (the tests, the benchmarks). The library reaches such a definition through the dynamic
// linker, and so does libbpf, through which the desk's own map work goes: a definition passes
// libbpf's commands on untouched and uncounted, and every call on to the next definition.
#pragma once

namespace kovra::sandbox {

// The definition of the C function `name` that follows the executable's own (libc's, or a
// sanitizer's). Ends the process with a line on stderr when there is none.
void* nextDefinition(const char* name);

// Whether `caller`, a return address, lies in libbpf. The bpf commands come from a handful of
// call sites, each looked up once, so that timed code pays a few comparisons per command rather
// than a dladdr().
bool fromLibbpf(const void* caller);

}  // namespace kovra::sandbox
